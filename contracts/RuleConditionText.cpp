#include "contracts/RuleConditionText.hpp"

#include <fmt/format.h>

namespace quillfort::RuleConditionText {

namespace {

std::string_view subjectKey(RuleSubject::Kind kind) {
    using K = RuleSubject::Kind;
    switch (kind) {
        case K::exactExecutable: return "exec";
        case K::pathGlob: return "exec-glob";
        case K::bundleID: return "bundle";
        case K::signingID: return "signer";
        case K::teamID: return "team";
        case K::cdHash: return "cdhash";
        case K::processTag: return "tag";
        case K::ancestorBundleID: return "ancestor";
        case K::ancestorSigningID: return "ancestor-signer";
        case K::ancestorProcessTag: return "ancestor-tag";
        case K::cwdPrefix: return "cwd";
        case K::scriptPathSuffix: return "script";
        case K::ttyPresent: return "tty";
    }
    return "?";
}

std::string_view destinationKey(RuleDestination::Kind kind) {
    using K = RuleDestination::Kind;
    switch (kind) {
        case K::hostnameExact: return "host";
        case K::hostnameSuffix: return "domain";
        case K::hostnameGlob: return "glob";
        case K::ipCIDR: return "cidr";
        case K::portExact: return "port";
        case K::portRange: return "ports";
        case K::transportProtocol: return "proto";
        case K::direction: return "dir";
    }
    return "?";
}

}  // namespace

std::string conditionText(const RuleSubject& subject) {
    const std::string value = std::visit(
        [](const auto& held) -> std::string {
            using V = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<V, std::string>) return held;
            if constexpr (std::is_same_v<V, ProcessTag>) return std::string(rawValue(held));
            if constexpr (std::is_same_v<V, bool>) return held ? "yes" : "no";
        },
        subject.value);
    return fmt::format("{}={}", subjectKey(subject.kind), value);
}

std::string conditionText(const RuleDestination& destination) {
    const std::string value = std::visit(
        [](const auto& held) -> std::string {
            using V = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<V, std::string>) return held;
            if constexpr (std::is_same_v<V, std::uint16_t>) return std::to_string(held);
            if constexpr (std::is_same_v<V, PortRange>) return fmt::format("{}-{}", held.lowerBound, held.upperBound);
            if constexpr (std::is_same_v<V, TransportProtocol> || std::is_same_v<V, FlowDirection>)
                return std::string(rawValue(held));
        },
        destination.value);
    return fmt::format("{}={}", destinationKey(destination.kind), value);
}

std::string conditionsText(const Rule& rule) {
    std::string text;
    auto append = [&text](const std::string& condition) {
        if (!text.empty()) text += ' ';
        text += condition;
    };
    for (const auto& subject : rule.subject) append(conditionText(subject));
    for (const auto& destination : rule.destination) append(conditionText(destination));
    return text.empty() ? "(any)" : text;
}

}  // namespace quillfort::RuleConditionText
