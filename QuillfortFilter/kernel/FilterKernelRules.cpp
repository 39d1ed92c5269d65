#include "QuillfortFilter/kernel/FilterKernelRules.hpp"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_arp.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nf_tables_compat.h>
#include <linux/netfilter/x_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/xt_NFQUEUE.h>
#include <netinet/in.h>

#include <array>
#include <cstring>
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace quillfort {

namespace {

// After the usual filter chains (priority 0), so a flow that another firewall
// drops is never queued or prompted for.
constexpr int chainPriority = 10;

// One nftables transaction: begin, messages, end, sent in one write.
class NftablesBatch {
public:
    explicit NftablesBatch(NetlinkChannel& channel) : channel_(channel), buffer_(bufferSize) {
        batch_ = mnl_nlmsg_batch_start(buffer_.data(), bufferSize / 2);
        delimiter(NFNL_MSG_BATCH_BEGIN);
    }
    NftablesBatch(const NftablesBatch&) = delete;
    NftablesBatch& operator=(const NftablesBatch&) = delete;
    ~NftablesBatch() { mnl_nlmsg_batch_stop(batch_); }

    // Starts a message of the batch; the caller adds attributes, then calls next().
    nlmsghdr* message(std::uint16_t type, std::uint16_t flags) {
        nlmsghdr* header = mnl_nlmsg_put_header(mnl_nlmsg_batch_current(batch_));
        header->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | type);
        header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
        header->nlmsg_seq = channel_.nextSequence();
        auto* generic = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
        generic->nfgen_family = NFPROTO_INET;
        generic->version = NFNETLINK_V0;
        generic->res_id = 0;
        ++messages_;
        return header;
    }
    void next() { mnl_nlmsg_batch_next(batch_); }

    [[nodiscard]] VoidResult commit(std::string_view what) {
        delimiter(NFNL_MSG_BATCH_END);
        const auto* bytes = static_cast<const std::uint8_t*>(mnl_nlmsg_batch_head(batch_));
        return channel_.transact(std::span(bytes, mnl_nlmsg_batch_size(batch_)), messages_, what);
    }

private:
    static constexpr std::size_t bufferSize = 65536;

    void delimiter(std::uint16_t type) {
        nlmsghdr* header = mnl_nlmsg_put_header(mnl_nlmsg_batch_current(batch_));
        header->nlmsg_type = type;
        header->nlmsg_flags = NLM_F_REQUEST;
        header->nlmsg_seq = channel_.nextSequence();
        auto* generic = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
        generic->nfgen_family = AF_UNSPEC;
        generic->version = NFNETLINK_V0;
        generic->res_id = htons(NFNL_SUBSYS_NFTABLES);
        mnl_nlmsg_batch_next(batch_);
    }

    NetlinkChannel& channel_;
    std::vector<std::uint8_t> buffer_;
    mnl_nlmsg_batch* batch_ = nullptr;
    std::size_t messages_ = 0;
};

// --- expressions -------------------------------------------------------------

using Fill = std::function<void(nlmsghdr*)>;

void expression(nlmsghdr* header, const char* name, const Fill& fill) {
    nlattr* element = mnl_attr_nest_start(header, NFTA_LIST_ELEM);
    mnl_attr_put_strz(header, NFTA_EXPR_NAME, name);
    nlattr* data = mnl_attr_nest_start(header, NFTA_EXPR_DATA);
    fill(header);
    mnl_attr_nest_end(header, data);
    mnl_attr_nest_end(header, element);
}

void putData(nlmsghdr* header, std::uint16_t type, const void* value, std::size_t length) {
    nlattr* nest = mnl_attr_nest_start(header, type);
    mnl_attr_put(header, NFTA_DATA_VALUE, length, value);
    mnl_attr_nest_end(header, nest);
}

void meta(nlmsghdr* header, std::uint32_t key) {
    expression(header, "meta", [key](nlmsghdr* h) {
        mnl_attr_put_u32(h, NFTA_META_KEY, htonl(key));
        mnl_attr_put_u32(h, NFTA_META_DREG, htonl(NFT_REG_1));
    });
}

void compare(nlmsghdr* header, std::uint32_t operation, const void* value, std::size_t length) {
    expression(header, "cmp", [&](nlmsghdr* h) {
        mnl_attr_put_u32(h, NFTA_CMP_SREG, htonl(NFT_REG_1));
        mnl_attr_put_u32(h, NFTA_CMP_OP, htonl(operation));
        putData(h, NFTA_CMP_DATA, value, length);
    });
}

void verdict(nlmsghdr* header, std::int32_t code) {
    expression(header, "immediate", [code](nlmsghdr* h) {
        mnl_attr_put_u32(h, NFTA_IMMEDIATE_DREG, htonl(NFT_REG_VERDICT));
        nlattr* data = mnl_attr_nest_start(h, NFTA_IMMEDIATE_DATA);
        nlattr* verdictNest = mnl_attr_nest_start(h, NFTA_DATA_VERDICT);
        mnl_attr_put_u32(h, NFTA_VERDICT_CODE, htonl(static_cast<std::uint32_t>(code)));
        mnl_attr_nest_end(h, verdictNest);
        mnl_attr_nest_end(h, data);
    });
}

// "meta l4proto <protocol>"
void transportIs(nlmsghdr* header, std::uint8_t protocol) {
    meta(header, NFT_META_L4PROTO);
    compare(header, NFT_CMP_EQ, &protocol, sizeof protocol);
}

// "ct state new"
void connectionIsNew(nlmsghdr* header) {
    expression(header, "ct", [](nlmsghdr* h) {
        mnl_attr_put_u32(h, NFTA_CT_KEY, htonl(NFT_CT_STATE));
        mnl_attr_put_u32(h, NFTA_CT_DREG, htonl(NFT_REG_1));
    });
    expression(header, "bitwise", [](nlmsghdr* h) {
        const std::uint32_t mask = NF_CT_STATE_BIT(IP_CT_NEW), zero = 0;
        mnl_attr_put_u32(h, NFTA_BITWISE_SREG, htonl(NFT_REG_1));
        mnl_attr_put_u32(h, NFTA_BITWISE_DREG, htonl(NFT_REG_1));
        mnl_attr_put_u32(h, NFTA_BITWISE_LEN, htonl(sizeof mask));
        putData(h, NFTA_BITWISE_MASK, &mask, sizeof mask);
        putData(h, NFTA_BITWISE_XOR, &zero, sizeof zero);
    });
    const std::uint32_t zero = 0;
    compare(header, NFT_CMP_NEQ, &zero, sizeof zero);
}

// "th sport 53"
void sourcePortIsDns(nlmsghdr* header) {
    expression(header, "payload", [](nlmsghdr* h) {
        mnl_attr_put_u32(h, NFTA_PAYLOAD_DREG, htonl(NFT_REG_1));
        mnl_attr_put_u32(h, NFTA_PAYLOAD_BASE, htonl(NFT_PAYLOAD_TRANSPORT_HEADER));
        mnl_attr_put_u32(h, NFTA_PAYLOAD_OFFSET, htonl(0));
        mnl_attr_put_u32(h, NFTA_PAYLOAD_LEN, htonl(2));
    });
    const std::uint16_t port = htons(53);
    compare(header, NFT_CMP_EQ, &port, sizeof port);
}

// "meta oiftype loopback" or "meta iiftype loopback"
void interfaceIsLoopback(nlmsghdr* header, bool output) {
    meta(header, output ? NFT_META_OIFTYPE : NFT_META_IIFTYPE);
    const std::uint16_t loopback = ARPHRD_LOOPBACK;
    compare(header, NFT_CMP_EQ, &loopback, sizeof loopback);
}

void toQueue(nlmsghdr* header, QueueMechanism mechanism, const KernelRuleOptions& options) {
    if (mechanism == QueueMechanism::nftablesQueue) {
        expression(header, "queue", [&](nlmsghdr* h) {
            mnl_attr_put_u16(h, NFTA_QUEUE_NUM, htons(options.queue));
            mnl_attr_put_u16(h, NFTA_QUEUE_TOTAL, htons(1));
            mnl_attr_put_u16(h, NFTA_QUEUE_FLAGS, htons(options.failClosed ? 0 : NFT_QUEUE_FLAG_BYPASS));
        });
        return;
    }
    expression(header, "target", [&](nlmsghdr* h) {
        // The target's own structure, padded as the iptables tools pass it.
        std::array<std::uint8_t, XT_ALIGN(sizeof(xt_NFQ_info_v3))> info{};
        xt_NFQ_info_v3 queueInfo{};
        queueInfo.queuenum = options.queue;
        queueInfo.queues_total = 1;
        queueInfo.flags = options.failClosed ? 0 : NFQ_FLAG_BYPASS;
        std::memcpy(info.data(), &queueInfo, sizeof queueInfo);
        mnl_attr_put_strz(h, NFTA_TARGET_NAME, "NFQUEUE");
        mnl_attr_put_u32(h, NFTA_TARGET_REV, htonl(3));
        mnl_attr_put(h, NFTA_TARGET_INFO, info.size(), info.data());
    });
}

void dnsLog(nlmsghdr* header, const KernelRuleOptions& options) {
    expression(header, "log", [&](nlmsghdr* h) {
        mnl_attr_put_u16(h, NFTA_LOG_GROUP, htons(options.dnsLogGroup));
        // A whole DNS message over UDP, or the first segment of one over TCP.
        mnl_attr_put_u32(h, NFTA_LOG_SNAPLEN, htonl(0xffff));
    });
}

// --- table, chains, rules ----------------------------------------------------

void table(NftablesBatch& batch, std::uint16_t type, std::optional<std::uint32_t> flags) {
    nlmsghdr* header = batch.message(type, type == NFT_MSG_NEWTABLE ? NLM_F_CREATE : 0);
    mnl_attr_put_strz(header, NFTA_TABLE_NAME, std::string(FilterKernelRules::tableName).c_str());
    if (flags) mnl_attr_put_u32(header, NFTA_TABLE_FLAGS, htonl(*flags));
    batch.next();
}

void chain(NftablesBatch& batch, const char* name, std::uint32_t hook) {
    nlmsghdr* header = batch.message(NFT_MSG_NEWCHAIN, NLM_F_CREATE);
    mnl_attr_put_strz(header, NFTA_CHAIN_TABLE, std::string(FilterKernelRules::tableName).c_str());
    mnl_attr_put_strz(header, NFTA_CHAIN_NAME, name);
    nlattr* hookNest = mnl_attr_nest_start(header, NFTA_CHAIN_HOOK);
    mnl_attr_put_u32(header, NFTA_HOOK_HOOKNUM, htonl(hook));
    mnl_attr_put_u32(header, NFTA_HOOK_PRIORITY, htonl(static_cast<std::uint32_t>(chainPriority)));
    mnl_attr_nest_end(header, hookNest);
    mnl_attr_put_u32(header, NFTA_CHAIN_POLICY, htonl(NF_ACCEPT));
    mnl_attr_put_strz(header, NFTA_CHAIN_TYPE, "filter");
    batch.next();
}

void rule(NftablesBatch& batch, const char* chainName, const Fill& expressions) {
    nlmsghdr* header = batch.message(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND);
    mnl_attr_put_strz(header, NFTA_RULE_TABLE, std::string(FilterKernelRules::tableName).c_str());
    mnl_attr_put_strz(header, NFTA_RULE_CHAIN, chainName);
    nlattr* list = mnl_attr_nest_start(header, NFTA_RULE_EXPRESSIONS);
    expressions(header);
    mnl_attr_nest_end(header, list);
    batch.next();
}

VoidResult installWith(NetlinkChannel& channel, QueueMechanism mechanism, const KernelRuleOptions& options,
                       bool owned) {
    NftablesBatch batch(channel);
    // "add, delete, add" in one transaction: the first add makes sure there is
    // a table to delete, so a table left by an earlier run goes away and a
    // fresh one takes its place atomically, whether one existed or not.
    table(batch, NFT_MSG_NEWTABLE, std::nullopt);
    table(batch, NFT_MSG_DELTABLE, std::nullopt);
    table(batch, NFT_MSG_NEWTABLE, owned ? std::optional<std::uint32_t>(NFT_TABLE_F_OWNER) : std::nullopt);
    chain(batch, "output", NF_INET_LOCAL_OUT);
    chain(batch, "input", NF_INET_LOCAL_IN);

    if (!options.includeLoopback)
        rule(batch, "output", [](nlmsghdr* h) {
            interfaceIsLoopback(h, true);
            verdict(h, NF_ACCEPT);
        });
    for (std::uint8_t protocol : {std::uint8_t{IPPROTO_TCP}, std::uint8_t{IPPROTO_UDP}})
        rule(batch, "output", [&](nlmsghdr* h) {
            transportIs(h, protocol);
            connectionIsNew(h);
            toQueue(h, mechanism, options);
        });

    // DNS answers are copied to the log group before anything else, loopback
    // included (a local stub resolver answers over it).
    for (std::uint8_t protocol : {std::uint8_t{IPPROTO_UDP}, std::uint8_t{IPPROTO_TCP}})
        rule(batch, "input", [&](nlmsghdr* h) {
            transportIs(h, protocol);
            sourcePortIsDns(h);
            dnsLog(h, options);
        });
    // A loopback connection is decided once, as the client's outbound flow.
    rule(batch, "input", [](nlmsghdr* h) {
        interfaceIsLoopback(h, false);
        verdict(h, NF_ACCEPT);
    });
    for (std::uint8_t protocol : {std::uint8_t{IPPROTO_TCP}, std::uint8_t{IPPROTO_UDP}})
        rule(batch, "input", [&](nlmsghdr* h) {
            transportIs(h, protocol);
            connectionIsNew(h);
            toQueue(h, mechanism, options);
        });
    return batch.commit("installing the quillfort nftables table");
}

bool expressionMissing(const Error& error) {
    return error.code == std::errc::no_such_file_or_directory || error.code == std::errc::operation_not_supported;
}

}  // namespace

std::string_view queueMechanismName(QueueMechanism mechanism) noexcept {
    return mechanism == QueueMechanism::nftablesQueue ? "nftables queue" : "iptables NFQUEUE target";
}

Result<FilterKernelRules> FilterKernelRules::install(const KernelRuleOptions& options) {
    auto channel = NetlinkChannel::open(NETLINK_NETFILTER);
    if (!channel) return std::unexpected(channel.error());
    const bool owned = !options.failClosed;
    // Try the queue expression first: the kernel says ENOENT for an expression
    // type it was built without, and the whole transaction is undone.
    auto installed = installWith(*channel, QueueMechanism::nftablesQueue, options, owned);
    QueueMechanism mechanism = QueueMechanism::nftablesQueue;
    if (!installed && expressionMissing(installed.error())) {
        mechanism = QueueMechanism::iptablesTarget;
        installed = installWith(*channel, mechanism, options, owned);
    }
    if (!installed && owned && installed.error().code == std::errc::operation_not_supported) {
        // A kernel older than socket-owned tables (5.12): the table then stays
        // after a crash, and the next start replaces it.
        installed = installWith(*channel, mechanism, options, false);
        if (installed) return FilterKernelRules(std::move(*channel), mechanism, false);
    }
    if (!installed) {
        if (installed.error().code == std::errc::operation_not_permitted)
            return std::unexpected(Error{installed.error().code,
                                         "The nftables table \"quillfort\" belongs to another running process "
                                         "(another quillfort-filter?), or this process may not change the "
                                         "ruleset (it needs CAP_NET_ADMIN)"});
        return std::unexpected(installed.error());
    }
    return FilterKernelRules(std::move(*channel), mechanism, owned);
}

FilterKernelRules::~FilterKernelRules() { (void)remove(); }

VoidResult FilterKernelRules::remove() {
    if (!installed_ || !channel_) return {};
    installed_ = false;
    NftablesBatch batch(*channel_);
    table(batch, NFT_MSG_DELTABLE, std::nullopt);
    auto removed = batch.commit("removing the quillfort nftables table");
    if (!removed && removed.error().isNoSuchFile()) return {};
    return removed;
}

VoidResult FilterKernelRules::removeStale() {
    auto channel = NetlinkChannel::open(NETLINK_NETFILTER);
    if (!channel) return std::unexpected(channel.error());
    NftablesBatch batch(*channel);
    table(batch, NFT_MSG_DELTABLE, std::nullopt);
    auto removed = batch.commit("removing the quillfort nftables table");
    if (!removed && removed.error().isNoSuchFile()) return {};
    return removed;
}

}  // namespace quillfort
