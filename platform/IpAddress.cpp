#include "platform/IpAddress.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace quillfort {

namespace {

constexpr std::array<std::uint8_t, 12> mappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

}  // namespace

std::optional<IpAddress> IpAddress::fromBytes(std::span<const std::uint8_t> raw) noexcept {
    IpAddress address;
    if (raw.size() == 4) {
        address.family = Family::v4;
    } else if (raw.size() == 16) {
        address.family = Family::v6;
    } else {
        return std::nullopt;
    }
    std::copy(raw.begin(), raw.end(), address.bytes.begin());
    return address;
}

std::optional<IpAddress> IpAddress::parse(std::string_view text) noexcept {
    // inet_pton needs a terminated string; anything longer than an IPv6 text is not one.
    char buffer[INET6_ADDRSTRLEN + 1]{};
    if (text.empty() || text.size() >= sizeof buffer) return std::nullopt;
    std::memcpy(buffer, text.data(), text.size());
    IpAddress address;
    if (::inet_pton(AF_INET, buffer, address.bytes.data()) == 1) return address;
    if (::inet_pton(AF_INET6, buffer, address.bytes.data()) == 1) {
        address.family = Family::v6;
        return address;
    }
    return std::nullopt;
}

IpAddress IpAddress::unmapped() const noexcept {
    if (family != Family::v6 || !std::equal(mappedPrefix.begin(), mappedPrefix.end(), bytes.begin())) return *this;
    IpAddress v4;
    std::copy(bytes.begin() + 12, bytes.end(), v4.bytes.begin());
    return v4;
}

bool IpAddress::isLoopback() const noexcept {
    const IpAddress plain = unmapped();
    if (plain.family == Family::v4) return plain.bytes[0] == 127;
    static constexpr std::array<std::uint8_t, 16> loopback6{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return plain.bytes == loopback6;
}

bool IpAddress::isUnspecified() const noexcept {
    return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == 0; });
}

std::string IpAddress::toString() const {
    char buffer[INET6_ADDRSTRLEN]{};
    ::inet_ntop(family == Family::v4 ? AF_INET : AF_INET6, bytes.data(), buffer, sizeof buffer);
    return buffer;
}

IpNetwork IpNetwork::of(const IpAddress& address, std::uint8_t prefixLength) noexcept {
    IpNetwork network{address, std::min<std::uint8_t>(prefixLength, static_cast<std::uint8_t>(address.length() * 8))};
    for (std::size_t bit = network.prefixLength; bit < 128; ++bit)
        network.address.bytes[bit / 8] &= static_cast<std::uint8_t>(~(0x80u >> (bit % 8)));
    return network;
}

std::optional<IpNetwork> IpNetwork::parse(std::string_view text) noexcept {
    const auto slash = text.find('/');
    auto address = IpAddress::parse(text.substr(0, slash));
    if (!address) return std::nullopt;
    const auto maximum = static_cast<unsigned>(address->length() * 8);
    unsigned prefix = maximum;
    if (slash != std::string_view::npos) {
        const auto digits = text.substr(slash + 1);
        auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), prefix);
        if (digits.empty() || error != std::errc{} || end != digits.data() + digits.size() || prefix > maximum)
            return std::nullopt;
    }
    // ::ffff:10.0.0.0/104 names the same addresses as 10.0.0.0/8, and flows carry unmapped addresses.
    if (address->unmapped().family == IpAddress::Family::v4 && address->family == IpAddress::Family::v6 &&
        prefix >= 96)
        return of(address->unmapped(), static_cast<std::uint8_t>(prefix - 96));
    return of(*address, static_cast<std::uint8_t>(prefix));
}

bool IpNetwork::contains(const IpAddress& candidate) const noexcept {
    const IpAddress plain = candidate.unmapped();
    if (plain.family != address.family) return false;
    return of(plain, prefixLength).address == address;
}

std::string IpNetwork::toString() const { return address.toString() + "/" + std::to_string(prefixLength); }

std::ostream& operator<<(std::ostream& out, const IpAddress& address) { return out << address.toString(); }

}  // namespace quillfort
