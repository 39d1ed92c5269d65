// Who may put a prompt before the user over loopback: root (the filter), the
// agent's own user and, when the agent is told so, the members of one group
// (a filter that runs as a dedicated user). Any local process can connect to
// 127.0.0.1; the user behind a connection is the owner of the peer's socket,
// which the kernel's sock_diag tells from the four-tuple in one round trip.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "platform/Error.hpp"
#include "platform/IpAddress.hpp"
#include "platform/SocketDiagnostics.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

// Bridge queue only.
class LoopbackPeerCheck {
public:
    struct TrustedGroup {
        std::string name;
        std::uint32_t gid = 0;
    };

    // The owner of the socket at `peer` that is connected to `local`; nothing
    // when no such socket exists.
    using OwnerLookup =
        std::function<Result<std::optional<SocketOwner>>(const IpEndpoint& peer, const IpEndpoint& local)>;
    using GroupMembership = std::function<bool(std::uint32_t uid, std::uint32_t gid)>;

    struct Verdict {
        bool trusted = false;
        std::optional<std::uint32_t> uid;  // nothing when the peer's user could not be told

        bool operator==(const Verdict&) const = default;
    };

    // Without a lookup, the kernel is asked (sock_diag); without a membership
    // test, the account database.
    LoopbackPeerCheck(std::uint32_t ownUid, std::optional<TrustedGroup> trustedGroup, OwnerLookup lookup = {},
                      GroupMembership membership = {});
    LoopbackPeerCheck(const LoopbackPeerCheck&) = delete;
    LoopbackPeerCheck& operator=(const LoopbackPeerCheck&) = delete;

    // Decides for one accepted connection. A peer whose user cannot be told (no
    // socket, a socket no process holds any more, the kernel not answering) is
    // not trusted. The first refusal of each user is logged.
    [[nodiscard]] Verdict check(const IpEndpoint& peer, const IpEndpoint& local);

    // What a refused client is told.
    [[nodiscard]] std::string refusalMessage(const Verdict& verdict) const;

private:
    [[nodiscard]] bool inTrustedGroup(std::uint32_t uid);
    [[nodiscard]] std::string whoIsTrusted() const;
    void logRefusal(const Verdict& verdict, const std::optional<std::string>& why);

    std::uint32_t ownUid_;
    std::optional<TrustedGroup> trustedGroup_;
    OwnerLookup lookup_;
    GroupMembership membership_;
    std::optional<SocketDiagnostics> diagnostics_;  // opened on first use
    std::map<std::uint32_t, bool> groupMembers_;    // answers of the account database, bounded
    std::set<std::uint32_t> loggedUids_;            // bounded
    bool loggedUnknown_ = false;
    Logger logger_{QuillfortLogCategory::agent};
};

}  // namespace quillfort
