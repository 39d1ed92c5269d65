#include "contracts/PromptFrame.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>


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

// Every way of cutting a frame in two gives back the same payload, the reader
// asks for exactly what is missing and takes nothing past the frame's end.
TEST(FrameReader, ReadsFrameSplitAtEveryPosition) {
    const std::string payload = R"({"promptID":"6F1C2A9E-0B4D-4E8F-9A7C-3D2E1F0A5B6C"})";
    const std::string frame = *encodeFrame(payload);
    for (std::size_t split = 0; split <= frame.size(); ++split) {
        SCOPED_TRACE("split at " + std::to_string(split));
        FrameReader reader;
        EXPECT_EQ(reader.consume(std::string_view(frame).substr(0, split)), split);
        EXPECT_EQ(reader.complete(), split == frame.size());
        EXPECT_EQ(reader.bytesWanted(), split < 4 ? 4 - split : frame.size() - split);
        EXPECT_EQ(reader.consume(frame.substr(split) + "next"), frame.size() - split);
        ASSERT_TRUE(reader.complete());
        EXPECT_TRUE(reader.finishAtEndOfStream().has_value());
        EXPECT_EQ(reader.takePayload(), payload);
    }
    FrameReader empty;
    EXPECT_EQ(empty.consume(*encodeFrame("") + "next"), 4u);
    EXPECT_TRUE(empty.complete()) << "a zero length is a whole frame";
}

TEST(FrameReader, StreamEndingEarlyNamesThePartCutShort) {
    const std::pair<std::string, FrameError> cases[] = {
        {header(0, 0, 0, 10).substr(0, 2), {FrameErrorKind::truncatedHeader, 4, 2}},
        {header(0, 0, 0, 10) + "123456", {FrameErrorKind::truncatedPayload, 10, 6}},
    };
    for (const auto& [received, expected] : cases) {
        FrameReader reader;
        reader.consume(received);
        EXPECT_EQ(reader.finishAtEndOfStream(), std::unexpected(expected));
        EXPECT_EQ(reader.takePayload(), "") << "nothing partial is handed out";
    }
    EXPECT_EQ((FrameError{FrameErrorKind::truncatedPayload, 10, 6}).description(),
              "frame payload cut short: 10 bytes announced, 6 sent");
}

}  // namespace
}  // namespace quillfort
