// The filter's own kernel rules: one nftables table, "quillfort", holding two
// base chains that send the first packet of every new TCP and UDP flow to the
// filter's queue and copy DNS answers to its log group. Nothing else in the
// ruleset is read or written; the table is made and removed in single
// transactions, and a table left by a crashed run is replaced, not doubled.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "QuillfortFilter/kernel/NetlinkChannel.hpp"
#include "platform/Error.hpp"

namespace quillfort {

struct KernelRuleOptions {
    std::uint16_t queue = 27839;
    std::uint16_t dnsLogGroup = 27839;
    // Loopback flows are queued too (outbound only: a connection between two
    // local processes is decided once, as the client's).
    bool includeLoopback = false;
    // With no filter serving the queue, new flows are dropped instead of passed.
    bool failClosed = false;
};

// How the rules hand packets to the queue: nftables' own queue expression, or,
// on kernels built without it, the iptables NFQUEUE target run inside the same
// table through nftables' compatibility layer.
enum class QueueMechanism { nftablesQueue, iptablesTarget };

[[nodiscard]] std::string_view queueMechanismName(QueueMechanism mechanism) noexcept;

class FilterKernelRules {
public:
    static constexpr std::string_view tableName = "quillfort";

    // Installs the table (replacing a stale one), trying the queue expression
    // first and the NFQUEUE target when the kernel lacks it. Without
    // failClosed the table belongs to this process's netlink socket, so the
    // kernel removes it even when the process is killed.
    [[nodiscard]] static Result<FilterKernelRules> install(const KernelRuleOptions& options);

    FilterKernelRules(FilterKernelRules&& other) noexcept
        : channel_(std::move(other.channel_)),
          mechanism_(other.mechanism_),
          owned_(other.owned_),
          installed_(std::exchange(other.installed_, false)) {}
    FilterKernelRules& operator=(FilterKernelRules&&) = delete;
    ~FilterKernelRules();

    [[nodiscard]] QueueMechanism mechanism() const noexcept { return mechanism_; }
    [[nodiscard]] bool ownedBySocket() const noexcept { return owned_; }

    // Deletes the table; done once, later calls do nothing.
    [[nodiscard]] VoidResult remove();

    // Deletes a table of that name in this network namespace, if there is one
    // (the clean-up after a fail-closed run that was killed).
    [[nodiscard]] static VoidResult removeStale();

private:
    FilterKernelRules(NetlinkChannel channel, QueueMechanism mechanism, bool owned)
        : channel_(std::move(channel)), mechanism_(mechanism), owned_(owned) {}

    std::optional<NetlinkChannel> channel_;
    QueueMechanism mechanism_ = QueueMechanism::nftablesQueue;
    bool owned_ = false;
    bool installed_ = true;
};

}  // namespace quillfort
