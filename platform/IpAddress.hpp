// IPv4 and IPv6 addresses, networks and endpoints as the filter and the
// agent's peer checks compare them: fixed-size values, parsed from and written
// as the usual text, with IPv4-mapped IPv6 addresses folded to IPv4.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>

namespace quillfort {

struct IpAddress {
    enum class Family : std::uint8_t { v4, v6 };

    Family family = Family::v4;
    // Network byte order; an IPv4 address uses the first four bytes, the rest stay zero.
    std::array<std::uint8_t, 16> bytes{};

    // Four or sixteen bytes in network order; nothing for any other length.
    [[nodiscard]] static std::optional<IpAddress> fromBytes(std::span<const std::uint8_t> raw) noexcept;
    // Dotted IPv4 or IPv6 text (brackets and a zone are not accepted).
    [[nodiscard]] static std::optional<IpAddress> parse(std::string_view text) noexcept;

    [[nodiscard]] std::size_t length() const noexcept { return family == Family::v4 ? 4 : 16; }
    [[nodiscard]] std::span<const std::uint8_t> raw() const noexcept { return {bytes.data(), length()}; }
    // An IPv4-mapped IPv6 address (::ffff:a.b.c.d) as the IPv4 address it carries.
    [[nodiscard]] IpAddress unmapped() const noexcept;
    [[nodiscard]] bool isLoopback() const noexcept;
    [[nodiscard]] bool isUnspecified() const noexcept;
    [[nodiscard]] std::string toString() const;

    auto operator<=>(const IpAddress&) const = default;
    bool operator==(const IpAddress&) const = default;
};

// A network in CIDR form. Bits past the prefix are cleared when it is made.
struct IpNetwork {
    IpAddress address;
    std::uint8_t prefixLength = 0;

    // "10.0.0.0/8", "2001:db8::/32", or a bare address (a network of one).
    // Nothing for a prefix longer than the family allows or any other text.
    [[nodiscard]] static std::optional<IpNetwork> parse(std::string_view text) noexcept;
    [[nodiscard]] static IpNetwork of(const IpAddress& address, std::uint8_t prefixLength) noexcept;
    [[nodiscard]] bool contains(const IpAddress& candidate) const noexcept;
    [[nodiscard]] std::string toString() const;

    bool operator==(const IpNetwork&) const = default;
};

struct IpEndpoint {
    IpAddress address;
    std::uint16_t port = 0;

    auto operator<=>(const IpEndpoint&) const = default;
    bool operator==(const IpEndpoint&) const = default;
};

std::ostream& operator<<(std::ostream& out, const IpAddress& address);

}  // namespace quillfort

template <>
struct std::hash<quillfort::IpAddress> {
    std::size_t operator()(const quillfort::IpAddress& address) const noexcept {
        std::size_t h = static_cast<std::size_t>(address.family) * 1099511628211ull;
        for (auto b : address.bytes) h = (h ^ b) * 1099511628211ull;
        return h;
    }
};
