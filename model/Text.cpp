#include "model/Text.hpp"

#include <algorithm>
#include <charconv>
#include <cstddef>

namespace quillfort::text {
namespace {

// Length of the white-space or line-break sequence starting at `pos`, 0 if none.
std::size_t blankAt(std::string_view s, std::size_t pos) noexcept {
    const auto c = static_cast<unsigned char>(s[pos]);
    if (c == ' ' || (c >= 0x09 && c <= 0x0D)) return 1;
    auto byte = [&](std::size_t i) { return i < s.size() ? static_cast<unsigned char>(s[i]) : 0u; };
    if (c == 0xC2 && (byte(pos + 1) == 0x85 || byte(pos + 1) == 0xA0)) return 2;
    if (c == 0xE1 && byte(pos + 1) == 0x9A && byte(pos + 2) == 0x80) return 3;
    if (c == 0xE2 && byte(pos + 1) == 0x80) {
        auto b = byte(pos + 2);
        if ((b >= 0x80 && b <= 0x8A) || b == 0xA8 || b == 0xA9 || b == 0xAF) return 3;
    }
    if (c == 0xE2 && byte(pos + 1) == 0x81 && byte(pos + 2) == 0x9F) return 3;
    if (c == 0xE3 && byte(pos + 1) == 0x80 && byte(pos + 2) == 0x80) return 3;
    return 0;
}

// Length of the blank sequence that ends right before `end`, 0 if none.
std::size_t blankBefore(std::string_view s, std::size_t end) noexcept {
    for (std::size_t len = 1; len <= 3 && len <= end; ++len) {
        if (blankAt(s, end - len) == len) return len;
    }
    return 0;
}

}  // namespace

std::string_view trimmed(std::string_view text) noexcept {
    std::size_t begin = 0;
    while (begin < text.size()) {
        auto n = blankAt(text, begin);
        if (n == 0) break;
        begin += n;
    }
    std::size_t end = text.size();
    while (end > begin) {
        auto n = blankBefore(text, end);
        if (n == 0) break;
        end -= n;
    }
    return text.substr(begin, end - begin);
}

std::string_view trimmedCharacters(std::string_view text, std::string_view characters) noexcept {
    auto begin = text.find_first_not_of(characters);
    if (begin == std::string_view::npos) return {};
    auto end = text.find_last_not_of(characters);
    return text.substr(begin, end - begin + 1);
}

std::string lowercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; });
    return out;
}

std::string removingAll(std::string_view text, std::string_view needle) {
    if (needle.empty()) return std::string(text);
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (true) {
        auto found = text.find(needle, pos);
        if (found == std::string_view::npos) break;
        out.append(text.substr(pos, found - pos));
        pos = found + needle.size();
    }
    out.append(text.substr(pos));
    return out;
}

std::vector<std::string_view> splitNonEmpty(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        auto next = text.find(separator, pos);
        if (next == std::string_view::npos) next = text.size();
        if (next > pos) pieces.push_back(text.substr(pos, next - pos));
        pos = next + 1;
    }
    return pieces;
}

std::string normalizedHost(std::string_view host) {
    return lowercased(trimmedCharacters(trimmed(host), "[]"));
}

std::optional<std::uint16_t> parseUInt16(std::string_view text) noexcept {
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
    std::uint16_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<std::int64_t> parseInt64(std::string_view text) noexcept {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
    std::uint64_t magnitude = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
    if (ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    if (negative) {
        if (magnitude > static_cast<std::uint64_t>(INT64_MAX) + 1) return std::nullopt;
        return static_cast<std::int64_t>(0 - magnitude);
    }
    if (magnitude > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<std::int64_t>(magnitude);
}

std::string_view lastPathComponent(std::string_view path) noexcept {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    auto slash = path.rfind('/');
    if (slash == std::string_view::npos || path.size() == 1) return path;
    return path.substr(slash + 1);
}

namespace {

// The length of the well-formed sequence at the start of `bytes`, or, negated,
// the length of its maximal ill-formed subpart (at least 1).
std::ptrdiff_t utf8SequenceAt(std::string_view bytes) noexcept {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;   // overlong
        if (lead == 0xED) high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;   // overlong
        if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
    } else {
        return -1;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (i >= bytes.size()) return -static_cast<std::ptrdiff_t>(i);
        const unsigned char next = byte(i);
        const bool fits = i == 1 ? (next >= low && next <= high) : (next >= 0x80 && next <= 0xBF);
        if (!fits) return -static_cast<std::ptrdiff_t>(i);
    }
    return static_cast<std::ptrdiff_t>(length);
}

}  // namespace

bool isValidUtf8(std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const auto length = utf8SequenceAt(bytes);
        if (length < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(length));
    }
    return true;
}

std::string validUtf8(std::string_view bytes) {
    if (isValidUtf8(bytes)) return std::string(bytes);
    static constexpr std::string_view replacement = "\xEF\xBF\xBD";
    std::string out;
    out.reserve(bytes.size() + 8);
    while (!bytes.empty()) {
        const auto length = utf8SequenceAt(bytes);
        if (length > 0) {
            out.append(bytes.substr(0, static_cast<std::size_t>(length)));
            bytes.remove_prefix(static_cast<std::size_t>(length));
        } else {
            out.append(replacement);
            bytes.remove_prefix(static_cast<std::size_t>(-length));
        }
    }
    return out;
}

}  // namespace quillfort::text
