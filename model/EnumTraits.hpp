// Raw-string enumerations: every enum of the system lists its values once, in
// their declared order, with the raw string that is also its JSON form.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace quillfort {

// Specialise with `static constexpr std::array<std::pair<E, std::string_view>, N> entries`
// listing every value in the order of `allCases`.
template <class E>
struct EnumTraits;

template <class E>
concept RawStringEnum = requires { EnumTraits<E>::entries; };

template <RawStringEnum E>
[[nodiscard]] constexpr std::string_view rawValue(E value) noexcept {
    for (const auto& [candidate, raw] : EnumTraits<E>::entries) {
        if (candidate == value) return raw;
    }
    return {};
}

// The value whose raw string is exactly `raw` (case-sensitive); nothing otherwise.
template <RawStringEnum E>
[[nodiscard]] constexpr std::optional<E> fromRawValue(std::string_view raw) noexcept {
    for (const auto& [candidate, text] : EnumTraits<E>::entries) {
        if (text == raw) return candidate;
    }
    return std::nullopt;
}

template <RawStringEnum E>
[[nodiscard]] constexpr auto allCases() noexcept {
    std::array<E, EnumTraits<E>::entries.size()> values{};
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = EnumTraits<E>::entries[i].first;
    return values;
}

// Position in `allCases`, used where two enumerations correspond by position.
template <RawStringEnum E>
[[nodiscard]] constexpr std::size_t caseIndex(E value) noexcept {
    for (std::size_t i = 0; i < EnumTraits<E>::entries.size(); ++i) {
        if (EnumTraits<E>::entries[i].first == value) return i;
    }
    return 0;
}

// Readable test failure messages.
template <RawStringEnum E>
std::ostream& operator<<(std::ostream& out, E value) {
    return out << rawValue(value);
}

}  // namespace quillfort
