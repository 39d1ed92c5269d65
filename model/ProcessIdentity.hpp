// Who a process is and how the filter classifies it: the process half of a
// prompted flow, exchanged with the filter side as JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "model/Json.hpp"

namespace quillfort {

enum class ProcessTag { terminal, warp, gradleWrapper, gradleDaemon, javaGradle, shell, node, python, git, ssh };

template <>
struct EnumTraits<ProcessTag> {
    static constexpr std::array<std::pair<ProcessTag, std::string_view>, 10> entries{{
        {ProcessTag::terminal, "terminal"},
        {ProcessTag::warp, "warp"},
        {ProcessTag::gradleWrapper, "gradleWrapper"},
        {ProcessTag::gradleDaemon, "gradleDaemon"},
        {ProcessTag::javaGradle, "javaGradle"},
        {ProcessTag::shell, "shell"},
        {ProcessTag::node, "node"},
        {ProcessTag::python, "python"},
        {ProcessTag::git, "git"},
        {ProcessTag::ssh, "ssh"},
    }};
};

enum class ProcessState { running, exited };

template <>
struct EnumTraits<ProcessState> {
    static constexpr std::array<std::pair<ProcessState, std::string_view>, 2> entries{{
        {ProcessState::running, "running"},
        {ProcessState::exited, "exited"},
    }};
};

struct ProcessIdentity {
    std::int32_t pid = 0;
    Bytes auditToken;
    std::string executablePath;
    std::optional<std::string> bundleID;
    std::optional<std::string> signingID;
    std::optional<std::string> teamID;
    std::optional<std::string> cdHash;
    std::optional<std::uint32_t> userID;
    std::optional<std::string> tty;
    std::optional<std::string> cwd;
    std::vector<std::string> argv;
    std::optional<std::string> scriptPath;
    std::optional<Bytes> parentAuditToken;
    std::optional<Bytes> responsibleAuditToken;
    Date launchTime{};

    bool operator==(const ProcessIdentity&) const = default;
};

// Tags are a set: order and duplicates on the wire do not matter.
struct ProcessNode {
    ProcessIdentity identity;
    std::set<ProcessTag> tags;
    std::optional<Bytes> parentAuditToken;
    std::vector<Bytes> childAuditTokens;
    ProcessState state = ProcessState::running;

    bool operator==(const ProcessNode&) const = default;
};

template <>
struct JsonFields<ProcessIdentity> {
    using T = ProcessIdentity;
    static constexpr auto fields = std::tuple{
        jsonField("pid", &T::pid),
        jsonField("auditToken", &T::auditToken),
        jsonField("executablePath", &T::executablePath),
        jsonField("bundleID", &T::bundleID),
        jsonField("signingID", &T::signingID),
        jsonField("teamID", &T::teamID),
        jsonField("cdHash", &T::cdHash),
        jsonField("userID", &T::userID),
        jsonField("tty", &T::tty),
        jsonField("cwd", &T::cwd),
        jsonField("argv", &T::argv),
        jsonField("scriptPath", &T::scriptPath),
        jsonField("parentAuditToken", &T::parentAuditToken),
        jsonField("responsibleAuditToken", &T::responsibleAuditToken),
        jsonField("launchTime", &T::launchTime),
    };
};

template <>
struct JsonFields<ProcessNode> {
    using T = ProcessNode;
    static constexpr auto fields = std::tuple{
        jsonField("identity", &T::identity),
        jsonField("tags", &T::tags),
        jsonField("parentAuditToken", &T::parentAuditToken),
        jsonField("childAuditTokens", &T::childAuditTokens),
        jsonField("state", &T::state),
    };
};

}  // namespace quillfort
