#include "contracts/PromptFrame.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <deque>
#include <vector>

namespace quillfort {
namespace {

std::string header(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3) {
    return {static_cast<char>(b0), static_cast<char>(b1), static_cast<char>(b2), static_cast<char>(b3)};
}

TEST(PromptFrame, EncodesBigEndianLengthAndRefusesOversizedPayload) {
    EXPECT_EQ(encodeFrame("{}"), header(0, 0, 0, 2) + "{}");
    EXPECT_EQ(encodeFrame(std::string(0x010203, 'x'))->substr(0, 4), header(0x00, 0x01, 0x02, 0x03));

    // Address space for a payload the header cannot express, reserved but never
    // backed by memory: the encoder must refuse it before copying anything.
    const std::size_t size = std::size_t{maximumPromptFramePayloadSize} + 1;
    void* region = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(region, MAP_FAILED);
    auto frame = encodeFrame(std::string_view(static_cast<const char*>(region), size));
    ::munmap(region, size);
    ASSERT_FALSE(frame.has_value());
    EXPECT_EQ(frame.error().kind, FrameErrorKind::payloadTooLarge);
}

// Every way of cutting a frame in two gives back the same payload, and the
// reader asks for exactly what is missing.
TEST(FrameReader, ReadsFrameSplitAtEveryPosition) {
    const std::string payload = R"({"promptID":"6F1C2A9E-0B4D-4E8F-9A7C-3D2E1F0A5B6C"})";
    const std::string frame = *encodeFrame(payload);
    for (std::size_t split = 0; split <= frame.size(); ++split) {
        SCOPED_TRACE("split at " + std::to_string(split));
        FrameReader reader;
        EXPECT_EQ(reader.consume(std::string_view(frame).substr(0, split)), split);
        EXPECT_EQ(reader.complete(), split == frame.size());
        EXPECT_EQ(reader.bytesWanted(), split < 4 ? 4 - split : frame.size() - split);
        EXPECT_EQ(reader.consume(std::string_view(frame).substr(split)), frame.size() - split);
        ASSERT_TRUE(reader.complete());
        EXPECT_TRUE(reader.finishAtEndOfStream().has_value());
        EXPECT_EQ(reader.takePayload(), payload);
    }
}

TEST(FrameReader, StopsAtFrameEndAndTreatsZeroLengthAsComplete) {
    const std::string stream = *encodeFrame("first") + *encodeFrame("") + *encodeFrame("second");
    std::string_view rest = stream;
    std::vector<std::string> payloads;
    FrameReader reader;
    while (!rest.empty()) {
        const std::size_t used = reader.consume(rest);
        ASSERT_TRUE(reader.complete());
        EXPECT_EQ(reader.consume(rest.substr(used)), 0u) << "a complete frame takes nothing more";
        rest.remove_prefix(used);
        payloads.push_back(reader.takePayload());  // the reader then starts on the next frame
    }
    EXPECT_EQ(payloads, (std::vector<std::string>{"first", "", "second"}));
}

TEST(FrameReader, StreamEndingEarlyNamesThePartCutShort) {
    struct Case {
        std::string received;
        FrameError expected;
        std::string description;
    };
    const Case cases[] = {
        {"", {FrameErrorKind::truncatedHeader, 4, 0}, "frame length header cut short: 0 of 4 bytes received"},
        {header(0, 0, 0, 10).substr(0, 2), {FrameErrorKind::truncatedHeader, 4, 2},
         "frame length header cut short: 2 of 4 bytes received"},
        {header(0, 0, 0, 10) + "123456", {FrameErrorKind::truncatedPayload, 10, 6},
         "frame payload cut short: 10 bytes announced, 6 sent"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        FrameReader reader;
        reader.consume(c.received);
        auto ended = reader.finishAtEndOfStream();
        ASSERT_FALSE(ended.has_value());
        EXPECT_EQ(ended.error(), c.expected);
        EXPECT_EQ(ended.error().description(), c.description);
        EXPECT_EQ(reader.takePayload(), "") << "nothing partial is handed out";
    }
}

// A transport that hands out scripted chunks, then end of stream or an error.
struct ScriptedTransport {
    std::deque<std::string> chunks;
    std::optional<int> errorAtEnd;
    std::vector<std::size_t> requested;

    std::expected<std::size_t, int> operator()(std::span<char> buffer) {
        requested.push_back(buffer.size());
        if (chunks.empty()) {
            if (errorAtEnd) return std::unexpected(*errorAtEnd);
            return 0;
        }
        const std::size_t n = std::min(chunks.front().size(), buffer.size());
        std::copy_n(chunks.front().data(), n, buffer.data());
        chunks.front().erase(0, n);
        if (chunks.front().empty()) chunks.pop_front();
        return n;
    }
};

TEST(ReadFrame, LoopsOverPartialReadsAndTellsEndOfStreamFromTransportError) {
    ScriptedTransport good{{header(0, 0, 0, 5).substr(0, 2), header(0, 0, 0, 5).substr(2) + "he", "llo!!"}, {}, {}};
    EXPECT_EQ(readFrame(good), "hello");
    EXPECT_EQ(good.requested, (std::vector<std::size_t>{4, 2, 5, 3})) << "never asks past the frame";
    EXPECT_EQ(good.chunks.front(), "!!");

    ScriptedTransport cut{{header(0, 0, 0, 10) + "123456"}, {}, {}};
    auto truncated = readFrame(cut);
    ASSERT_FALSE(truncated.has_value());
    EXPECT_EQ(truncated.error(), (FrameReadError<int>(FrameError{FrameErrorKind::truncatedPayload, 10, 6})));

    ScriptedTransport failing{{header(0, 0, 0, 10).substr(0, 2)}, 104, {}};
    auto failed = readFrame(failing);
    ASSERT_FALSE(failed.has_value());
    EXPECT_EQ(failed.error(), (FrameReadError<int>(std::in_place_index<1>, 104)));
}

}  // namespace
}  // namespace quillfort
