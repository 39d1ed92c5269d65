// Replies of the kernel's netlink interfaces as the filter reads them: queue
// messages, log messages and sock_diag answers. The first byte picks the
// reader; the rest is the message.
#include <cstddef>
#include <cstdint>
#include <span>

#include "QuillfortFilter/kernel/DnsAnswerLog.hpp"
#include "QuillfortFilter/kernel/PacketQueue.hpp"
#include "platform/SocketDiagnostics.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillfort;
    if (size == 0) return 0;
    const std::span<const std::uint8_t> message(data + 1, size - 1);
    switch (data[0] % 3) {
        case 0: (void)PacketQueue::parseMessage(message); break;
        case 1:
            if (auto packet = DnsAnswerLog::packetIn(message)) {
                if (packet->data() < message.data() || packet->data() + packet->size() > message.data() + message.size())
                    __builtin_trap();
            }
            break;
        default: (void)SocketDiagnostics::parseReply(message, 1); break;
    }
    return 0;
}
