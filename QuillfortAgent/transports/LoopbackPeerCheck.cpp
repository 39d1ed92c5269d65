#include "QuillfortAgent/transports/LoopbackPeerCheck.hpp"

#include <utility>

#include <fmt/format.h>

#include "platform/UserDatabase.hpp"

namespace quillfort {

namespace {

// Enough for every user of a real machine; past it answers are not kept (the
// membership is asked again) and refusals of new users are no longer logged.
constexpr std::size_t rememberedUsers = 256;

}  // namespace

LoopbackPeerCheck::LoopbackPeerCheck(std::uint32_t ownUid, std::optional<TrustedGroup> trustedGroup,
                                     OwnerLookup lookup, GroupMembership membership)
    : ownUid_(ownUid),
      trustedGroup_(std::move(trustedGroup)),
      lookup_(std::move(lookup)),
      membership_(std::move(membership)) {
    if (!membership_) {
        membership_ = [](std::uint32_t uid, std::uint32_t gid) { return UserDatabase::isGroupMember(uid, gid); };
    }
    if (!lookup_) {
        lookup_ = [this](const IpEndpoint& peer, const IpEndpoint& local) -> Result<std::optional<SocketOwner>> {
            if (!diagnostics_) {
                auto opened = SocketDiagnostics::open();
                if (!opened) return std::unexpected(std::move(opened.error()));
                diagnostics_.emplace(std::move(*opened));
            }
            return diagnostics_->lookup(SocketDiagnostics::Protocol::tcp, peer, local);
        };
    }
}

LoopbackPeerCheck::Verdict LoopbackPeerCheck::check(const IpEndpoint& peer, const IpEndpoint& local) {
    auto owner = lookup_(peer, local);
    std::optional<std::string> why;
    Verdict verdict;
    if (!owner) {
        why = owner.error().description;
    } else if (!*owner) {
        why = "no socket of that connection was found";
    } else if ((*owner)->inode == 0) {
        // The kernel reports such sockets as root's: they have no owner left.
        why = "the connecting socket was already closed";
    } else {
        verdict.uid = (*owner)->uid;
        verdict.trusted = *verdict.uid == 0 || *verdict.uid == ownUid_ || inTrustedGroup(*verdict.uid);
    }
    if (!verdict.trusted) logRefusal(verdict, why);
    return verdict;
}

bool LoopbackPeerCheck::inTrustedGroup(std::uint32_t uid) {
    if (!trustedGroup_) return false;
    if (const auto known = groupMembers_.find(uid); known != groupMembers_.end()) return known->second;
    const bool member = membership_(uid, trustedGroup_->gid);
    if (groupMembers_.size() < rememberedUsers) groupMembers_.emplace(uid, member);
    return member;
}

std::string LoopbackPeerCheck::whoIsTrusted() const {
    if (trustedGroup_) {
        return fmt::format("root, its own user (uid {}) and the group {}", ownUid_, trustedGroup_->name);
    }
    return fmt::format("root and its own user (uid {})", ownUid_);
}

std::string LoopbackPeerCheck::refusalMessage(const Verdict& verdict) const {
    if (!verdict.uid) {
        return fmt::format(
            "The Quillfort prompt agent takes prompts only from {}, and could not tell which user this "
            "connection comes from.",
            whoIsTrusted());
    }
    return fmt::format("The Quillfort prompt agent takes prompts only from {}; this connection comes from uid {}.",
                       whoIsTrusted(), *verdict.uid);
}

void LoopbackPeerCheck::logRefusal(const Verdict& verdict, const std::optional<std::string>& why) {
    if (!verdict.uid) {
        if (loggedUnknown_) return;
        loggedUnknown_ = true;
        logger_.error("Refusing loopback prompts whose sender cannot be told (%{public}s); prompts are taken only "
                      "from %{public}s.",
                      why.value_or(""), whoIsTrusted());
        return;
    }
    if (loggedUids_.contains(*verdict.uid) || loggedUids_.size() >= rememberedUsers) return;
    loggedUids_.insert(*verdict.uid);
    logger_.error("Refusing loopback prompts from uid %{public}s; prompts are taken only from %{public}s.",
                  std::to_string(*verdict.uid), whoIsTrusted());
}

}  // namespace quillfort
