#include "tests/testsupport/ModelSamples.hpp"

#include <chrono>

namespace quillfort::testing {

Date sampleDate() {
    using namespace std::chrono;
    return Date{sys_days{year{2026} / March / 1}} + hours{12};
}

Uuid sampleUuid(std::uint64_t n) {
    Uuid uuid;
    uuid.bytes[6] = 0x40;
    uuid.bytes[8] = 0x80;
    for (int i = 0; i < 6; ++i) uuid.bytes[15 - i] = static_cast<std::uint8_t>(n >> (8 * i));
    return uuid;
}

namespace {

Bytes sampleAuditToken(std::uint8_t seed) {
    std::vector<std::uint8_t> bytes(32);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(seed + i);
    return Bytes(std::move(bytes));
}

ProcessIdentity sampleProcessIdentity() {
    ProcessIdentity identity;
    identity.pid = 4242;
    identity.auditToken = sampleAuditToken(1);
    identity.executablePath = "/usr/bin/curl";
    identity.signingID = "com.apple.curl";
    identity.teamID = "APPLE";
    identity.userID = 501;
    identity.tty = "/dev/ttys003";
    identity.cwd = "/Users/dev/project";
    identity.argv = {"curl", "-s", "https://api.example.com/v1"};
    identity.parentAuditToken = sampleAuditToken(2);
    identity.responsibleAuditToken = sampleAuditToken(4);
    identity.launchTime = sampleDate() - std::chrono::seconds{5};
    return identity;
}

ProcessNode sampleProcessNode() {
    ProcessNode node;
    node.identity = sampleProcessIdentity();
    node.tags = {ProcessTag::terminal};
    node.parentAuditToken = sampleAuditToken(2);
    node.childAuditTokens = {sampleAuditToken(9)};
    node.state = ProcessState::running;
    return node;
}

ProcessNode ancestor(std::int32_t pid, std::uint8_t token, std::string path, std::string signingID,
                     std::set<ProcessTag> tags, std::uint8_t childToken) {
    ProcessNode node;
    node.identity.pid = pid;
    node.identity.auditToken = sampleAuditToken(token);
    node.identity.executablePath = std::move(path);
    node.identity.signingID = std::move(signingID);
    node.identity.userID = 501;
    node.identity.argv = {node.identity.executablePath};
    node.identity.parentAuditToken = sampleAuditToken(static_cast<std::uint8_t>(token + 1));
    node.identity.launchTime = sampleDate() - std::chrono::hours{1};
    node.tags = std::move(tags);
    node.parentAuditToken = node.identity.parentAuditToken;
    node.childAuditTokens = {sampleAuditToken(childToken)};
    return node;
}

std::vector<ProcessNode> sampleAncestorChain() {
    auto shell = ancestor(4100, 2, "/bin/zsh", "com.apple.zsh", {ProcessTag::shell, ProcessTag::terminal}, 1);
    shell.identity.tty = "/dev/ttys003";
    shell.identity.cwd = "/Users/dev/project";
    auto login = ancestor(4099, 3, "/usr/bin/login", "com.apple.login", {ProcessTag::terminal}, 2);
    auto terminal = ancestor(612, 4, "/System/Applications/Utilities/Terminal.app/Contents/MacOS/Terminal",
                             "com.apple.Terminal", {ProcessTag::terminal}, 3);
    terminal.identity.bundleID = "com.apple.Terminal";
    return {shell, login, terminal};
}

}  // namespace

FlowContext sampleFlowContext() {
    FlowContext context;
    context.flow.extensionGeneratedID = "flow-0001";
    context.flow.sourceAppAuditToken = sampleAuditToken(4);
    context.flow.sourceProcessAuditToken = sampleAuditToken(1);
    context.flow.direction = FlowDirection::outbound;
    context.flow.transportProtocol = TransportProtocol::tcp;
    context.flow.localEndpoint = NetworkEndpoint{"192.168.1.20", 53012};
    context.flow.remoteEndpoint = NetworkEndpoint{"93.184.216.34", 443};
    context.flow.hostText = "api.example.com";
    context.flow.port = 443;
    context.flow.timestamp = sampleDate();
    context.matchedProcessNode = sampleProcessNode();
    context.ancestorChain = sampleAncestorChain();
    context.matchedHostname = "api.example.com";
    context.dnsConfidence = DNSConfidence::exact;
    context.networkProfile = NetworkProfile::defaultProfile;
    return context;
}

Rule sampleRule() {
    Rule rule;
    rule.id = sampleUuid(1);
    rule.enabled = true;
    rule.name = "Allow curl to api.example.com";
    rule.action = RuleAction::allow;
    rule.subject = {RuleSubject::exactExecutable("/usr/bin/curl"), RuleSubject::signingID("com.apple.curl")};
    rule.destination = {RuleDestination::hostnameExact("api.example.com"), RuleDestination::portExact(443),
                        RuleDestination::transportProtocol(TransportProtocol::tcp)};
    rule.scope = RuleScope::persistent;
    rule.origin = RuleOrigin::promptResolved;
    rule.priority = 10000;
    return rule;
}

Rule numberedRule(std::uint64_t n, RuleScope scope) {
    Rule r = sampleRule();
    r.id = sampleUuid(n);
    r.name = "rule " + std::to_string(n);
    r.scope = scope;
    return r;
}

}  // namespace quillfort::testing
