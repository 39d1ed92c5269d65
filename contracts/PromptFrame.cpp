#include "contracts/PromptFrame.hpp"

#include <algorithm>

#include <fmt/format.h>

namespace quillfort {

std::string FrameError::description() const {
    switch (kind) {
        case FrameErrorKind::payloadTooLarge:
            return fmt::format("frame payload too large: {} bytes, at most {} can be framed", receivedBytes,
                               expectedBytes);
        case FrameErrorKind::truncatedHeader:
            return fmt::format("frame length header cut short: {} of {} bytes received", receivedBytes,
                               expectedBytes);
        case FrameErrorKind::truncatedPayload:
            return fmt::format("frame payload cut short: {} bytes announced, {} sent", expectedBytes,
                               receivedBytes);
    }
    return "frame error";
}

std::expected<std::string, FrameError> encodeFrame(std::string_view payload) {
    if (payload.size() > maximumPromptFramePayloadSize) {
        return std::unexpected(
            FrameError{FrameErrorKind::payloadTooLarge, maximumPromptFramePayloadSize, payload.size()});
    }
    const auto length = static_cast<std::uint32_t>(payload.size());
    std::string frame;
    frame.reserve(promptFrameHeaderSize + payload.size());
    frame.push_back(static_cast<char>((length >> 24) & 0xFF));
    frame.push_back(static_cast<char>((length >> 16) & 0xFF));
    frame.push_back(static_cast<char>((length >> 8) & 0xFF));
    frame.push_back(static_cast<char>(length & 0xFF));
    frame.append(payload);
    return frame;
}

std::size_t FrameReader::bytesWanted() const noexcept {
    switch (phase_) {
        case Phase::header:
            return promptFrameHeaderSize - headerFill_;
        case Phase::payload:
            return static_cast<std::size_t>(length_) - payload_.size();
        case Phase::complete:
            return 0;
    }
    return 0;
}

std::size_t FrameReader::consume(std::span<const char> bytes) {
    std::size_t used = 0;
    if (phase_ == Phase::header) {
        const std::size_t take = std::min(bytes.size(), promptFrameHeaderSize - headerFill_);
        for (std::size_t i = 0; i < take; ++i) header_[headerFill_ + i] = static_cast<unsigned char>(bytes[i]);
        headerFill_ += take;
        used += take;
        if (headerFill_ == promptFrameHeaderSize) enterPayloadPhase();
    }
    if (phase_ == Phase::payload) {
        const std::size_t take = std::min(bytes.size() - used, bytesWanted());
        payload_.append(bytes.data() + used, take);
        used += take;
        if (payload_.size() == length_) phase_ = Phase::complete;
    }
    return used;
}

void FrameReader::enterPayloadPhase() {
    length_ = (std::uint32_t{header_[0]} << 24) | (std::uint32_t{header_[1]} << 16) |
              (std::uint32_t{header_[2]} << 8) | std::uint32_t{header_[3]};
    payload_.clear();
    // A zero length is an empty payload, complete without reading further.
    phase_ = length_ == 0 ? Phase::complete : Phase::payload;
}

std::optional<std::uint32_t> FrameReader::announcedLength() const noexcept {
    if (phase_ == Phase::header) return std::nullopt;
    return length_;
}

std::string FrameReader::takePayload() {
    if (phase_ != Phase::complete) return {};
    std::string payload = std::move(payload_);
    *this = FrameReader{};
    return payload;
}

std::expected<void, FrameError> FrameReader::finishAtEndOfStream() const {
    switch (phase_) {
        case Phase::header:
            return std::unexpected(FrameError{FrameErrorKind::truncatedHeader, promptFrameHeaderSize, headerFill_});
        case Phase::payload:
            return std::unexpected(FrameError{FrameErrorKind::truncatedPayload, length_, payload_.size()});
        case Phase::complete:
            return {};
    }
    return {};
}

}  // namespace quillfort
