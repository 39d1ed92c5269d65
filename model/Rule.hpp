// One entry of the firewall's rule set: an action for the flows whose process
// matches every subject condition and whose far end matches every destination
// condition. Rules travel in prompt messages and live in the rule snapshot.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "model/FlowContext.hpp"
#include "model/Json.hpp"

namespace quillfort {

enum class RuleAction { allow, drop, ask };
template <>
struct EnumTraits<RuleAction> {
    static constexpr std::array<std::pair<RuleAction, std::string_view>, 3> entries{{
        {RuleAction::allow, "allow"},
        {RuleAction::drop, "drop"},
        {RuleAction::ask, "ask"},
    }};
};

// In prompt answers `temporary` stands for a one-time decision that makes no rule.
enum class RuleScope { session, temporary, persistent };
template <>
struct EnumTraits<RuleScope> {
    static constexpr std::array<std::pair<RuleScope, std::string_view>, 3> entries{{
        {RuleScope::session, "session"},
        {RuleScope::temporary, "temporary"},
        {RuleScope::persistent, "persistent"},
    }};
};

enum class RuleOrigin { manual, promptResolved, permissiveLearned, bootstrap };
template <>
struct EnumTraits<RuleOrigin> {
    static constexpr std::array<std::pair<RuleOrigin, std::string_view>, 4> entries{{
        {RuleOrigin::manual, "manual"},
        {RuleOrigin::promptResolved, "promptResolved"},
        {RuleOrigin::permissiveLearned, "permissiveLearned"},
        {RuleOrigin::bootstrap, "bootstrap"},
    }};
};

// Both bounds included. Reading does not check their order; an inverted range
// simply contains no port.
struct PortRange {
    std::uint16_t lowerBound = 0;
    std::uint16_t upperBound = 0;

    [[nodiscard]] constexpr bool contains(std::uint16_t port) const noexcept {
        return lowerBound <= port && port <= upperBound;
    }
    bool operator==(const PortRange&) const = default;
};

template <>
struct JsonFields<PortRange> {
    static constexpr auto fields = std::tuple{
        jsonField("lowerBound", &PortRange::lowerBound),
        jsonField("upperBound", &PortRange::upperBound),
    };
};

// One condition on the process.
struct RuleSubject {
    enum class Kind {
        exactExecutable,
        pathGlob,
        bundleID,
        signingID,
        teamID,
        cdHash,
        processTag,
        ancestorBundleID,
        ancestorSigningID,
        ancestorProcessTag,
        cwdPrefix,
        scriptPathSuffix,
        ttyPresent,
    };
    using Value = std::variant<std::string, ProcessTag, bool>;

    Kind kind = Kind::exactExecutable;
    Value value;

    static RuleSubject exactExecutable(std::string v) { return {Kind::exactExecutable, std::move(v)}; }
    static RuleSubject pathGlob(std::string v) { return {Kind::pathGlob, std::move(v)}; }
    static RuleSubject bundleID(std::string v) { return {Kind::bundleID, std::move(v)}; }
    static RuleSubject signingID(std::string v) { return {Kind::signingID, std::move(v)}; }
    static RuleSubject teamID(std::string v) { return {Kind::teamID, std::move(v)}; }
    static RuleSubject cdHash(std::string v) { return {Kind::cdHash, std::move(v)}; }
    static RuleSubject processTag(ProcessTag v) { return {Kind::processTag, v}; }
    static RuleSubject ancestorBundleID(std::string v) { return {Kind::ancestorBundleID, std::move(v)}; }
    static RuleSubject ancestorSigningID(std::string v) { return {Kind::ancestorSigningID, std::move(v)}; }
    static RuleSubject ancestorProcessTag(ProcessTag v) { return {Kind::ancestorProcessTag, v}; }
    static RuleSubject cwdPrefix(std::string v) { return {Kind::cwdPrefix, std::move(v)}; }
    static RuleSubject scriptPathSuffix(std::string v) { return {Kind::scriptPathSuffix, std::move(v)}; }
    static RuleSubject ttyPresent(bool v) { return {Kind::ttyPresent, v}; }

    // The held value for the alternatives that carry text, a tag or a flag.
    [[nodiscard]] const std::string* text() const noexcept { return std::get_if<std::string>(&value); }
    [[nodiscard]] std::optional<ProcessTag> tag() const noexcept;
    [[nodiscard]] std::optional<bool> flag() const noexcept;

    bool operator==(const RuleSubject&) const = default;
};

template <>
struct EnumTraits<RuleSubject::Kind> {
    using K = RuleSubject::Kind;
    static constexpr std::array<std::pair<K, std::string_view>, 13> entries{{
        {K::exactExecutable, "exactExecutable"},
        {K::pathGlob, "pathGlob"},
        {K::bundleID, "bundleID"},
        {K::signingID, "signingID"},
        {K::teamID, "teamID"},
        {K::cdHash, "cdHash"},
        {K::processTag, "processTag"},
        {K::ancestorBundleID, "ancestorBundleID"},
        {K::ancestorSigningID, "ancestorSigningID"},
        {K::ancestorProcessTag, "ancestorProcessTag"},
        {K::cwdPrefix, "cwdPrefix"},
        {K::scriptPathSuffix, "scriptPathSuffix"},
        {K::ttyPresent, "ttyPresent"},
    }};
};

// One condition on the flow's far end and shape.
struct RuleDestination {
    enum class Kind {
        hostnameExact,
        hostnameSuffix,
        hostnameGlob,
        ipCIDR,
        portExact,
        portRange,
        transportProtocol,
        direction,
    };
    using Value = std::variant<std::string, std::uint16_t, PortRange, TransportProtocol, FlowDirection>;

    Kind kind = Kind::hostnameExact;
    Value value;

    static RuleDestination hostnameExact(std::string v) { return {Kind::hostnameExact, std::move(v)}; }
    static RuleDestination hostnameSuffix(std::string v) { return {Kind::hostnameSuffix, std::move(v)}; }
    static RuleDestination hostnameGlob(std::string v) { return {Kind::hostnameGlob, std::move(v)}; }
    static RuleDestination ipCIDR(std::string v) { return {Kind::ipCIDR, std::move(v)}; }
    static RuleDestination portExact(std::uint16_t v) { return {Kind::portExact, v}; }
    static RuleDestination portRange(PortRange v) { return {Kind::portRange, v}; }
    static RuleDestination transportProtocol(TransportProtocol v) { return {Kind::transportProtocol, v}; }
    static RuleDestination direction(FlowDirection v) { return {Kind::direction, v}; }

    [[nodiscard]] const std::string* text() const noexcept { return std::get_if<std::string>(&value); }
    [[nodiscard]] std::optional<std::uint16_t> port() const noexcept;

    bool operator==(const RuleDestination&) const = default;
};

template <>
struct EnumTraits<RuleDestination::Kind> {
    using K = RuleDestination::Kind;
    static constexpr std::array<std::pair<K, std::string_view>, 8> entries{{
        {K::hostnameExact, "hostnameExact"},
        {K::hostnameSuffix, "hostnameSuffix"},
        {K::hostnameGlob, "hostnameGlob"},
        {K::ipCIDR, "ipCIDR"},
        {K::portExact, "portExact"},
        {K::portRange, "portRange"},
        {K::transportProtocol, "transportProtocol"},
        {K::direction, "direction"},
    }};
};

// Alternatives with data are one-key objects holding their value under "_0":
// {"bundleID":{"_0":"com.example"}}.
template <>
struct JsonCodec<RuleSubject> {
    static json::value encode(const RuleSubject& subject);
    static JsonResult<RuleSubject> decode(const json::value& jv);
};

template <>
struct JsonCodec<RuleDestination> {
    static json::value encode(const RuleDestination& destination);
    static JsonResult<RuleDestination> decode(const json::value& jv);
};

struct Rule {
    Uuid id;
    bool enabled = true;
    std::string name;
    RuleAction action = RuleAction::allow;
    std::vector<RuleSubject> subject;
    std::vector<RuleDestination> destination;
    RuleScope scope = RuleScope::persistent;
    RuleOrigin origin = RuleOrigin::manual;
    std::int64_t priority = 0;
    std::optional<std::string> notes;

    bool operator==(const Rule&) const = default;
};

template <>
struct JsonFields<Rule> {
    static constexpr auto fields = std::tuple{
        jsonField("id", &Rule::id),
        jsonField("enabled", &Rule::enabled),
        jsonField("name", &Rule::name),
        jsonField("action", &Rule::action),
        jsonField("subject", &Rule::subject),
        jsonField("destination", &Rule::destination),
        jsonField("scope", &Rule::scope),
        jsonField("origin", &Rule::origin),
        jsonField("priority", &Rule::priority),
        jsonField("notes", &Rule::notes),
    };
};

std::ostream& operator<<(std::ostream& out, const RuleSubject& subject);
std::ostream& operator<<(std::ostream& out, const RuleDestination& destination);

}  // namespace quillfort

template <>
struct std::hash<quillfort::RuleSubject> {
    std::size_t operator()(const quillfort::RuleSubject& s) const noexcept;
};
template <>
struct std::hash<quillfort::RuleDestination> {
    std::size_t operator()(const quillfort::RuleDestination& d) const noexcept;
};
