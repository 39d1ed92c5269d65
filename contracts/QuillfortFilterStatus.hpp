// What the running filter says about itself, for `quillfort filter status`
// and for people reading its state file: whether it runs (as activation
// records), how it is set up, where its rules came from, and its counters.
// Written by the filter (root) under /run/quillfort; read by anyone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "contracts/FlowFilterEvent.hpp"
#include "model/Date.hpp"
#include "model/FlowDecision.hpp"
#include "model/Json.hpp"
#include "support/QuillfortActivation.hpp"

namespace quillfort {

struct QuillfortFilterCounters {
    std::uint64_t flowsDecided = 0;
    std::uint64_t flowsAllowed = 0;
    std::uint64_t flowsDropped = 0;
    std::uint64_t promptsAsked = 0;
    std::uint64_t promptsWaiting = 0;
    std::uint64_t packetsHeld = 0;
    std::uint64_t packetsRefusedWhileFull = 0;  // past the held-packet limit: dropped
    std::uint64_t processCacheEntries = 0;
    std::uint64_t processCacheHits = 0;
    std::uint64_t processCacheMisses = 0;
    std::uint64_t hostNameCacheEntries = 0;
    std::uint64_t dnsAnswersSeen = 0;
    std::uint64_t dnsAnswersRefused = 0;  // malformed or hostile
    std::uint64_t executableIdentities = 0;

    bool operator==(const QuillfortFilterCounters&) const = default;
};

struct QuillfortFilterStatus {
    Date updatedAt{};
    std::uint32_t pid = 0;
    QuillfortActivationSnapshot activation;
    FlowFilterMode mode = FlowFilterMode::enforce;
    UnknownTrafficMode unknownTrafficMode = UnknownTrafficMode::alerting;
    std::uint16_t queue = 0;
    std::string queueMechanism;    // "nftables queue" or "iptables NFQUEUE target"
    std::string attribution;       // "socket-owner programs" or "sock_diag and /proc"
    bool failClosed = false;
    bool includeLoopback = false;
    std::uint64_t ruleCount = 0;
    std::string ruleSource;        // "shared", "configuration", "last good copy" or "none"
    std::optional<std::string> ruleProblem;  // why the shared snapshot is not the one in force
    std::optional<std::string> sharedFolder;
    std::optional<std::string> configurationFile;
    QuillfortFilterCounters counters;

    bool operator==(const QuillfortFilterStatus&) const = default;
};

template <>
struct JsonFields<QuillfortFilterCounters> {
    using T = QuillfortFilterCounters;
    static constexpr auto fields = std::tuple{
        jsonField("flowsDecided", &T::flowsDecided),
        jsonField("flowsAllowed", &T::flowsAllowed),
        jsonField("flowsDropped", &T::flowsDropped),
        jsonField("promptsAsked", &T::promptsAsked),
        jsonField("promptsWaiting", &T::promptsWaiting),
        jsonField("packetsHeld", &T::packetsHeld),
        jsonField("packetsRefusedWhileFull", &T::packetsRefusedWhileFull),
        jsonField("processCacheEntries", &T::processCacheEntries),
        jsonField("processCacheHits", &T::processCacheHits),
        jsonField("processCacheMisses", &T::processCacheMisses),
        jsonField("hostNameCacheEntries", &T::hostNameCacheEntries),
        jsonField("dnsAnswersSeen", &T::dnsAnswersSeen),
        jsonField("dnsAnswersRefused", &T::dnsAnswersRefused),
        jsonField("executableIdentities", &T::executableIdentities),
    };
};

template <>
struct JsonFields<QuillfortFilterStatus> {
    using T = QuillfortFilterStatus;
    static constexpr auto fields = std::tuple{
        jsonField("updatedAt", &T::updatedAt),
        jsonField("pid", &T::pid),
        jsonField("activation", &T::activation),
        jsonField("mode", &T::mode),
        jsonField("unknownTrafficMode", &T::unknownTrafficMode),
        jsonField("queue", &T::queue),
        jsonField("queueMechanism", &T::queueMechanism),
        jsonField("attribution", &T::attribution),
        jsonField("failClosed", &T::failClosed),
        jsonField("includeLoopback", &T::includeLoopback),
        jsonField("ruleCount", &T::ruleCount),
        jsonField("ruleSource", &T::ruleSource),
        jsonField("ruleProblem", &T::ruleProblem),
        jsonField("sharedFolder", &T::sharedFolder),
        jsonField("configurationFile", &T::configurationFile),
        jsonField("counters", &T::counters),
    };
};

namespace QuillfortFilterStatusFile {
inline constexpr std::string_view defaultPath = "/run/quillfort/filter-status.json";
}

}  // namespace quillfort
