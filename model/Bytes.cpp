#include "model/Bytes.hpp"

#include <array>

namespace quillfort {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int, 256> makeDecodeTable() {
    std::array<int, 256> table{};
    for (auto& entry : table) entry = -1;
    for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = i;
    return table;
}
constexpr auto kDecode = makeDecodeTable();

}  // namespace

std::string Bytes::base64() const {
    std::string out((value.size() + 2) / 3 * 4, '=');
    std::size_t o = 0;
    std::size_t i = 0;
    for (; i + 2 < value.size(); i += 3) {
        const std::uint32_t n = (value[i] << 16) | (value[i + 1] << 8) | value[i + 2];
        out[o++] = kAlphabet[(n >> 18) & 63];
        out[o++] = kAlphabet[(n >> 12) & 63];
        out[o++] = kAlphabet[(n >> 6) & 63];
        out[o++] = kAlphabet[n & 63];
    }
    if (const std::size_t rest = value.size() - i; rest > 0) {
        std::uint32_t n = value[i] << 16;
        if (rest == 2) n |= value[i + 1] << 8;
        out[o++] = kAlphabet[(n >> 18) & 63];
        out[o++] = kAlphabet[(n >> 12) & 63];
        if (rest == 2) out[o] = kAlphabet[(n >> 6) & 63];
    }
    return out;
}

std::optional<Bytes> Bytes::fromBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    if (text.empty()) return Bytes{};
    const std::size_t lastQuantum = text.size() - 4;
    std::vector<std::uint8_t> out(text.size() / 4 * 3);
    std::size_t o = 0;
    auto at = [&](std::size_t i) { return kDecode[static_cast<unsigned char>(text[i])]; };
    // Every quantum but the last has four alphabet characters; '=' maps to -1 here too.
    for (std::size_t i = 0; i < lastQuantum; i += 4) {
        const int a = at(i), b = at(i + 1), c = at(i + 2), d = at(i + 3);
        if ((a | b | c | d) < 0) return std::nullopt;
        const std::uint32_t n = (a << 18) | (b << 12) | (c << 6) | d;
        out[o++] = static_cast<std::uint8_t>(n >> 16);
        out[o++] = static_cast<std::uint8_t>(n >> 8);
        out[o++] = static_cast<std::uint8_t>(n);
    }
    // Padding may only close the final quantum, in its last one or two places.
    const char third = text[lastQuantum + 2];
    const char fourth = text[lastQuantum + 3];
    const int padding = fourth != '=' ? 0 : third == '=' ? 2 : 1;
    if (padding == 0 && third == '=') return std::nullopt;
    const int a = at(lastQuantum), b = at(lastQuantum + 1);
    const int c = padding == 2 ? 0 : at(lastQuantum + 2);
    const int d = padding >= 1 ? 0 : at(lastQuantum + 3);
    if ((a | b | c | d) < 0) return std::nullopt;
    const std::uint32_t n = (a << 18) | (b << 12) | (c << 6) | d;
    out[o++] = static_cast<std::uint8_t>(n >> 16);
    if (padding < 2) out[o++] = static_cast<std::uint8_t>(n >> 8);
    if (padding < 1) out[o++] = static_cast<std::uint8_t>(n);
    out.resize(o);
    return Bytes(std::move(out));
}

std::ostream& operator<<(std::ostream& out, const Bytes& bytes) { return out << bytes.base64(); }

}  // namespace quillfort
