#include "QuillfortFilter/kernel/DnsAnswerLog.hpp"

#include "QuillfortFilter/kernel/NetlinkMessage.hpp"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string>

namespace quillfort {

namespace {

constexpr std::size_t receiveBufferSize = 128 * 1024;

nlmsghdr* configMessage(char* buffer, std::uint16_t group, std::uint32_t sequence) {
    nlmsghdr* header = mnl_nlmsg_put_header(buffer);
    header->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    header->nlmsg_seq = sequence;
    auto* generic = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
    generic->nfgen_family = AF_UNSPEC;
    generic->version = NFNETLINK_V0;
    generic->res_id = htons(group);
    return header;
}

}  // namespace

Result<DnsAnswerLog> DnsAnswerLog::open(std::uint16_t group) {
    auto channel = NetlinkChannel::open(NETLINK_NETFILTER);
    if (!channel) return std::unexpected(channel.error());
    (void)channel->setOption(SOL_SOCKET, SO_RCVBUFFORCE, 4 * 1024 * 1024, "log receive buffer");
    (void)channel->setOption(SOL_NETLINK, NETLINK_NO_ENOBUFS, 1, "log buffer errors");

    std::array<char, 8192> buffer{};
    nlmsghdr* header = configMessage(buffer.data(), group, channel->nextSequence());
    nfulnl_msg_config_cmd command{NFULNL_CFG_CMD_BIND};
    mnl_attr_put(header, NFULA_CFG_CMD, sizeof command, &command);
    if (auto bound = channel->transact({reinterpret_cast<std::uint8_t*>(header), header->nlmsg_len}, 1,
                                       "binding the DNS log group");
        !bound) {
        if (bound.error().code == std::errc::device_or_resource_busy)
            return std::unexpected(Error{bound.error().code, "Another program already reads log group " +
                                                                 std::to_string(group)});
        return std::unexpected(bound.error());
    }

    header = configMessage(buffer.data(), group, channel->nextSequence());
    nfulnl_msg_config_mode mode{};
    mode.copy_mode = NFULNL_COPY_PACKET;
    mode.copy_range = htonl(0xffff);
    mnl_attr_put(header, NFULA_CFG_MODE, sizeof mode, &mode);
    // Each answer at once: a program connects right after its answer arrives,
    // and the name must be known by then.
    mnl_attr_put_u32(header, NFULA_CFG_QTHRESH, htonl(1));
    mnl_attr_put_u32(header, NFULA_CFG_TIMEOUT, htonl(0));
    if (auto configured = channel->transact({reinterpret_cast<std::uint8_t*>(header), header->nlmsg_len}, 1,
                                            "configuring the DNS log group");
        !configured)
        return std::unexpected(configured.error());
    return DnsAnswerLog(std::move(*channel));
}

std::optional<std::span<const std::uint8_t>> DnsAnswerLog::packetIn(std::span<const std::uint8_t> message) {
    auto parsed = NetlinkMessage::at(message);
    if (!parsed || parsed->type() != ((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET)) return std::nullopt;
    return parsed->attribute(NFULA_PAYLOAD);
}

Result<std::size_t> DnsAnswerLog::receive(const std::function<void(std::span<const std::uint8_t>)>& packet,
                                          std::size_t limit) {
    buffer_.resize(receiveBufferSize);
    std::size_t read = 0;
    while (read < limit) {
        const ssize_t received = ::recv(descriptor(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        if (received < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) break;
            if (errno == ENOBUFS) continue;
            return std::unexpected(Error::fromErrno(errno, "reading the DNS log group"));
        }
        ++read;
        int remaining = static_cast<int>(received);
        for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data()); mnl_nlmsg_ok(header, remaining);
             header = mnl_nlmsg_next(header, &remaining)) {
            if (auto bytes = packetIn({reinterpret_cast<const std::uint8_t*>(header), header->nlmsg_len})) packet(*bytes);
        }
    }
    return read;
}

}  // namespace quillfort
