#include "tests/testsupport/AgentSandbox.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "contracts/PromptFrame.hpp"
#include "model/Json.hpp"
#include "platform/LoginSessions.hpp"
#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort::testing {

namespace fs = std::filesystem;

FlowPromptRequest sampleRequest(std::uint64_t n, const std::string& host) {
    FlowPromptRequest request{.id = sampleUuid(n), .context = sampleFlowContext(), .suggestedRule = {}};
    request.context.matchedHostname = host;
    request.context.flow.hostText = host;
    return request;
}

QuillfortPromptBridgeRequestEnvelope sampleEnvelope(std::uint64_t n, const std::string& host) {
    return {.request = sampleRequest(n, host), .createdAt = sampleDate()};
}

// --- Loopback client -----------------------------------------------------------------

LoopbackTestClient::LoopbackTestClient(std::uint16_t port) {
    descriptor_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval timeout{.tv_sec = processDeadline.count(), .tv_usec = 0};
    ::setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

LoopbackTestClient::~LoopbackTestClient() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

bool LoopbackTestClient::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

void LoopbackTestClient::finishSending() { ::shutdown(descriptor_, SHUT_WR); }

std::optional<std::string> LoopbackTestClient::receiveAll() {
    std::string received;
    char buffer[4096];
    while (true) {
        const auto count = ::recv(descriptor_, buffer, sizeof buffer, 0);
        if (count == 0) return received;
        if (count < 0) return std::nullopt;
        received.append(buffer, static_cast<std::size_t>(count));
    }
}

std::optional<std::string> exchangeFrames(std::uint16_t port, const std::vector<std::string>& pieces) {
    LoopbackTestClient client(port);
    if (!client.connected()) return std::nullopt;
    for (const auto& piece : pieces) {
        if (!client.send(piece)) return std::nullopt;
    }
    client.finishSending();
    return client.receiveAll();
}

std::string frameHeader(std::uint32_t length) {
    return std::string{static_cast<char>(length >> 24), static_cast<char>(length >> 16),
                       static_cast<char>(length >> 8), static_cast<char>(length)};
}

std::optional<QuillfortPromptBridgeResponseEnvelope> decodeResponseFrame(const std::string& frame) {
    // Whole means exactly the header's length after the header.
    if (frame.size() < 4 || frame.substr(0, 4) != frameHeader(static_cast<std::uint32_t>(frame.size() - 4))) {
        return std::nullopt;
    }
    auto decoded = decodeJson<QuillfortPromptBridgeResponseEnvelope>(std::string_view(frame).substr(4));
    return decoded ? std::optional(*decoded) : std::nullopt;
}

// --- The sandbox -----------------------------------------------------------------------

AgentSandbox::AgentSandbox() { fs::create_directories(home() / "output"); }

namespace {

fs::path buildDirectory() {
    if (const char* build = std::getenv("QUILLFORT_BUILD_DIR"); build && *build) return build;
    // Run by hand from the build tree: <build>/tests/<folder>/<binary>.
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path().parent_path();
}

fs::path agentExecutable() { return buildDirectory() / "QuillfortAgent" / "quillfort-agent"; }
fs::path toolExecutable() { return buildDirectory() / "tools" / "quillfort"; }

}  // namespace

std::optional<std::string> AgentSandbox::skipReason() {
    if (LoginSessions::activeConsoleUser()) return "a console user is signed in on this machine";
    if (!fs::exists(agentExecutable())) return agentExecutable().string() + " is not built";
    return std::nullopt;
}

Environment AgentSandbox::environment() const {
    Environment variables{
        {"HOME", home().string()},
        {"XDG_CONFIG_HOME", (home() / ".config").string()},
        {"TMPDIR", home().string()},
        {"PATH", std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin"},
    };
    return variables;
}

ChildProcess AgentSandbox::startAgent(const std::vector<std::string>& arguments, const Environment& extra) {
    auto variables = environment();
    for (const auto& [name, value] : extra) variables[name] = value;
    auto started = ChildProcess::start(agentExecutable(), arguments, variables, home() / "output");
    if (!started) throw std::runtime_error(started.error());
    return std::move(*started);
}

ChildProcess& AgentSandbox::launchAgent(const Environment& extra, const std::vector<std::string>& arguments) {
    // Port 0: the kernel picks a port nobody holds, and the agent names it in
    // its log. A port probed free beforehand can be taken by any connection's
    // ephemeral end before the agent binds it.
    auto withPort = arguments;
    withPort.insert(withPort.end(), {"--loopback-port", "0"});
    agent_ = std::make_unique<ChildProcess>(startAgent(withPort, extra));

    const bool ready = eventually([&] {
        const auto current = status();
        return current && current->manifestPublished && current->loopbackListenerReady;
    });
    if (!ready) throw std::runtime_error("the agent did not become ready:\n" + agentLog());
    const std::string listening = "Listening for loopback prompt requests on 127.0.0.1:";
    const auto log = agentLog();
    const auto at = log.find(listening);
    if (at == std::string::npos) throw std::runtime_error("the agent did not name its loopback port:\n" + log);
    port_ = static_cast<std::uint16_t>(std::stoul(log.substr(at + listening.size())));
    return *agent_;
}

bool AgentSandbox::waitForAgentLog(const std::string& fragment) {
    return eventually([&] { return agentLog().find(fragment) != std::string::npos; });
}

ChildProcess AgentSandbox::startTool(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin() + 1, {"--home", home().string()});
    auto tool = ChildProcess::start(toolExecutable(), arguments, environment(), home() / "output");
    if (!tool) throw std::runtime_error(tool.error());
    return std::move(*tool);
}

AgentSandbox::ToolRun AgentSandbox::runTool(const std::vector<std::string>& arguments) const {
    ChildProcess tool = startTool(arguments);
    // A braced list is evaluated in order: the output is read once the tool has ended.
    return {tool.waitFor(std::chrono::milliseconds(3 * processDeadline)), tool.standardOutput(), tool.standardError()};
}

fs::path AgentSandbox::container() const {
    return home() / "Library" / "Group Containers" / "group.com.vessimo.Quillfort.shared";
}

std::optional<PromptAgentStatusSnapshot> AgentSandbox::status() const {
    auto decoded = decodeJson<PromptAgentStatusSnapshot>(readText(statusFile()).value_or(""));
    return decoded ? std::optional(*decoded) : std::nullopt;
}

}  // namespace quillfort::testing
