// Loopback bytes in arbitrary pieces: the first byte of each step says how many
// bytes the "network" delivers next.
#include <cstddef>
#include <cstdint>
#include <span>

#include "contracts/PromptFrame.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quillfort::FrameReader reader;
    std::size_t pos = 0;
    while (pos < size) {
        std::size_t piece = 1 + data[pos++] % 16;
        if (piece > size - pos) piece = size - pos;
        if (piece == 0) break;
        std::size_t used = reader.consume(std::span(reinterpret_cast<const char*>(data + pos), piece));
        if (used > piece) __builtin_trap();
        pos += used;
        if (reader.complete()) (void)reader.takePayload();
        if (used == 0 && !reader.complete()) break;
    }
    (void)reader.finishAtEndOfStream();
    return 0;
}
