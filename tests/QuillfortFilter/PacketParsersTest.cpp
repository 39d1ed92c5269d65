#include "QuillfortFilter/bpf/BpfSocketOwners.hpp"
#include "QuillfortFilter/packet/DnsMessage.hpp"
#include "QuillfortFilter/packet/PacketHeaders.hpp"

#include <gtest/gtest.h>

#include "tests/QuillfortFilter/FilterSamples.hpp"

namespace quillfort {
namespace {

using testing::Bytes8;
using testing::DnsBuilder;

TEST(PacketParser, FindsPortsPastOptionsAndExtensionHeadersAndRefusesWhatIsCutShort) {
    const Bytes8 withOptions = testing::ipv4Packet(6, testing::tcpSyn(40000, 443), 3);
    auto parsed = PacketParser::parse(withOptions);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->source.toString(), "10.0.0.1");
    EXPECT_EQ(parsed->sourcePort, 40000);
    EXPECT_EQ(parsed->destinationPort, 443);
    EXPECT_EQ(parsed->tcpFlags, PacketParser::tcpSyn);

    // IPv6: hop-by-hop (8 bytes), then a first fragment, then UDP.
    Bytes8 v6(40, 0);
    v6[0] = 0x60;
    v6[6] = 0;  // next: hop-by-hop
    v6[8 + 15] = 1;
    v6[24 + 15] = 2;
    const Bytes8 hopByHop{44, 0, 0, 0, 0, 0, 0, 0};
    const Bytes8 firstFragment{17, 0, 0, 0, 0, 0, 0, 7};
    const Bytes8 udp = testing::udpSegment(5353, 53, {1, 2, 3});
    for (const auto* part : {&hopByHop, &firstFragment, &udp}) v6.insert(v6.end(), part->begin(), part->end());
    v6[4] = 0;
    v6[5] = static_cast<std::uint8_t>(v6.size() - 40);
    parsed = PacketParser::parse(v6);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->protocol, 17);
    EXPECT_EQ(parsed->destinationPort, 53);
    EXPECT_EQ(parsed->payloadLength, 3u);
    EXPECT_EQ(v6[parsed->payloadOffset], 1);

    // A later fragment has no transport header to read.
    Bytes8 laterFragment = v6;
    laterFragment[40 + 8 + 3] = 0x08;  // offset 1
    parsed = PacketParser::parse(laterFragment);
    ASSERT_TRUE(parsed);
    EXPECT_FALSE(parsed->destinationPort);

    // Header lengths that point past the bytes given.
    Bytes8 badIhl = withOptions;
    badIhl[0] = 0x4f;
    badIhl.resize(40);
    EXPECT_FALSE(PacketParser::parse(badIhl));
    Bytes8 badTcpOffset = testing::ipv4Packet(6, testing::tcpSyn(1, 2));
    badTcpOffset[20 + 12] = 0xf0;
    ASSERT_TRUE(PacketParser::parse(badTcpOffset));
    EXPECT_FALSE(PacketParser::parse(badTcpOffset)->sourcePort);
    EXPECT_FALSE(PacketParser::parse(Bytes8{0x45, 0, 0}));
    EXPECT_FALSE(PacketParser::parse(Bytes8{0x70}));
}

TEST(DnsParser, FollowsCnameChainsIntoOtherDomainsAndKeepsTheAskedName) {
    auto message = DnsBuilder()
                       .question("WWW.Example.com")
                       .cname("www.example.com", "edge.cdn-provider.net", 300)
                       .cname("edge.cdn-provider.net", "e1.a.cdn-provider.net", 120)
                       .address("e1.a.cdn-provider.net", {93, 184, 216, 34}, 30)
                       .address("unrelated.example.org", {6, 6, 6, 6})
                       .build();
    auto response = DnsParser::parseResponse(message);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->question, "www.example.com");
    ASSERT_EQ(response->addresses.size(), 1u);  // nobody asked about the unrelated name
    EXPECT_EQ(response->addresses[0].address.toString(), "93.184.216.34");
    EXPECT_EQ(response->addresses[0].names,
              (std::vector<std::string>{"www.example.com", "edge.cdn-provider.net", "e1.a.cdn-provider.net"}));
    EXPECT_EQ(response->addresses[0].ttlSeconds, 30u);
}

TEST(DnsParser, HostileMessagesAreRefusedOrCutWithoutReadingPastTheirEnd) {
    // A CNAME loop ends the chain; the addresses found on the way still count.
    auto loop = DnsBuilder()
                    .question("a.test")
                    .cname("a.test", "b.test")
                    .cname("b.test", "a.test")
                    .address("b.test", {1, 2, 3, 4})
                    .build();
    auto looped = DnsParser::parseResponse(loop);
    ASSERT_TRUE(looped);
    ASSERT_EQ(looped->addresses.size(), 1u);
    EXPECT_EQ(looped->addresses[0].names, (std::vector<std::string>{"a.test", "b.test"}));

    // A compression pointer to itself (the answer starts after the 12-byte
    // header and the 12-byte question), one past the end, an extended label type.
    for (Bytes8 record : {Bytes8{0xc0, 24}, Bytes8{0xc0, 0xff}, Bytes8{0x40, 1}}) {
        auto bytes = DnsBuilder().question("x.test").raw(record).build();
        auto response = DnsParser::parseResponse(bytes);
        ASSERT_TRUE(response) << "the question itself is fine";
        EXPECT_TRUE(response->addresses.empty());
    }

    Bytes8 longLabel;
    longLabel.push_back(64);
    longLabel.insert(longLabel.end(), 64, 'a');
    longLabel.push_back(0);
    Bytes8 withLongLabel = DnsBuilder().build();
    withLongLabel[5] = 1;  // one question
    withLongLabel.insert(withLongLabel.end(), longLabel.begin(), longLabel.end());
    withLongLabel.insert(withLongLabel.end(), {0, 1, 0, 1});
    EXPECT_FALSE(DnsParser::parseResponse(withLongLabel));

    std::string longName;
    for (int i = 0; i < 5; ++i) longName += std::string(60, 'b') + ".";
    EXPECT_FALSE(DnsParser::parseResponse(DnsBuilder().question(longName + "test").build()));

    // Hundreds of answers: only the first ones are read.
    DnsBuilder many;
    many.question("many.test");
    for (int i = 0; i < 600; ++i) many.address("many.test", {10, 0, static_cast<std::uint8_t>(i / 256), static_cast<std::uint8_t>(i)});
    EXPECT_EQ(DnsParser::parseResponse(many.build())->addresses.size(), DnsParser::maximumAnswers);

    // Cut inside the third record: the first two stay.
    auto cut = DnsBuilder().question("c.test").address("c.test", {1, 1, 1, 1}).address("c.test", {2, 2, 2, 2})
                   .address("c.test", {3, 3, 3, 3}).build();
    cut.resize(cut.size() - 3);
    EXPECT_EQ(DnsParser::parseResponse(cut)->addresses.size(), 2u);

    // Queries and failed answers say nothing about names.
    EXPECT_FALSE(DnsParser::parseResponse(DnsBuilder(0x0100).question("q.test").build()));
    EXPECT_FALSE(DnsParser::parseResponse(DnsBuilder(0x8183).question("nx.test").build()));
    // A name with bytes no host name has is refused rather than passed on.
    EXPECT_FALSE(DnsParser::parseResponse(DnsBuilder().question("bad\x01name.test").build()));
}

TEST(DnsParser, TcpPayloadCarriesTheMessageAfterItsLength) {
    const Bytes8 payload{0, 3, 7, 8, 9, 10};
    auto message = DnsParser::messageInTcpPayload(payload);
    EXPECT_EQ(Bytes8(message.begin(), message.end()), (Bytes8{7, 8, 9}));
    EXPECT_TRUE(DnsParser::messageInTcpPayload(Bytes8{0}).empty());
}

}  // namespace
}  // namespace quillfort

TEST(ExecRecord, KeepsOnlyTheArgumentsItHoldsWhole) {
    using namespace std::string_view_literals;
    const struct {
        std::string_view recorded;
        std::vector<std::string> expected;
    } cases[] = {
        {"/usr/bin/python3\0/opt/a.py\0--x\0"sv, {"/usr/bin/python3", "/opt/a.py", "--x"}},
        {"/usr/bin/python3\0/opt/long-scri"sv, {"/usr/bin/python3"}},  // cut short by the record's end
        {"\0\0"sv, {"", ""}},
        {""sv, {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(quillfort::BpfSocketOwners::recordedArguments(c.recorded), c.expected) << c.recorded.size();
}
