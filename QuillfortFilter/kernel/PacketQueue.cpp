#include "QuillfortFilter/kernel/PacketQueue.hpp"

#include "QuillfortFilter/kernel/NetlinkMessage.hpp"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace quillfort {

namespace {

constexpr std::size_t messageBufferSize = 4096;
// Verdict messages are small; one write carries many, below the socket's limit.
constexpr std::size_t verdictFlushBytes = 48 * 1024;

}  // namespace

Result<PacketQueue> PacketQueue::open(const PacketQueueOptions& options) {
    auto channel = NetlinkChannel::open(NETLINK_NETFILTER);
    if (!channel) return std::unexpected(channel.error());
    // A full receive buffer would lose packets (they would be dropped); the
    // queue's own limit is what should decide.
    (void)channel->setOption(SOL_SOCKET, SO_RCVBUFFORCE, options.receiveBufferBytes, "queue receive buffer");
    (void)channel->setOption(SOL_NETLINK, NETLINK_NO_ENOBUFS, 1, "queue buffer errors");

    std::array<char, 8192> buffer{};
    nlmsghdr* header = nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, options.queue);
    header->nlmsg_flags |= NLM_F_ACK;
    header->nlmsg_seq = channel->nextSequence();
    nfq_nlmsg_cfg_put_cmd(header, AF_INET, NFQNL_CFG_CMD_BIND);
    if (auto bound = channel->transact({reinterpret_cast<std::uint8_t*>(header), header->nlmsg_len}, 1,
                                       "binding the packet queue");
        !bound) {
        if (bound.error().code == std::errc::device_or_resource_busy)
            return std::unexpected(Error{bound.error().code, "Another program already serves packet queue " +
                                                                 std::to_string(options.queue)});
        return std::unexpected(bound.error());
    }

    header = nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, options.queue);
    header->nlmsg_flags |= NLM_F_ACK;
    header->nlmsg_seq = channel->nextSequence();
    nfq_nlmsg_cfg_put_params(header, NFQNL_COPY_PACKET, static_cast<int>(options.copyRange));
    nfq_nlmsg_cfg_put_qmaxlen(header, options.maximumLength);
    mnl_attr_put_u32(header, NFQA_CFG_FLAGS, htonl(NFQA_CFG_F_UID_GID | NFQA_CFG_F_GSO));
    mnl_attr_put_u32(header, NFQA_CFG_MASK, htonl(NFQA_CFG_F_UID_GID | NFQA_CFG_F_GSO | NFQA_CFG_F_FAIL_OPEN));
    if (auto configured = channel->transact({reinterpret_cast<std::uint8_t*>(header), header->nlmsg_len}, 1,
                                            "configuring the packet queue");
        !configured)
        return std::unexpected(configured.error());
    return PacketQueue(std::move(*channel), options.queue);
}

std::optional<QueuedPacket> PacketQueue::parseMessage(std::span<const std::uint8_t> message) {
    auto parsed = NetlinkMessage::at(message);
    if (!parsed || parsed->type() != ((NFNL_SUBSYS_QUEUE << 8) | NFQNL_MSG_PACKET)) return std::nullopt;
    auto packetHeader = parsed->attribute(NFQA_PACKET_HDR);
    if (!packetHeader || packetHeader->size() < sizeof(nfqnl_msg_packet_hdr)) return std::nullopt;
    nfqnl_msg_packet_hdr header{};
    std::memcpy(&header, packetHeader->data(), sizeof header);
    QueuedPacket packet;
    packet.id = ntohl(header.packet_id);
    packet.hook = header.hook;
    packet.uid = parsed->attributeU32(NFQA_UID);
    packet.gid = parsed->attributeU32(NFQA_GID);
    if (auto payload = parsed->attribute(NFQA_PAYLOAD)) packet.headers = PacketParser::parse(*payload);
    return packet;
}

Result<std::size_t> PacketQueue::receive(std::vector<QueuedPacket>& packets, std::size_t limit) {
    constexpr std::size_t batch = 64;
    receiveBuffers_.resize(batch * messageBufferSize);
    std::array<iovec, batch> vectors{};
    std::array<mmsghdr, batch> messages{};
    std::size_t read = 0;
    while (read < limit) {
        const std::size_t wanted = std::min(batch, limit - read);
        for (std::size_t i = 0; i < wanted; ++i) {
            vectors[i] = {receiveBuffers_.data() + i * messageBufferSize, messageBufferSize};
            messages[i] = {};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int count = ::recvmmsg(descriptor(), messages.data(), static_cast<unsigned>(wanted), MSG_DONTWAIT, nullptr);
        if (count < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) break;
            if (errno == ENOBUFS) continue;  // some were lost in the kernel; read on
            return std::unexpected(Error::fromErrno(errno, "reading the packet queue"));
        }
        for (int i = 0; i < count; ++i) {
            std::span<const std::uint8_t> datagram(receiveBuffers_.data() + static_cast<std::size_t>(i) * messageBufferSize,
                                                   messages[static_cast<std::size_t>(i)].msg_len);
            // A datagram may carry several messages (and errors for verdicts).
            int remaining = static_cast<int>(datagram.size());
            for (auto* header = reinterpret_cast<const nlmsghdr*>(datagram.data()); mnl_nlmsg_ok(header, remaining);
                 header = mnl_nlmsg_next(header, &remaining)) {
                if (auto packet = parseMessage({reinterpret_cast<const std::uint8_t*>(header), header->nlmsg_len}))
                    packets.push_back(std::move(*packet));
            }
        }
        read += static_cast<std::size_t>(count);
        if (static_cast<std::size_t>(count) < wanted) break;
    }
    return read;
}

void PacketQueue::verdict(std::uint32_t id, bool accept) {
    const std::size_t offset = verdicts_.size();
    verdicts_.resize(offset + MNL_ALIGN(sizeof(nlmsghdr) + sizeof(nfgenmsg) + 64));
    nlmsghdr* header = nfq_nlmsg_put(reinterpret_cast<char*>(verdicts_.data() + offset), NFQNL_MSG_VERDICT, queue_);
    nfq_nlmsg_verdict_put(header, static_cast<int>(id), accept ? NF_ACCEPT : NF_DROP);
    verdicts_.resize(offset + MNL_ALIGN(header->nlmsg_len));
    if (verdicts_.size() >= verdictFlushBytes) (void)flush();
}

VoidResult PacketQueue::flush() {
    if (verdicts_.empty()) return {};
    auto sent = channel_.send(verdicts_, "sending packet verdicts");
    verdicts_.clear();
    return sent;
}

}  // namespace quillfort
