// Opaque byte strings (audit tokens) and their standard base64 text form.
#pragma once

#include <compare>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace quillfort {

struct Bytes {
    std::vector<std::uint8_t> value;

    Bytes() = default;
    Bytes(std::initializer_list<std::uint8_t> list) : value(list) {}
    explicit Bytes(std::vector<std::uint8_t> v) : value(std::move(v)) {}

    [[nodiscard]] std::size_t size() const noexcept { return value.size(); }
    [[nodiscard]] bool empty() const noexcept { return value.empty(); }

    // Standard alphabet with padding.
    [[nodiscard]] std::string base64() const;
    // Strict: standard alphabet, length a multiple of four, padding only at the end.
    [[nodiscard]] static std::optional<Bytes> fromBase64(std::string_view text);

    auto operator<=>(const Bytes&) const = default;
    bool operator==(const Bytes&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Bytes& bytes);

}  // namespace quillfort
