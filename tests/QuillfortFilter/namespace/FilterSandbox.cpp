#include "tests/QuillfortFilter/namespace/FilterSandbox.hpp"

#include <sched.h>
#include <signal.h>

#include <array>
#include <cstring>
#include <cstdio>
#include <fstream>

#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/Json.hpp"

namespace quillfort::testing {

namespace fs = std::filesystem;

namespace {

std::optional<std::string>& reason() {
    static std::optional<std::string> value;
    return value;
}

fs::path buildDirectory() {
    if (const char* build = std::getenv("QUILLFORT_BUILD_DIR"); build && *build) return build;
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path().parent_path().parent_path();
}

fs::path filterExecutable() { return buildDirectory() / "QuillfortFilter" / "quillfort-filter"; }

}  // namespace

std::string shell(const std::string& command, int* status) {
    std::string output;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return output;
    std::array<char, 4096> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) output += buffer.data();
    const int result = ::pclose(pipe);
    if (status != nullptr) *status = WIFEXITED(result) ? WEXITSTATUS(result) : -1;
    return output;
}

void enterNetworkNamespace() {
    if (!fs::exists(filterExecutable())) {
        reason() = filterExecutable().string() + " is not built";
    } else if (::unshare(CLONE_NEWNET) != 0) {
        reason() = std::string("this process may not make a network namespace (") + std::strerror(errno) +
                   "); the filter's namespace tests need root or CAP_SYS_ADMIN";
    } else if (int status = 0; shell("ip link set lo up", &status), status != 0) {
        reason() = "cannot bring up loopback in the test's namespace (is iproute2 installed?)";
    } else if (auto skip = AgentSandbox::skipReason()) {
        reason() = *skip;
    }
}

const std::optional<std::string>& namespaceSkipReason() { return reason(); }

std::string FilterSandbox::python() {
    // Debian's interpreter, not whatever a PATH finds first.
    static const std::string path = fs::canonical("/usr/bin/python3").string();
    return path;
}

FilterSandbox::FilterSandbox() = default;

FilterSandbox::~FilterSandbox() {
    if (filter_) (void)stopFilter(SIGTERM);
}

void FilterSandbox::launchAgent() {
    agent_.launchAgent();
    agentPort_ = agent_.port();
}

void FilterSandbox::startFilter(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"--include-loopback", "--home", home().string(),
                                 "--state-dir", (filterFiles_.path() / "state").string(),
                                 "--status-file", (filterFiles_.path() / "filter-status.json").string(),
                                 "--config", (home() / "filter.json").string(),
                                 "--agent-port", std::to_string(agentPort_)};
    all.insert(all.end(), arguments.begin(), arguments.end());
    auto started = ChildProcess::start(filterExecutable(), all, agent_.environment(), home() / "output");
    if (!started) throw std::runtime_error(started.error());
    filter_.emplace(std::move(*started));
    if (!waitForFilterLog("is filtering new flows")) throw std::runtime_error("the filter did not start:\n" + filterLog());
}

std::optional<int> FilterSandbox::stopFilter(int signal) {
    if (!filter_) return std::nullopt;
    filter_->sendSignal(SIGCONT);
    filter_->sendSignal(signal);
    auto status = filter_->waitFor(std::chrono::duration_cast<std::chrono::milliseconds>(processDeadline));
    filter_.reset();
    return status;
}

void FilterSandbox::pauseFilter(bool paused) { filter_->sendSignal(paused ? SIGSTOP : SIGCONT); }

std::string FilterSandbox::filterLog() const { return filter_ ? filter_->standardError() : std::string(); }

bool FilterSandbox::waitForFilterLog(const std::string& fragment, std::chrono::seconds limit) {
    return eventually([&] { return filterLog().find(fragment) != std::string::npos; }, limit);
}

void FilterSandbox::writeConfiguration(const std::string& json) { writeText(home() / "filter.json", json); }

void FilterSandbox::writeRules(const std::vector<Rule>& rules) {
    const RuleSnapshotEnvelope snapshot{dateFrom(std::chrono::system_clock::now()), rules};
    fs::create_directories(container());
    writeText(container() / ".rules.tmp", encodePretty(snapshot));
    fs::rename(container() / ".rules.tmp", container() / "RuleSnapshot.json");
}

std::optional<QuillfortFilterStatus> FilterSandbox::status() const {
    auto decoded = decodeJson<QuillfortFilterStatus>(readText(filterFiles_.path() / "filter-status.json").value_or(""));
    return decoded ? std::optional(*decoded) : std::nullopt;
}

bool FilterSandbox::waitForStatus(const std::function<bool(const QuillfortFilterStatus&)>& predicate) {
    return eventually([&] {
        auto current = status();
        return current && predicate(*current);
    });
}

std::vector<FlowFilterEvent> FilterSandbox::events() const {
    auto decoded =
        decodeJson<FlowFilterEventSnapshot>(readText(container() / "FlowFilterMonitorSnapshot.json").value_or(""));
    return decoded ? decoded->events : std::vector<FlowFilterEvent>{};
}

std::optional<FlowFilterEvent> FilterSandbox::waitForEvent(const std::function<bool(const FlowFilterEvent&)>& predicate,
                                                           std::chrono::seconds limit) {
    std::optional<FlowFilterEvent> found;
    eventually(
        [&] {
            for (const auto& event : events())
                if (predicate(event)) found = event;
            return found.has_value();
        },
        limit);
    return found;
}

ChildProcess FilterSandbox::startPeer(const std::vector<std::string>& arguments, const fs::path& interpreter) const {
    std::vector<std::string> all{QUILLFORT_NETPEER};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const fs::path program = interpreter.is_absolute() ? interpreter : fs::path(python());
    auto started = ChildProcess::start(program, all, agent_.environment(), home() / "output");
    if (!started) throw std::runtime_error(started.error());
    return std::move(*started);
}

FilterSandbox::PeerRun FilterSandbox::runPeer(const std::vector<std::string>& arguments,
                                              std::chrono::seconds limit) const {
    ChildProcess peer = startPeer(arguments);
    auto status = peer.waitFor(std::chrono::duration_cast<std::chrono::milliseconds>(limit));
    return {status, peer.standardOutput()};
}

int FilterSandbox::promptsWaiting() const {
    auto current = agent_.status();
    return current ? static_cast<int>(current->activePromptCount) : 0;
}

bool FilterSandbox::answerFirstPrompt(const std::string& preset) {
    std::string id;
    if (!eventually([&] {
            auto current = agent_.status();
            if (!current || !current->activePrompt) return false;
            id = current->activePrompt->promptID.uppercaseString();
            return true;
        }))
        return false;
    return agent_.runTool({"answer", id, preset}).status == 0;
}

Rule testRule(std::string name, RuleAction action, const std::string& executable,
              std::vector<RuleDestination> destination) {
    Rule rule;
    rule.id = Uuid::random();
    rule.name = std::move(name);
    rule.action = action;
    if (!executable.empty()) rule.subject = {RuleSubject::exactExecutable(executable)};
    rule.destination = std::move(destination);
    return rule;
}

}  // namespace quillfort::testing
