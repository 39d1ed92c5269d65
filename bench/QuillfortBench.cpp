// quillfort-bench: starts a real `quillfort-agent --headless` in a temporary
// home, drives it as the filter would (loopback frames and request files), and
// measures a minimal framed server (accept, read one frame, write a fixed
// answer, close) in the same run as the floor every loopback figure is set
// against. Prints one table, or JSON with --json.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/json.hpp>
#include <fmt/format.h>

#include "bench/BenchSamples.hpp"
#include "contracts/FlowPromptMessages.hpp"
#include "contracts/PromptFrame.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "contracts/RuleSnapshotStore.hpp"
#include "model/Json.hpp"
#include "platform/FileSystem.hpp"

extern char** environ;

namespace quillfort::bench {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double microsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

// --- Requests and frames ---------------------------------------------------------

FlowPromptRequest benchRequest(const std::string& host) {
    FlowPromptRequest request{.id = Uuid::random(), .context = typicalFlowContext(), .suggestedRule = {}};
    request.context.matchedHostname = host;
    request.context.flow.hostText = host;
    return request;
}

std::string requestPayload(const std::string& host) {
    return encodeCompact(QuillfortPromptBridgeRequestEnvelope{benchRequest(host), benchDate()});
}

std::string requestFrame(const std::string& host) { return *encodeFrame(requestPayload(host)); }

bool sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

bool receiveExactly(int fd, char* into, std::size_t count) {
    while (count > 0) {
        const auto got = ::recv(fd, into, count, 0);
        if (got <= 0) return false;
        into += got;
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

std::optional<std::string> receiveFrame(int fd) {
    unsigned char header[4];
    if (!receiveExactly(fd, reinterpret_cast<char*>(header), 4)) return std::nullopt;
    const std::uint32_t length = (std::uint32_t{header[0]} << 24) | (std::uint32_t{header[1]} << 16) |
                                 (std::uint32_t{header[2]} << 8) | std::uint32_t{header[3]};
    std::string payload(length, '\0');
    if (!receiveExactly(fd, payload.data(), length)) return std::nullopt;
    return payload;
}

int connectTo(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// One exchange as the filter makes it: connect, one frame out, one frame back.
bool promptExchange(std::uint16_t port, std::string_view frame) {
    const int fd = connectTo(port);
    if (fd < 0) return false;
    const bool ok = sendAll(fd, frame) && receiveFrame(fd).has_value();
    ::close(fd);
    return ok;
}

std::uint16_t freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

// --- The floor -----------------------------------------------------------------------

// The least any framed loopback server can do per prompt, on one thread as the
// agent's bridge queue is: accept, read one frame, write a fixed answer, close.
class FloorServer {
public:
    FloorServer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int one = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        ::listen(listener_, 4096);
        socklen_t length = sizeof(address);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        const FlowPromptRequest request = benchRequest("floor.example.com");
        answer_ = *encodeFrame(encodeCompact(QuillfortPromptBridgeResponseEnvelope{
            .promptID = request.id,
            .response = FlowPromptResponse{.promptID = request.id, .action = RuleAction::allow,
                                           .scope = RuleScope::temporary, .persist = false,
                                           .ruleSelection = std::nullopt, .suggestedRule = std::nullopt},
            .errorMessage = std::nullopt,
            .createdAt = benchDate(),
        }));
        thread_ = std::thread([this] { serve(); });
    }
    ~FloorServer() {
        stopping_ = true;
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    [[nodiscard]] std::uint16_t port() const { return port_; }

private:
    void serve() {
        while (!stopping_) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            if (receiveFrame(fd)) sendAll(fd, answer_);
            ::close(fd);
        }
    }

    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::string answer_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// --- The agent -----------------------------------------------------------------------

struct AgentOptions {
    std::map<std::string, std::string> environment;
    std::optional<RuleSnapshotEnvelope> ruleSnapshot;  // written before start
};

class AgentProcess {
public:
    AgentProcess(const std::filesystem::path& executable, const AgentOptions& options) {
        home_ = std::filesystem::temp_directory_path() / fmt::format("quillfort-bench-{}", Uuid::random().uppercaseString());
        std::filesystem::create_directories(home_);
        fileSystem_ = defaultFileSystem();
        container_ = *QuillfortSharedContainer::containerURL(*fileSystem_, home_);
        if (options.ruleSnapshot) {
            std::filesystem::create_directories(container_);
            (void)RuleSnapshotStore(*fileSystem_, ruleSnapshotPath()).save(*options.ruleSnapshot);
        }
        port_ = freePort();

        std::vector<std::string> environment{"HOME=" + home_.string(), "PATH=/usr/bin:/bin"};
        for (const auto& [name, value] : options.environment) environment.push_back(name + "=" + value);
        std::vector<std::string> arguments{executable.string(), "--headless", "--loopback-port",
                                           std::to_string(port_)};
        std::vector<char*> argv, envp;
        for (auto& a : arguments) argv.push_back(a.data());
        argv.push_back(nullptr);
        for (auto& e : environment) envp.push_back(e.data());
        envp.push_back(nullptr);

        // Its log goes to a file: a terminal would make the agent wait on it.
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        const auto log = (home_ / "agent.log").string();
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        started_ = Clock::now();
        if (::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        if (pid_ < 0) throw std::runtime_error("cannot start " + executable.string());
        waitUntilReady();
    }
    ~AgentProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            int status = 0;
            ::waitpid(pid_, &status, 0);
        }
        std::error_code ignored;
        std::filesystem::remove_all(home_, ignored);
    }

    [[nodiscard]] std::uint16_t port() const { return port_; }
    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] double startupMicros() const { return startupMicros_; }
    [[nodiscard]] std::filesystem::path ruleSnapshotPath() const { return container_ / "RuleSnapshot.json"; }
    [[nodiscard]] std::filesystem::path statusPath() const { return container_ / "PromptAgentStatus.json"; }
    [[nodiscard]] const std::filesystem::path& requests() const { return requests_; }
    [[nodiscard]] const std::filesystem::path& responses() const { return responses_; }

    // The number of queued prompts the status file shows; nothing while it cannot be read.
    [[nodiscard]] std::optional<std::int64_t> queuedInStatusFile() const {
        std::ifstream in(statusPath());
        if (!in) return std::nullopt;
        std::stringstream text;
        text << in.rdbuf();
        boost::system::error_code code;
        auto value = boost::json::parse(text.str(), code);
        if (code || !value.is_object()) return std::nullopt;
        const auto* count = value.as_object().if_contains("activePromptCount");
        if (!count || !count->is_int64()) return std::nullopt;
        return count->as_int64();
    }

    // Resident memory of the agent now, from the kernel.
    [[nodiscard]] double residentMegabytes() const {
        std::ifstream in(fmt::format("/proc/{}/status", pid_));
        std::string line;
        while (std::getline(in, line)) {
            if (line.starts_with("VmRSS:")) return std::stod(line.substr(6)) / 1024.0;
        }
        return -1;
    }

    // CPU time of every thread of the agent so far, from the scheduler.
    [[nodiscard]] std::chrono::nanoseconds cpuTime() const {
        std::chrono::nanoseconds total{0};
        for (const auto& task : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", pid_))) {
            std::ifstream in(task.path() / "schedstat");
            long long running = 0;
            if (in >> running) total += std::chrono::nanoseconds(running);
        }
        return total;
    }

private:
    // Ready means what a filter needs: the manifest is there and the port accepts.
    void waitUntilReady() {
        const auto manifest = container_ / "QuillfortPromptAgent.endpoint";
        const auto deadline = Clock::now() + 10s;
        bool manifestSeen = false;
        while (Clock::now() < deadline) {
            if (!manifestSeen) manifestSeen = std::filesystem::exists(manifest);
            if (manifestSeen) {
                if (const int fd = connectTo(port_); fd >= 0) {
                    startupMicros_ = microsSince(started_);
                    ::close(fd);
                    readManifest(manifest);
                    return;
                }
            }
            std::this_thread::sleep_for(200us);
        }
        // The destructor does not run for a constructor that throws.
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
        throw std::runtime_error("the agent did not get ready; see " + (home_ / "agent.log").string());
    }

    void readManifest(const std::filesystem::path& manifest) {
        std::ifstream in(manifest);
        std::stringstream text;
        text << in.rdbuf();
        auto value = boost::json::parse(text.str()).as_object();
        requests_ = std::string(value.at("requestsDirectoryPath").as_string());
        responses_ = std::string(value.at("responsesDirectoryPath").as_string());
    }

    std::filesystem::path home_;
    std::filesystem::path container_;
    std::shared_ptr<FileSystem> fileSystem_;
    std::filesystem::path requests_;
    std::filesystem::path responses_;
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
    Clock::time_point started_;
    double startupMicros_ = 0;
};

// --- Scenarios -------------------------------------------------------------------------

double loopbackThroughput(std::uint16_t port, int clients, int perClient) {
    std::vector<std::string> frames;
    for (int i = 0; i < clients; ++i) frames.push_back(requestFrame(fmt::format("client{}.example.com", i)));
    std::atomic<int> failures{0};
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            for (int i = 0; i < perClient; ++i) {
                if (!promptExchange(port, frames[static_cast<std::size_t>(c)])) ++failures;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const double seconds = microsSince(start) / 1e6;
    if (failures > 0) std::cerr << "throughput: " << failures << " exchanges failed\n";
    return (clients * perClient - failures) / seconds;
}

std::vector<double> loopbackLatencies(std::uint16_t port, int count, const std::function<std::string(int)>& host) {
    std::vector<double> micros;
    for (int i = 0; i < count; ++i) {
        const auto frame = requestFrame(host(i));
        const auto start = Clock::now();
        if (promptExchange(port, frame)) micros.push_back(microsSince(start));
    }
    return micros;
}

// Connections that send one prompt each and stay open, as filters waiting for the user.
std::vector<int> holdPromptsOpen(std::uint16_t port, int count, const std::string& hostPrefix) {
    std::vector<int> open;
    for (int i = 0; i < count; ++i) {
        const int fd = connectTo(port);
        if (fd < 0) break;
        sendAll(fd, requestFrame(fmt::format("{}{}.example.com", hostPrefix, i)));
        open.push_back(fd);
    }
    return open;
}

// Seconds from now until the status file shows `count` queued prompts.
double secondsUntilQueued(const AgentProcess& agent, std::int64_t count, Clock::time_point since) {
    const auto deadline = Clock::now() + 60s;
    while (Clock::now() < deadline) {
        if (agent.queuedInStatusFile() == count) return microsSince(since) / 1e6;
        std::this_thread::sleep_for(1ms);
    }
    return -1;
}

void dropRequestFile(const std::filesystem::path& requests, const std::string& host, std::string& nameOut) {
    const auto payload = requestPayload(host);
    auto envelope = decodeJson<QuillfortPromptBridgeRequestEnvelope>(payload);
    nameOut = envelope->request.id.uppercaseString() + ".json";
    // As the client does it: a hidden temporary renamed into place.
    const auto temporary = requests / ("." + nameOut + ".tmp");
    {
        std::ofstream out(temporary, std::ios::binary);
        out << payload;
    }
    std::filesystem::rename(temporary, requests / nameOut);
}

double fileRoundTripMedianMillis(const AgentProcess& agent, int count) {
    std::vector<double> millis;
    for (int i = 0; i < count; ++i) {
        std::string name;
        const auto start = Clock::now();
        dropRequestFile(agent.requests(), fmt::format("file{}.example.com", i), name);
        const auto response = agent.responses() / name;
        const auto deadline = Clock::now() + 5s;
        while (!std::filesystem::exists(response) && Clock::now() < deadline) std::this_thread::sleep_for(100us);
        millis.push_back(microsSince(start) / 1000);
        std::error_code ignored;
        std::filesystem::remove(response, ignored);
    }
    return percentile(millis, 0.5);
}

double fileBurstSeconds(const AgentProcess& agent, int count) {
    const auto start = Clock::now();
    std::string name;
    for (int i = 0; i < count; ++i) dropRequestFile(agent.requests(), fmt::format("burst{}.example.com", i), name);
    const auto deadline = Clock::now() + 60s;
    while (Clock::now() < deadline) {
        int answered = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(agent.responses())) ++answered;
        if (answered >= count) return microsSince(start) / 1e6;
        std::this_thread::sleep_for(2ms);
    }
    return -1;
}

// The least a process that keeps a 100 ms poll can cost: one thread that
// wakes on a periodic timer, reads it and sleeps again. On a virtual machine
// a wake-up alone can cost tens of microseconds, so this is the floor of the
// agent's idle figure, measured over the same window.
class IdleFloor {
public:
    IdleFloor() {
        timer_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
        const itimerspec every{{0, 100'000'000}, {0, 100'000'000}};
        ::timerfd_settime(timer_, 0, &every, nullptr);
        thread_ = std::thread([this] {
            tid_ = static_cast<pid_t>(::syscall(SYS_gettid));
            std::uint64_t expirations = 0;
            while (!stopping_) {
                pollfd wait{timer_, POLLIN, 0};
                ::poll(&wait, 1, -1);
                [[maybe_unused]] const auto got = ::read(timer_, &expirations, sizeof expirations);
            }
        });
        while (tid_ == 0) std::this_thread::sleep_for(1ms);
    }
    ~IdleFloor() {
        stopping_ = true;
        thread_.join();
        ::close(timer_);
    }
    [[nodiscard]] std::chrono::nanoseconds cpuTime() const {
        std::ifstream in(fmt::format("/proc/self/task/{}/schedstat", tid_.load()));
        long long running = 0;
        in >> running;
        return std::chrono::nanoseconds(running);
    }

private:
    int timer_ = -1;
    std::atomic<pid_t> tid_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

struct IdleCpu {
    double agent = 0;
    double floor = 0;
};

// Percent of one core over `window`, every thread of the agent, beside the floor.
IdleCpu idleCpuPercent(const AgentProcess& agent, std::chrono::seconds window) {
    IdleFloor floor;
    std::this_thread::sleep_for(1s);  // let start-up work finish
    const auto agentBefore = agent.cpuTime();
    const auto floorBefore = floor.cpuTime();
    const auto start = Clock::now();
    std::this_thread::sleep_for(window);
    const auto agentUsed = agent.cpuTime() - agentBefore;
    const auto floorUsed = floor.cpuTime() - floorBefore;
    const double seconds = microsSince(start) / 1e6;
    return {100.0 * std::chrono::duration<double>(agentUsed).count() / seconds,
            100.0 * std::chrono::duration<double>(floorUsed).count() / seconds};
}

// One encode and durable atomic write of the snapshot, as the agent saves it.
double snapshotWriteMillis(const RuleSnapshotEnvelope& snapshot) {
    auto fileSystem = defaultFileSystem();
    const auto path = std::filesystem::temp_directory_path() / fmt::format("quillfort-bench-{}.json", ::getpid());
    std::vector<double> millis;
    for (int i = 0; i < 7; ++i) {
        const auto start = Clock::now();
        (void)RuleSnapshotStore(*fileSystem, path).save(snapshot);
        millis.push_back(microsSince(start) / 1000);
    }
    std::filesystem::remove(path);
    return percentile(millis, 0.5);
}

// --- Report -----------------------------------------------------------------------------

struct Row {
    std::string what;
    std::string unit;
    double agent = 0;
    std::optional<double> floor;
    std::string goal;
    bool met = false;
};

void printTable(const std::vector<Row>& rows) {
    fmt::print("| what | agent | floor | agent / floor | goal | met |\n|---|---|---|---|---|---|\n");
    for (const auto& row : rows) {
        const auto number = [&](double v) { return fmt::format("{:.{}f} {}", v, v >= 100 ? 0 : v >= 1 ? 2 : 3, row.unit); };
        fmt::print("| {} | {} | {} | {} | {} | {} |\n", row.what, number(row.agent),
                   row.floor ? number(*row.floor) : "—",
                   row.floor && *row.floor != 0 ? fmt::format("{:.2f}", row.agent / *row.floor) : "—", row.goal,
                   row.met ? "yes" : "no");
    }
}

void printJson(const std::vector<Row>& rows) {
    boost::json::array out;
    for (const auto& row : rows) {
        boost::json::object item{{"what", row.what}, {"unit", row.unit}, {"agent", row.agent}, {"goal", row.goal},
                                 {"met", row.met}};
        if (row.floor) {
            item["floor"] = *row.floor;
            if (*row.floor != 0) item["ratio"] = row.agent / *row.floor;
        }
        out.push_back(std::move(item));
    }
    std::cout << boost::json::serialize(out) << "\n";
}

int run(int argc, char** argv) {
    CLI::App app{"Measures a real quillfort-agent beside a minimal framed server."};
    std::filesystem::path agentPath =
        std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "QuillfortAgent" /
        "quillfort-agent";
    bool json = false;
    int scale = 1;
    int idleSeconds = 20;
    app.add_option("--agent", agentPath, "the quillfort-agent to measure")->check(CLI::ExistingFile);
    app.add_flag("--json", json, "print the figures as JSON");
    app.add_option("--scale", scale, "multiply the number of exchanges (more stable figures)")->check(CLI::PositiveNumber);
    app.add_option("--idle-seconds", idleSeconds, "how long to watch the idle agent")->check(CLI::PositiveNumber);
    std::uint16_t drivePort = 0;
    int driveCount = 2000;
    app.add_option("--drive-port", drivePort, "only send automated prompts to an agent already on this port "
                                              "(for a profiler wrapped around it)");
    app.add_option("--drive-count", driveCount, "how many, with --drive-port")->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    if (drivePort != 0) {
        fmt::print("{:.0f} prompts/s\n", loopbackThroughput(drivePort, 16, std::max(1, driveCount / 16)));
        return 0;
    }

    // A thousand prompts held open need a thousand descriptors here and in the agent.
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);

    std::vector<Row> rows;
    FloorServer floor;

    {  // Answered at once by automation: the agent's own cost per prompt.
        AgentProcess agent(agentPath, {.environment = {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"}}, .ruleSnapshot = std::nullopt});
        const int perClient = 100 * scale;
        const double agentRate = loopbackThroughput(agent.port(), 16, perClient);
        const double floorRate = loopbackThroughput(floor.port(), 16, perClient);
        rows.push_back({"loopback, automation allow-once, 16 clients", "prompts/s", agentRate, floorRate,
                        "≥ 0.6 × floor", agentRate >= 0.6 * floorRate});

        const auto host = [](int i) { return fmt::format("one{}.example.com", i); };
        const auto agentLatency = loopbackLatencies(agent.port(), 1000 * scale, host);
        const auto floorLatency = loopbackLatencies(floor.port(), 1000 * scale, host);
        rows.push_back({"loopback, 1 client, p50", "µs", percentile(agentLatency, 0.5),
                        percentile(floorLatency, 0.5), "—", true});
        const double p99 = percentile(agentLatency, 0.99);
        rows.push_back({"loopback, 1 client, p99", "µs", p99, percentile(floorLatency, 0.99), "< 500 µs", p99 < 500});

        const double roundTrip = fileRoundTripMedianMillis(agent, 50 * scale);
        rows.push_back({"file bridge, one request's round trip (median)", "ms", roundTrip, std::nullopt, "< 10 ms",
                        roundTrip < 10});
        const double burst = fileBurstSeconds(agent, 1000);
        rows.push_back({"file bridge, 1,000 request files at once, all answered", "s", burst, std::nullopt,
                        "< 0.5 s", burst >= 0 && burst < 0.5});
    }
    {  // Nothing answers: prompts queue as they would for a user away from the screen.
        AgentProcess agent(agentPath, {});
        rows.push_back({"start-up to manifest and listener ready", "ms", agent.startupMicros() / 1000, std::nullopt,
                        "< 30 ms", agent.startupMicros() < 30'000});
        const auto idle = idleCpuPercent(agent, std::chrono::seconds(idleSeconds));
        rows.push_back({fmt::format("idle CPU over {} s, all threads (floor: a bare 100 ms timer thread)", idleSeconds),
                        "% of a core", idle.agent, idle.floor, "< 0.05 %", idle.agent < 0.05});
        const double resident = agent.residentMegabytes();
        rows.push_back({"headless resident memory", "MB", resident, std::nullopt, "< 12 MB",
                        resident > 0 && resident < 12});

        auto open = holdPromptsOpen(agent.port(), 1000, "queued");
        const double queued = secondsUntilQueued(agent, static_cast<std::int64_t>(open.size()), Clock::now());
        rows.push_back({"1,000 prompts queued over loopback → all in the status file", "s", queued, std::nullopt,
                        "< 0.25 s", queued >= 0 && queued < 0.25});
        for (const int fd : open) ::close(fd);
    }
    {  // A flood of held prompts while one focused prompt is answered by automation.
        AgentProcess agent(agentPath, {.environment = {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"},
                                                       {"QUILLFORT_AUTOMATION_RULE_HOST", "focus.example.com"}},
                                     .ruleSnapshot = std::nullopt});
        std::vector<std::vector<int>> held(16);
        const auto start = Clock::now();
        std::vector<std::thread> threads;
        for (int c = 0; c < 16; ++c) {
            threads.emplace_back([&, c] { held[c] = holdPromptsOpen(agent.port(), 64, fmt::format("flood{}-", c)); });
        }
        for (auto& thread : threads) thread.join();
        const double queued = secondsUntilQueued(agent, 16 * 64, start);
        rows.push_back({"flood: 16 clients × 64 prompts held open, all queued", "s", queued, std::nullopt, "—",
                        queued >= 0});
        const auto focused = loopbackLatencies(agent.port(), 20, [](int) { return std::string("focus.example.com"); });
        const auto floorFocused = loopbackLatencies(floor.port(), 20, [](int) { return std::string("focus.example.com"); });
        rows.push_back({"flood: an automated prompt meanwhile (median)", "µs", percentile(focused, 0.5),
                        percentile(floorFocused, 0.5), "answered", !focused.empty()});
        for (auto& list : held)
            for (const int fd : list) ::close(fd);
    }
    {  // Lasting answers against a large snapshot: the agent's added cost per prompt.
        const auto snapshot = ruleSnapshot(10'000);
        const double write = snapshotWriteMillis(snapshot);
        AgentProcess agent(agentPath, {.environment = {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-permanent"}},
                                       .ruleSnapshot = snapshot});
        const auto host = [](int i) { return fmt::format("lasting{}.example.com", i); };
        const auto agentLatency = loopbackLatencies(agent.port(), 30 * scale, host);
        const auto floorLatency = loopbackLatencies(floor.port(), 30 * scale, host);
        const double added = (percentile(agentLatency, 0.5) - percentile(floorLatency, 0.5)) / 1000;
        rows.push_back({"loopback allow-permanent, 10,000 rules: added cost per prompt (floor: one atomic write)",
                        "ms", added, write, "≤ 1.5 × floor", added <= 1.5 * write});
    }

    if (json) {
        printJson(rows);
    } else {
        printTable(rows);
    }
    return 0;
}

}  // namespace
}  // namespace quillfort::bench

int main(int argc, char** argv) {
    try {
        return quillfort::bench::run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "quillfort-bench: " << error.what() << "\n";
        return 1;
    }
}
