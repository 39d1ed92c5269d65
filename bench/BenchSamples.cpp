#include "bench/BenchSamples.hpp"

#include <chrono>
#include <set>
#include <string>
#include <vector>

namespace quillfort::bench {

namespace {

Bytes token(std::uint8_t seed) {
    std::vector<std::uint8_t> bytes(32);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(seed * 31 + i);
    return Bytes(std::move(bytes));
}

ProcessNode process(std::int32_t pid, std::uint8_t seed, std::string path, std::set<ProcessTag> tags) {
    ProcessNode node;
    node.identity.pid = pid;
    node.identity.auditToken = token(seed);
    node.identity.executablePath = std::move(path);
    node.identity.signingID = "com.example." + std::to_string(seed);
    node.identity.teamID = "ABCDE12345";
    node.identity.cdHash = "5f1c0e9a2b7d4c3e8a6f0b1d2c3e4f5a6b7c8d9e";
    node.identity.userID = 501;
    node.identity.tty = "/dev/ttys004";
    node.identity.cwd = "/Users/dev/src/quillfort";
    node.identity.argv = {node.identity.executablePath, "--daemon", "--port", "8080"};
    node.identity.parentAuditToken = token(static_cast<std::uint8_t>(seed + 1));
    node.identity.responsibleAuditToken = token(200);
    node.identity.launchTime = benchDate() - std::chrono::minutes{seed};
    node.tags = std::move(tags);
    node.parentAuditToken = node.identity.parentAuditToken;
    node.childAuditTokens = {token(static_cast<std::uint8_t>(seed - 1))};
    return node;
}

}  // namespace

Date benchDate() {
    using namespace std::chrono;
    return Date{sys_days{year{2026} / March / 1}} + hours{12};
}

// A Gradle daemon's flow: the process, three ancestors, tags and tokens.
FlowContext typicalFlowContext() {
    FlowContext context;
    context.flow.extensionGeneratedID = "8C0D2F0E-3B1A-4E55-9C61-0F3D2A1B4C5D";
    context.flow.sourceAppAuditToken = token(200);
    context.flow.sourceProcessAuditToken = token(10);
    context.flow.direction = FlowDirection::outbound;
    context.flow.transportProtocol = TransportProtocol::tcp;
    context.flow.localEndpoint = NetworkEndpoint{"192.168.1.20", 53012};
    context.flow.remoteEndpoint = NetworkEndpoint{"104.18.12.33", 443};
    context.flow.hostText = "repo.maven.apache.org";
    context.flow.port = 443;
    context.flow.timestamp = benchDate();
    context.matchedProcessNode =
        process(7310, 10, "/Library/Java/JavaVirtualMachines/temurin-21.jdk/Contents/Home/bin/java",
                {ProcessTag::gradleDaemon, ProcessTag::javaGradle});
    context.ancestorChain = {
        process(7301, 11, "/Users/dev/src/quillfort/gradlew", {ProcessTag::gradleWrapper, ProcessTag::shell}),
        process(7002, 12, "/bin/zsh", {ProcessTag::shell, ProcessTag::terminal}),
        process(612, 13, "/Applications/Warp.app/Contents/MacOS/stable", {ProcessTag::warp, ProcessTag::terminal}),
    };
    context.ancestorChain[2].identity.bundleID = "dev.warp.Warp-Stable";
    context.matchedHostname = "repo.maven.apache.org";
    context.dnsConfidence = DNSConfidence::correlated;
    return context;
}

Rule snapshotRule(std::size_t i) {
    Rule rule;
    rule.id = Uuid::random();
    rule.enabled = i % 7 != 0;
    rule.name = "Rule " + std::to_string(i) + " for tool-" + std::to_string(i % 97);
    rule.action = i % 3 == 0 ? RuleAction::drop : RuleAction::allow;
    rule.subject = {RuleSubject::exactExecutable("/usr/local/bin/tool-" + std::to_string(i % 97)),
                    RuleSubject::signingID("com.example.tool-" + std::to_string(i % 97))};
    if (i % 4 == 0) rule.subject.push_back(RuleSubject::teamID("ABCDE12345"));
    if (i % 5 == 0) rule.subject.push_back(RuleSubject::ancestorProcessTag(ProcessTag::terminal));
    rule.destination = {RuleDestination::hostnameSuffix("host" + std::to_string(i) + ".example.com")};
    if (i % 2 == 0)
        rule.destination.push_back(RuleDestination::portExact(static_cast<std::uint16_t>(443 + i % 1000)));
    else
        rule.destination.push_back(RuleDestination::portRange({8000, 8080}));
    rule.destination.push_back(RuleDestination::transportProtocol(TransportProtocol::tcp));
    rule.scope = i % 10 == 0 ? RuleScope::session : RuleScope::persistent;
    rule.origin = RuleOrigin::promptResolved;
    rule.priority = 10000;
    if (i % 8 == 0) rule.notes = "made from a prompt";
    return rule;
}

RuleSnapshotEnvelope ruleSnapshot(std::size_t count) {
    RuleSnapshotEnvelope snapshot;
    snapshot.generatedAt = benchDate();
    snapshot.rules.reserve(count);
    for (std::size_t i = 0; i < count; ++i) snapshot.rules.push_back(snapshotRule(i));
    return snapshot;
}

}  // namespace quillfort::bench
