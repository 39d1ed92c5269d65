// 128-bit identifiers of prompts, rules and events. Written as canonical
// 36-character text with upper-case hex digits; read in either case.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace quillfort {

struct Uuid {
    std::array<std::uint8_t, 16> bytes{};

    // Exactly 8-4-4-4-12 hex digits with hyphens, either case; nothing otherwise.
    [[nodiscard]] static std::optional<Uuid> parse(std::string_view text) noexcept;
    // A version-4 random identifier, from the system's entropy (one system
    // call each): for identifiers someone else must not guess.
    [[nodiscard]] static Uuid random();
    // A version-4 identifier from a generator each thread seeds once from the
    // system's entropy: unique, not secret, and without a system call; for
    // records made at the rate of new flows.
    [[nodiscard]] static Uuid unique();

    [[nodiscard]] std::string uppercaseString() const;
    [[nodiscard]] bool isNil() const noexcept;

    auto operator<=>(const Uuid&) const = default;
    bool operator==(const Uuid&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Uuid& uuid);

// Where new identifiers come from; tests inject a predictable sequence.
class UuidSource {
public:
    virtual ~UuidSource() = default;
    [[nodiscard]] virtual Uuid next() = 0;
};

class RandomUuidSource final : public UuidSource {
public:
    [[nodiscard]] Uuid next() override { return Uuid::random(); }
};

[[nodiscard]] std::shared_ptr<UuidSource> randomUuidSource();

}  // namespace quillfort

template <>
struct std::hash<quillfort::Uuid> {
    std::size_t operator()(const quillfort::Uuid& uuid) const noexcept {
        std::size_t h = 1469598103934665603ull;
        for (auto b : uuid.bytes) h = (h ^ b) * 1099511628211ull;
        return h;
    }
};
