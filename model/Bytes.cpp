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
    std::string out;
    out.reserve((value.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < value.size(); i += 3) {
        std::uint32_t n = (value[i] << 16) | (value[i + 1] << 8) | value[i + 2];
        out.push_back(kAlphabet[(n >> 18) & 63]);
        out.push_back(kAlphabet[(n >> 12) & 63]);
        out.push_back(kAlphabet[(n >> 6) & 63]);
        out.push_back(kAlphabet[n & 63]);
    }
    if (std::size_t rest = value.size() - i; rest > 0) {
        std::uint32_t n = value[i] << 16;
        if (rest == 2) n |= value[i + 1] << 8;
        out.push_back(kAlphabet[(n >> 18) & 63]);
        out.push_back(kAlphabet[(n >> 12) & 63]);
        out.push_back(rest == 2 ? kAlphabet[(n >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

std::optional<Bytes> Bytes::fromBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    Bytes bytes;
    bytes.value.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int v[4];
        int padding = 0;
        for (int k = 0; k < 4; ++k) {
            char c = text[i + k];
            if (c == '=') {
                // Padding may only close the final quantum, in its last one or two places.
                if (!last || k < 2) return std::nullopt;
                ++padding;
                v[k] = 0;
                continue;
            }
            if (padding > 0) return std::nullopt;
            v[k] = kDecode[static_cast<unsigned char>(c)];
            if (v[k] < 0) return std::nullopt;
        }
        std::uint32_t n = (v[0] << 18) | (v[1] << 12) | (v[2] << 6) | v[3];
        bytes.value.push_back(static_cast<std::uint8_t>(n >> 16));
        if (padding < 2) bytes.value.push_back(static_cast<std::uint8_t>(n >> 8));
        if (padding < 1) bytes.value.push_back(static_cast<std::uint8_t>(n));
    }
    return bytes;
}

std::ostream& operator<<(std::ostream& out, const Bytes& bytes) { return out << bytes.base64(); }

}  // namespace quillfort
