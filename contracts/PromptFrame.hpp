// The loopback wire format: one frame is a 4-byte big-endian payload length
// followed by the payload. One encoder and one incremental reader, shared by the
// agent's listener and the client, so both sides cut frames the same way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace quillfort {

inline constexpr std::size_t promptFrameHeaderSize = 4;
// The length field is unsigned 32-bit; nothing longer can be framed.
inline constexpr std::uint64_t maximumPromptFramePayloadSize = std::numeric_limits<std::uint32_t>::max();

enum class FrameErrorKind {
    payloadTooLarge,   // the payload does not fit the 32-bit length field
    truncatedHeader,   // the stream ended inside the 4-byte length
    truncatedPayload,  // the stream ended before the announced payload was complete
};

struct FrameError {
    FrameErrorKind kind = FrameErrorKind::truncatedHeader;
    std::uint64_t expectedBytes = 0;  // header size, announced length, or the limit
    std::uint64_t receivedBytes = 0;  // bytes of that part actually seen (the payload size when too large)

    // A diagnostic line such as "frame payload cut short: 10 bytes announced, 6 sent".
    // Each side reports these situations to its peers and logs with its own texts.
    [[nodiscard]] std::string description() const;

    bool operator==(const FrameError&) const = default;
};

// The frame for `payload`; a payload longer than 4294967295 bytes is refused,
// never truncated.
[[nodiscard]] std::expected<std::string, FrameError> encodeFrame(std::string_view payload);

// Reads one frame from bytes that arrive in pieces of any size. A caller asks
// its transport for at least 1 and at most `bytesWanted()` bytes, hands them to
// `consume`, and repeats until `complete()`; the reader never takes more than
// the current frame needs, so bytes after the frame stay with the caller.
// The announced length is not trusted for allocation: the payload buffer grows
// with the bytes that actually arrive.
class FrameReader {
public:
    // Bytes still needed for the part being read (header, then payload); 0 once complete.
    [[nodiscard]] std::size_t bytesWanted() const noexcept;

    // Takes as many bytes from the front of `bytes` as the frame still needs and
    // returns how many it took (0 once complete).
    std::size_t consume(std::span<const char> bytes);

    [[nodiscard]] bool complete() const noexcept { return phase_ == Phase::complete; }

    // The payload length from the header, once the header is in.
    [[nodiscard]] std::optional<std::uint32_t> announcedLength() const noexcept;

    // The payload of a complete frame; the reader then starts over on a new frame.
    // Before completion it returns an empty text and changes nothing.
    [[nodiscard]] std::string takePayload();

    // The stream ended: fine when the frame is complete, otherwise says whether the
    // header or the payload was cut short and by how much. Nothing partial is decoded.
    [[nodiscard]] std::expected<void, FrameError> finishAtEndOfStream() const;

private:
    enum class Phase { header, payload, complete };

    void enterPayloadPhase();

    Phase phase_ = Phase::header;
    std::size_t headerFill_ = 0;
    unsigned char header_[promptFrameHeaderSize] = {};
    std::uint32_t length_ = 0;
    std::string payload_;
};

// Blocking read of one whole frame over a transport that offers "read some":
// `readSome(std::span<char>)` fills a prefix of the buffer and returns
// std::expected<std::size_t, E> with the count, 0 meaning end of stream, or the
// transport's own error. It is only ever asked for bytes the frame still needs.
template <class E>
using FrameReadError = std::variant<FrameError, E>;

template <class ReadSome>
[[nodiscard]] auto readFrame(ReadSome&& readSome)
    -> std::expected<std::string,
                     FrameReadError<typename std::invoke_result_t<ReadSome&, std::span<char>>::error_type>> {
    using TransportError = typename std::invoke_result_t<ReadSome&, std::span<char>>::error_type;
    using Error = FrameReadError<TransportError>;
    constexpr std::size_t chunkSize = 64 * 1024;
    std::string buffer(chunkSize, '\0');
    FrameReader reader;
    while (!reader.complete()) {
        const std::size_t wanted = reader.bytesWanted() < chunkSize ? reader.bytesWanted() : chunkSize;
        auto received = readSome(std::span<char>(buffer.data(), wanted));
        if (!received) return std::unexpected(Error(std::in_place_index<1>, std::move(received.error())));
        if (*received == 0) {
            auto ended = reader.finishAtEndOfStream();
            return std::unexpected(Error(std::in_place_index<0>, ended.error()));
        }
        const std::size_t count = *received < wanted ? *received : wanted;
        reader.consume(std::span<const char>(buffer.data(), count));
    }
    return reader.takePayload();
}

}  // namespace quillfort
