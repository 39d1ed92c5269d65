// quillfort-filter-bench: measures the real quillfort-filter in a network
// namespace of its own, beside a floor in the same run: a minimal program
// that serves the same queue behind the same kernel rules and accepts every
// packet. Rows: new TCP connections per second and connect latency through
// the floor, through the filter with 10 and with 10,000 rules, and with 20
// prompts waiting; a burst of new UDP flows in blocking mode; the filter's
// resident memory and its CPU time while idle. Needs root. Prints a Markdown
// table, or JSON with --json.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/json.hpp>
#include <fmt/format.h>

#include "QuillfortFilter/kernel/FilterKernelRules.hpp"
#include "QuillfortFilter/kernel/PacketQueue.hpp"
#include "contracts/QuillfortFilterStatus.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/Json.hpp"

extern char** environ;

namespace quillfort::bench {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::uint16_t serverPort = 7000;
constexpr std::uint16_t allowedUdpPort = 7100;
constexpr std::uint16_t unknownUdpPort = 7101;

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5))];
}

// --- processes -----------------------------------------------------------------

struct Child {
    pid_t pid = -1;
    void stop(int signal = SIGTERM) {
        if (pid <= 0) return;
        ::kill(pid, signal);
        ::waitpid(pid, nullptr, 0);
        pid = -1;
    }
};

Child spawn(const fs::path& program, const std::vector<std::string>& arguments, const fs::path& log) {
    std::vector<std::string> all{program.string()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : all) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    Child child;
    if (posix_spawn(&child.pid, program.c_str(), &actions, nullptr, argv.data(), environ) != 0)
        throw std::runtime_error("cannot start " + program.string());
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::seconds limit = 20s) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

std::string readAll(const fs::path& path) {
    std::ifstream stream(path);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// --- the floor -------------------------------------------------------------------

int serveFloor(std::uint16_t queueNumber) {
    PacketQueueOptions options;
    options.queue = queueNumber;
    auto queue = PacketQueue::open(options);
    if (!queue) return 1;
    KernelRuleOptions rules;
    rules.queue = queueNumber;
    rules.includeLoopback = true;
    auto installed = FilterKernelRules::install(rules);
    if (!installed) return 1;
    std::fprintf(stderr, "floor serving\n");
    std::vector<QueuedPacket> packets;
    for (;;) {
        pollfd wait{queue->descriptor(), POLLIN, 0};
        ::poll(&wait, 1, -1);
        packets.clear();
        (void)queue->receive(packets);
        for (const auto& packet : packets) queue->verdict(packet.id, true);
        (void)queue->flush();
    }
}

// --- load ------------------------------------------------------------------------

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Accepts and closes, on a thread of its own, until the process ends.
void startServer() {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    auto address = loopback(serverPort);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 4096) != 0)
        throw std::runtime_error("cannot listen");
    std::thread([listener] {
        for (;;) {
            const int accepted = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (accepted >= 0) ::close(accepted);
        }
    }).detach();
}

// One connection: connect, then close with a reset so no TIME_WAIT piles up.
std::optional<double> connectOnce() {
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const linger reset{1, 0};
    ::setsockopt(client, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    auto address = loopback(serverPort);
    const auto start = Clock::now();
    const bool connected = ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    const double micros = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    ::close(client);
    return connected ? std::optional(micros) : std::nullopt;
}

struct ConnectFigures {
    double rate = 0;  // connections per second, `workers` at once
    double p50 = 0;   // µs, one at a time
    double p99 = 0;
    std::size_t failures = 0;
};

ConnectFigures measureConnections(std::size_t samples, std::size_t workers, std::chrono::milliseconds duration) {
    ConnectFigures figures;
    std::vector<double> latencies;
    for (std::size_t i = 0; i < samples; ++i) {
        if (auto micros = connectOnce()) latencies.push_back(*micros);
        else ++figures.failures;
    }
    figures.p50 = percentile(latencies, 0.5);
    figures.p99 = percentile(latencies, 0.99);
    std::atomic<std::size_t> made{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (std::size_t w = 0; w < workers; ++w)
        threads.emplace_back([&] {
            while (!stop.load(std::memory_order_relaxed))
                if (connectOnce()) made.fetch_add(1, std::memory_order_relaxed);
        });
    std::this_thread::sleep_for(duration);
    stop = true;
    for (auto& thread : threads) thread.join();
    figures.rate = static_cast<double>(made.load()) / std::chrono::duration<double>(Clock::now() - start).count();
    return figures;
}

void sendUdp(std::uint16_t port, std::size_t count) {
    auto address = loopback(port);
    for (std::size_t i = 0; i < count; ++i) {
        const int sender = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ::sendto(sender, "b", 1, 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::close(sender);
    }
}

int udpReceiver(std::uint16_t port) {
    const int receiver = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int buffer = 64 * 1024 * 1024;
    ::setsockopt(receiver, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
    auto address = loopback(port);
    ::bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof address);
    return receiver;
}

std::size_t drain(int receiver) {
    std::size_t received = 0;
    char byte;
    while (::recv(receiver, &byte, 1, MSG_DONTWAIT) >= 0) ++received;
    return received;
}

// --- the filter ------------------------------------------------------------------

Rule allowRule(const std::string& executable, std::vector<RuleDestination> destination, std::string name) {
    Rule rule;
    rule.id = Uuid::random();
    rule.name = std::move(name);
    rule.action = RuleAction::allow;
    rule.subject = {RuleSubject::exactExecutable(executable)};
    rule.destination = std::move(destination);
    rule.origin = RuleOrigin::manual;
    return rule;
}

void writeRules(const fs::path& home, std::size_t count, const std::string& self) {
    std::vector<Rule> rules;
    for (std::size_t i = 0; i + 2 < count; ++i)
        rules.push_back(allowRule(fmt::format("/usr/bin/app{}", i % 97),
                                  {RuleDestination::hostnameExact(fmt::format("host{}.example.org", i)),
                                   RuleDestination::portExact(static_cast<std::uint16_t>(1024 + i % 50000))},
                                  fmt::format("other {}", i)));
    rules.push_back(allowRule(self, {RuleDestination::portExact(serverPort)}, "bench connections"));
    rules.push_back(allowRule(self, {RuleDestination::portExact(allowedUdpPort),
                                     RuleDestination::transportProtocol(TransportProtocol::udp)}, "bench datagrams"));
    const fs::path container = home / "Library" / "Group Containers" / "group.com.vessimo.Quillfort.shared";
    fs::create_directories(container);
    std::ofstream(container / "RuleSnapshot.json")
        << encodePretty(RuleSnapshotEnvelope{dateFrom(std::chrono::system_clock::now()), std::move(rules)});
}

std::optional<QuillfortFilterStatus> filterStatus(const fs::path& home) {
    auto decoded = decodeJson<QuillfortFilterStatus>(readAll(home / "status.json"));
    return decoded ? std::optional(*decoded) : std::nullopt;
}

// A profiler to run the filter under ("perf record -g -o FILE --"), for finding where time goes.
std::vector<std::string> wrapper;

Child startFilter(const fs::path& filter, const fs::path& home, const std::string& unknownTraffic,
                  std::uint16_t agentPort) {
    const fs::path log = home / "filter.log";
    fs::remove(log);
    fs::remove(home / "status.json");
    std::vector<std::string> arguments = wrapper;
    const fs::path program = wrapper.empty() ? filter : fs::path(wrapper.front());
    if (!wrapper.empty()) {
        arguments.erase(arguments.begin());
        arguments.push_back(filter.string());
    }
    std::vector<std::string> options{"--include-loopback", "--home", home.string(), "--state-dir", (home / "state").string(),
                                 "--status-file", (home / "status.json").string(), "--config",
                                 (home / "filter.json").string(), "--unknown-traffic", unknownTraffic,
                                 "--agent-port", std::to_string(agentPort)};
    arguments.insert(arguments.end(), options.begin(), options.end());
    Child child = spawn(program, arguments, log);
    if (!waitFor([&] { return readAll(log).find("is filtering new flows") != std::string::npos; }))
        throw std::runtime_error("the filter did not start: " + readAll(log));
    return child;
}

std::uint64_t residentKilobytes(pid_t pid) {
    std::ifstream status(fmt::format("/proc/{}/status", pid));
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:")) return std::stoull(line.substr(6));
    return 0;
}

std::uint64_t cpuNanoseconds(pid_t pid) {
    std::uint64_t total = 0;
    for (const auto& task : fs::directory_iterator(fmt::format("/proc/{}/task", pid))) {
        std::ifstream schedstat(task.path() / "schedstat");
        std::uint64_t onCpu = 0;
        schedstat >> onCpu;
        total += onCpu;
    }
    return total;
}

struct Row {
    std::string name;
    std::string value;
    std::string floor;
    std::string ratio;
};

}  // namespace

int run(int argc, char** argv) {
    CLI::App app{"Measures quillfort-filter beside a minimal NFQUEUE program on the same queue, in a network "
                 "namespace of its own. Needs root."};
    fs::path filter, agent;
    bool json = false;
    std::size_t samples = 2000;
    int rounds = 3;
    int seconds = 2;
    std::optional<std::uint16_t> floorQueue;
    std::optional<std::pair<std::uint16_t, std::size_t>> sender;
    app.add_option("--filter", filter, "the quillfort-filter to measure")->check(CLI::ExistingFile);
    app.add_option("--agent", agent, "the quillfort-agent that holds the waiting prompts")->check(CLI::ExistingFile);
    app.add_option("--samples", samples, "connections timed one at a time per row");
    app.add_option("--seconds", seconds, "seconds of concurrent connections per round");
    app.add_option("--rounds", rounds, "rounds of floor and filter measurements (medians are shown)");
    app.add_flag("--json", json, "print the figures as JSON");
    std::vector<std::string> phases{"connect", "prompts", "burst"};
    app.add_option("--phases", phases, "which measurements to make: connect, prompts, burst")
        ->delimiter(',')
        ->check(CLI::IsMember({"connect", "prompts", "burst"}));
    app.add_option("--wrap", wrapper, "run the filter under this command, one word per --wrap (a profiler)");
    app.add_option("--serve-floor", floorQueue)->group("");  // the floor process
    app.add_option("--send-udp", sender)->group("");         // a burst sender
    CLI11_PARSE(app, argc, argv);
    if (floorQueue) return serveFloor(*floorQueue);
    if (sender) {
        sendUdp(sender->first, sender->second);
        return 0;
    }
    if (filter.empty() || agent.empty()) {
        std::cerr << "quillfort-filter-bench: --filter and --agent are needed\n";
        return 2;
    }
    if (::unshare(CLONE_NEWNET) != 0 || std::system("ip link set lo up") != 0) {
        std::cerr << "quillfort-filter-bench: cannot make a network namespace (run as root)\n";
        return 1;
    }
    const fs::path self = fs::read_symlink("/proc/self/exe");
    const fs::path home = fs::temp_directory_path() / fmt::format("quillfort-filter-bench-{}", ::getpid());
    fs::create_directories(home);
    startServer();
    const std::size_t workers = 4;
    const auto duration = std::chrono::seconds(seconds);
    std::vector<Row> rows;
    auto connectRows = [&](const std::string& label, const ConnectFigures& f, const ConnectFigures& floor) {
        rows.push_back({label + ": connections/s (" + std::to_string(workers) + " at once)", fmt::format("{:.0f}", f.rate),
                        fmt::format("{:.0f}", floor.rate), fmt::format("{:.2f}", f.rate / floor.rate)});
        rows.push_back({label + ": connect p50 (µs)", fmt::format("{:.0f}", f.p50), fmt::format("{:.0f}", floor.p50),
                        fmt::format("{:.2f}", f.p50 / floor.p50)});
        rows.push_back({label + ": connect p99 (µs)", fmt::format("{:.0f}", f.p99), fmt::format("{:.0f}", floor.p99),
                        fmt::format("{:.2f}", f.p99 / floor.p99)});
    };

    auto want = [&](std::string_view phase) { return std::find(phases.begin(), phases.end(), phase) != phases.end(); };

    // The floor (same table, same queue, accepts everything), the filter
    // with 10 rules and with 10,000, in alternating rounds so that whatever
    // else the machine does falls on all of them alike; each figure is the
    // median of its rounds.
    auto measureFloor = [&] {
        Child floorProcess = spawn(self, {"--serve-floor", "27839"}, home / "floor.log");
        if (!waitFor([&] { return readAll(home / "floor.log").find("floor serving") != std::string::npos; }))
            throw std::runtime_error("the floor did not start");
        fs::remove(home / "floor.log");
        (void)measureConnections(200, workers, 300ms);  // warm up
        auto figures = measureConnections(samples, workers, duration);
        floorProcess.stop();
        return figures;
    };
    auto measureFilter = [&](std::size_t ruleCount) {
        writeRules(home, ruleCount, self.string());
        Child filterProcess = startFilter(filter, home, "permissive", 1);
        (void)measureConnections(200, workers, 300ms);
        auto figures = measureConnections(samples, workers, duration);
        filterProcess.stop();
        return figures;
    };
    auto median = [](std::vector<ConnectFigures> rounds) {
        auto pick = [&](auto member) {
            std::vector<double> values;
            for (const auto& round : rounds) values.push_back(round.*member);
            return percentile(values, 0.5);
        };
        return ConnectFigures{pick(&ConnectFigures::rate), pick(&ConnectFigures::p50), pick(&ConnectFigures::p99), 0};
    };
    Child running;
    ConnectFigures floor, many;
    if (want("connect")) {
        std::vector<ConnectFigures> floors, fews, manys;
        for (int round = 0; round < rounds; ++round) {
            floors.push_back(measureFloor());
            fews.push_back(measureFilter(10));
            manys.push_back(measureFilter(10000));
        }
        floor = median(floors);
        const auto few = median(fews);
        many = median(manys);
        connectRows("10 rules", few, floor);
        connectRows("10,000 rules", many, floor);
        rows.push_back({"10,000 rules beside 10: connect p50", fmt::format("{:.2f} ×", many.p50 / few.p50), "", ""});
        rows.push_back({"10,000 rules beside 10: connections/s", fmt::format("{:.2f} ×", many.rate / few.rate), "", ""});
    }
    writeRules(home, 10000, self.string());

    // Twenty prompts waiting in the agent while rule-decided flows go on.
    if (want("prompts")) {
        ::setenv("HOME", home.c_str(), 1);
        Child agentProcess = spawn(agent, {"--headless", "--loopback-port", "0"}, home / "agent.log");
        std::uint16_t agentPort = 0;
        waitFor([&] {
            const auto log = readAll(home / "agent.log");
            const std::string marker = "Listening for loopback prompt requests on 127.0.0.1:";
            const auto at = log.find(marker);
            if (at != std::string::npos) agentPort = static_cast<std::uint16_t>(std::stoi(log.substr(at + marker.size())));
            return agentPort != 0;
        });
        running = startFilter(filter, home, "alerting", agentPort);
        (void)measureConnections(200, workers, 300ms);
        const auto noneWaiting = measureConnections(samples, workers, duration);
        for (std::uint16_t port = 20000; port < 20020; ++port) sendUdp(port, 1);
        waitFor([&] {
            auto status = filterStatus(home);
            return status && status->counters.promptsWaiting == 20;
        });
        const auto waiting = measureConnections(samples, workers, duration);
        const auto promptsWaiting = filterStatus(home) ? filterStatus(home)->counters.promptsWaiting : 0;
        connectRows(fmt::format("{} prompts waiting (beside none)", promptsWaiting), waiting, noneWaiting);
        running.stop();
        agentProcess.stop(SIGINT);
    }

    // A burst: 10,000 new UDP flows of an allowed program, 2,000 of another.
    if (want("burst")) {
        fs::copy_file(self, home / "other-program", fs::copy_options::overwrite_existing);
        running = startFilter(filter, home, "blocking", 1);
        const int allowedReceiver = udpReceiver(allowedUdpPort), unknownReceiver = udpReceiver(unknownUdpPort);
        const auto burstStart = Clock::now();
        std::vector<Child> senders;
        for (int i = 0; i < 4; ++i)
            senders.push_back(spawn(self, {"--send-udp", std::to_string(allowedUdpPort), "2500"}, home / "senders.log"));
        senders.push_back(spawn(home / "other-program", {"--send-udp", std::to_string(unknownUdpPort), "2000"},
                                home / "senders.log"));
        for (auto& child : senders) ::waitpid(child.pid, nullptr, 0);
        std::size_t allowed = 0, unknown = 0;
        waitFor([&] {
            allowed += drain(allowedReceiver);
            unknown += drain(unknownReceiver);
            auto status = filterStatus(home);
            return status && status->counters.flowsDecided >= 12000 && allowed >= 10000;
        }, 30s);
        const double burstSeconds = std::chrono::duration<double>(Clock::now() - burstStart).count();
        allowed += drain(allowedReceiver);
        unknown += drain(unknownReceiver);
        rows.push_back({"burst: allowed datagrams delivered", fmt::format("{} of 10000 ({:.2f} %)", allowed, allowed / 100.0), "", ""});
        rows.push_back({"burst: unknown datagrams delivered", fmt::format("{} of 2000", unknown), "", ""});
        rows.push_back({"burst: time to decide 12,000 flows", fmt::format("{:.2f} s", burstSeconds), "", ""});

        // Footprint after the burst, with 10,000 rules.
        std::this_thread::sleep_for(1500ms);  // the last coalesced write
        rows.push_back({"resident memory, 10,000 rules, after the burst",
                        fmt::format("{:.1f} MB", residentKilobytes(running.pid) / 1024.0), "", ""});
        const auto cpuBefore = cpuNanoseconds(running.pid);
        std::this_thread::sleep_for(10s);
        const double idlePercent = static_cast<double>(cpuNanoseconds(running.pid) - cpuBefore) / 10e9 * 100.0;
        rows.push_back({"idle CPU over 10 s, all threads", fmt::format("{:.3f} % of a core", idlePercent), "", ""});
        running.stop();
    }
    fs::remove_all(home);

    if (json) {
        boost::json::object object;
        for (const auto& row : rows) object[row.name] = {{"value", row.value}, {"floor", row.floor}, {"ratio", row.ratio}};
        std::cout << boost::json::serialize(object) << '\n';
    } else {
        std::cout << "| what | filter | floor or reference | ratio |\n|---|---|---|---|\n";
        for (const auto& row : rows) std::cout << fmt::format("| {} | {} | {} | {} |\n", row.name, row.value, row.floor, row.ratio);
    }
    return 0;
}

}  // namespace quillfort::bench

int main(int argc, char** argv) {
    try {
        return quillfort::bench::run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "quillfort-filter-bench: " << error.what() << '\n';
        return 1;
    }
}
