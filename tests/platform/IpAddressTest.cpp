#include "platform/IpAddress.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

TEST(IpNetwork, ContainsByPrefixAcrossFamiliesAndMappedForms) {
    struct Case {
        const char* network;
        const char* address;
        bool contained;
    };
    const Case cases[] = {
        {"10.0.0.0/8", "10.255.1.2", true},
        {"10.0.0.0/8", "11.0.0.1", false},
        {"10.1.2.3/8", "10.9.9.9", true},  // host bits are cleared
        {"192.168.1.7", "192.168.1.7", true},
        {"192.168.1.7", "192.168.1.8", false},
        {"0.0.0.0/0", "8.8.8.8", true},
        {"0.0.0.0/0", "::1", false},
        {"10.0.0.0/8", "::ffff:10.1.1.1", true},  // a mapped address is its IPv4 address
        {"::ffff:10.0.0.0/104", "10.3.3.3", true},
        {"2001:db8::/32", "2001:db8:ffff::1", true},
        {"2001:db8::/33", "2001:db8:8000::1", false},
        {"fe80::1/128", "fe80::1", true},
    };
    for (const auto& c : cases) {
        auto network = IpNetwork::parse(c.network);
        auto address = IpAddress::parse(c.address);
        ASSERT_TRUE(network && address) << c.network << " " << c.address;
        EXPECT_EQ(network->contains(*address), c.contained) << c.network << " " << c.address;
    }
}

TEST(IpNetwork, RefusesWhatIsNotANetwork) {
    for (const char* text : {"", "10.0.0.0/33", "::/129", "10.0.0.0/", "10.0.0.0/8x", "10.0.0/8", "[::1]", "host.example"})
        EXPECT_FALSE(IpNetwork::parse(text)) << text;
}

TEST(IpAddress, TextRoundTripAndLoopback) {
    EXPECT_EQ(IpAddress::parse("2001:DB8::1")->toString(), "2001:db8::1");
    EXPECT_TRUE(IpAddress::parse("127.0.0.53")->isLoopback());
    EXPECT_TRUE(IpAddress::parse("::ffff:127.0.0.1")->isLoopback());
    EXPECT_FALSE(IpAddress::parse("::2")->isLoopback());
    EXPECT_FALSE(IpAddress::fromBytes(std::vector<std::uint8_t>(5)));
}

}  // namespace
}  // namespace quillfort
