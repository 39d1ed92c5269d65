#include "QuillfortAgent/automation/AgentPreviewPrompts.hpp"

#include <algorithm>

#include "model/Date.hpp"
#include "model/Text.hpp"

namespace quillfort::AgentPreviewPrompts {

namespace {

std::optional<std::string> environmentValue(const ProcessInfo& processInfo, std::string_view name) {
    return processInfo.environmentValue(std::string(name));
}

// A port given as text: present, not empty and a decimal 16-bit number.
std::optional<std::uint16_t> portFrom(const std::optional<std::string>& text) {
    if (!text || text->empty()) return std::nullopt;
    return text::parseUInt16(*text);
}

ProcessIdentity previewIdentity(std::int32_t pid, Bytes auditToken, std::string_view executablePath, Date launchTime) {
    ProcessIdentity identity;
    identity.pid = pid;
    identity.auditToken = std::move(auditToken);
    identity.executablePath = std::string(executablePath);
    identity.cwd = std::string(workingDirectory);
    identity.launchTime = launchTime;
    return identity;
}

ProcessNode runningShellNode(ProcessIdentity identity) {
    ProcessNode node;
    node.identity = std::move(identity);
    node.tags = {ProcessTag::shell};
    node.state = ProcessState::running;
    return node;
}

// "value" for an argument "name=value".
std::optional<std::string_view> inlineValue(std::string_view argument, std::string_view name) {
    if (argument.size() <= name.size() || !argument.starts_with(name) || argument[name.size()] != '=') {
        return std::nullopt;
    }
    return argument.substr(name.size() + 1);
}

}  // namespace

std::optional<std::string> automationArgumentValue(std::string_view name, const std::vector<std::string>& arguments) {
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        if (*argument == name) {
            if (std::next(argument) == arguments.end()) return std::nullopt;
            return *std::next(argument);
        }
        if (const auto assigned = inlineValue(*argument, name)) return std::string(*assigned);
    }
    return std::nullopt;
}

std::vector<std::string> withoutAutomationArguments(const std::vector<std::string>& arguments) {
    static constexpr std::string_view valuedFlags[] = {queueCountSetting.flag, hostSetting.flag, portSetting.flag,
                                                       protocolSetting.flag};
    std::vector<std::string> kept;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const auto& argument = arguments[i];
        if (argument == previewPromptSetting.flag) continue;
        const auto valued = std::find_if(std::begin(valuedFlags), std::end(valuedFlags), [&](std::string_view flag) {
            return argument == flag || inlineValue(argument, flag);
        });
        if (valued == std::end(valuedFlags)) {
            kept.push_back(argument);
        } else if (argument == *valued) {
            ++i;  // its value, when there is one
        }
    }
    return kept;
}

std::optional<std::string> settingValue(const Setting& setting, const ProcessInfo& processInfo,
                                        const UserDefaults& userDefaults) {
    if (auto value = environmentValue(processInfo, setting.variable)) return value;
    if (auto value = automationArgumentValue(setting.flag, processInfo.arguments)) return value;
    return userDefaults.string(setting.variable);
}

bool previewPromptRequested(const ProcessInfo& processInfo, const UserDefaults& userDefaults) {
    if (environmentValue(processInfo, previewPromptSetting.variable) == "1") return true;
    const auto& arguments = processInfo.arguments;
    if (std::find(arguments.begin(), arguments.end(), previewPromptSetting.flag) != arguments.end()) return true;
    return userDefaults.string(previewPromptSetting.variable) == "1";
}

std::int64_t previewPromptQueueCount(const ProcessInfo& processInfo, const UserDefaults& userDefaults) {
    const auto raw = settingValue(queueCountSetting, processInfo, userDefaults);
    if (!raw) return 1;
    const auto count = text::parseInt64(text::trimmed(*raw));
    if (!count || *count <= 0) return 1;
    return *count;
}

FlowPromptRequest makePreviewPromptRequest(const ProcessInfo& processInfo, const UserDefaults& userDefaults,
                                           std::chrono::system_clock::time_point now, UuidSource& ids) {
    const Date today = dateFrom(now);

    std::string host;
    if (auto configured = settingValue(hostSetting, processInfo, userDefaults)) {
        host = std::move(*configured);
    } else if (auto fallback = environmentValue(processInfo, fallbackHostVariable)) {
        host = std::move(*fallback);
    } else {
        host = std::string(placeholderHost);
    }

    const std::uint16_t port =
        portFrom(settingValue(portSetting, processInfo, userDefaults))
            .or_else([&] { return portFrom(environmentValue(processInfo, fallbackPortVariable)); })
            .value_or(defaultPort);

    TransportProtocol transport = TransportProtocol::tcp;
    if (auto protocolText = settingValue(protocolSetting, processInfo, userDefaults)) {
        const std::string lowered = text::lowercased(*protocolText);
        transport = lowered == "udp"   ? TransportProtocol::udp
                    : lowered == "tcp" ? TransportProtocol::tcp
                                       : TransportProtocol::unknown;
    }

    ProcessIdentity shell = previewIdentity(5401, Bytes{0xA0, 0xB0, 0xC0, 0xD0}, "/bin/zsh", today);
    shell.signingID = "com.apple.zsh";
    shell.teamID = "APPLE";

    ProcessIdentity client = previewIdentity(5402, Bytes{0xA1, 0xB2, 0xC3, 0xD4}, clientExecutablePath, today);
    client.bundleID = std::string(clientIdentifier);
    client.signingID = std::string(clientIdentifier);
    client.teamID = std::string(clientTeamID);
    client.argv = {"preview-client", "--host", host, "--port", std::to_string(port)};

    FlowIdentity flow;
    flow.extensionGeneratedID = ids.next().uppercaseString();
    flow.sourceProcessAuditToken = client.auditToken;
    flow.direction = FlowDirection::outbound;
    flow.transportProtocol = transport;
    flow.remoteEndpoint = NetworkEndpoint{host, port};
    flow.hostText = host;
    flow.port = port;
    flow.timestamp = today;

    FlowContext context;
    context.flow = std::move(flow);
    context.matchedProcessNode = runningShellNode(std::move(client));
    context.ancestorChain = {runningShellNode(std::move(shell))};
    context.matchedHostname = host;
    context.dnsConfidence = DNSConfidence::exact;
    context.networkProfile = NetworkProfile::defaultProfile;

    return FlowPromptRequest{.id = ids.next(), .context = std::move(context), .suggestedRule = std::nullopt};
}

}  // namespace quillfort::AgentPreviewPrompts
