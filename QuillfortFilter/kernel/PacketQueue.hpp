// The filter's NFQUEUE: the first packets of new flows arrive here and wait
// in the kernel until the filter gives each its verdict. Packets are read in
// batches (one system call for many) and verdicts are sent in batches too.
// A verdict may come at any time: the kernel holds a packet as long as it
// takes, so a flow can wait for the user without a time limit of ours.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "QuillfortFilter/kernel/NetlinkChannel.hpp"
#include "QuillfortFilter/packet/PacketHeaders.hpp"
#include "platform/Error.hpp"

namespace quillfort {

struct QueuedPacket {
    // The netfilter hooks the filter's chains sit on.
    static constexpr std::uint8_t hookLocalIn = 1;
    static constexpr std::uint8_t hookLocalOut = 3;

    std::uint32_t id = 0;
    std::uint8_t hook = 0;  // NF_INET_LOCAL_IN (1) or NF_INET_LOCAL_OUT (3)
    // The user and group of the local socket that sent it; absent for a
    // packet no user-space socket sent (the kernel's own) and for inbound ones.
    std::optional<std::uint32_t> uid;
    std::optional<std::uint32_t> gid;
    std::optional<PacketHeaders> headers;  // absent when the copy does not parse

    bool operator==(const QueuedPacket&) const = default;
};

struct PacketQueueOptions {
    std::uint16_t queue = 27839;
    // Packets the kernel holds for us at most; past it new first packets are
    // dropped, never passed (the queue does not fail open).
    std::uint32_t maximumLength = 32768;
    // Bytes of each packet copied to us: the headers, IPv6 extension headers included.
    std::uint32_t copyRange = 512;
    // Socket buffer for packets read late: enough for a full queue.
    int receiveBufferBytes = 64 * 1024 * 1024;
};

class PacketQueue {
public:
    [[nodiscard]] static Result<PacketQueue> open(const PacketQueueOptions& options);

    [[nodiscard]] int descriptor() const noexcept { return channel_.descriptor(); }
    [[nodiscard]] std::uint16_t number() const noexcept { return queue_; }

    // Appends to `packets` what is waiting, at most `limit` messages, without
    // blocking; returns how many messages were read (0: none waiting).
    [[nodiscard]] Result<std::size_t> receive(std::vector<QueuedPacket>& packets, std::size_t limit = 256);

    // Queues a verdict; flush() sends every queued verdict in one write.
    void verdict(std::uint32_t id, bool accept);
    [[nodiscard]] VoidResult flush();

    // One queue message (the kernel's packet message); nothing for any other
    // message or a malformed one. Any bytes at all are safe to pass.
    [[nodiscard]] static std::optional<QueuedPacket> parseMessage(std::span<const std::uint8_t> message);

private:
    PacketQueue(NetlinkChannel channel, std::uint16_t queue) : channel_(std::move(channel)), queue_(queue) {}

    NetlinkChannel channel_;
    std::uint16_t queue_;
    std::vector<std::uint8_t> verdicts_;
    std::vector<std::uint8_t> receiveBuffers_;
};

}  // namespace quillfort
