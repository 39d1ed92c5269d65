// Small text helpers shared by every rule that trims, folds or splits what a
// user, an environment or a peer handed us.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillfort::text {

// Trims white space and line breaks from both ends (ASCII blanks and controls
// \t \n \v \f \r, plus U+0085, U+00A0, U+1680, U+2000-U+200A, U+2028, U+2029,
// U+202F, U+205F and U+3000 in UTF-8).
[[nodiscard]] std::string_view trimmed(std::string_view text) noexcept;

// Trims every leading and trailing occurrence of any of `characters`.
[[nodiscard]] std::string_view trimmedCharacters(std::string_view text, std::string_view characters) noexcept;

// ASCII lower-casing; other bytes are kept as they are.
[[nodiscard]] std::string lowercased(std::string_view text);

// Removes every occurrence of `needle`.
[[nodiscard]] std::string removingAll(std::string_view text, std::string_view needle);

// Splits at `separator`, dropping empty pieces.
[[nodiscard]] std::vector<std::string_view> splitNonEmpty(std::string_view text, char separator);

// A host as automation and bypass rules compare it: trimmed, then "[" and "]"
// trimmed from both ends (bracketed IPv6 literals), then lower-cased.
[[nodiscard]] std::string normalizedHost(std::string_view host);

// Decimal unsigned 16-bit number, an optional leading "+" accepted; nothing for
// anything else (empty, signs other than "+", out of range, trailing text).
[[nodiscard]] std::optional<std::uint16_t> parseUInt16(std::string_view text) noexcept;

// Decimal signed 64-bit number with an optional leading "+" or "-".
[[nodiscard]] std::optional<std::int64_t> parseInt64(std::string_view text) noexcept;

// The last path component ("curl" for /usr/bin/curl); the text itself when it has no "/".
[[nodiscard]] std::string_view lastPathComponent(std::string_view path) noexcept;

// Whether `bytes` is well-formed UTF-8 (no overlong forms, surrogates or code
// points above U+10FFFF).
[[nodiscard]] bool isValidUtf8(std::string_view bytes) noexcept;

// `bytes` with every ill-formed UTF-8 sequence replaced by U+FFFD, one for each
// maximal ill-formed subpart (the usual Unicode practice); valid text comes back
// unchanged. For bytes from outside (another process's arguments, paths) that
// must travel in JSON, which is UTF-8 only.
[[nodiscard]] std::string validUtf8(std::string_view bytes);

}  // namespace quillfort::text
