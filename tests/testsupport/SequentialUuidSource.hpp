// Predictable identifiers for tests: 00000000-0000-0000-0000-000000000001,
// ...002 and so on, so expected rules and responses can be written out whole.
#pragma once

#include <cstdint>

#include "model/Uuid.hpp"

namespace quillfort::testing {

// The identifier whose last eight bytes hold `number` (big-endian).
[[nodiscard]] Uuid uuidNumber(std::uint64_t number);

class SequentialUuidSource final : public UuidSource {
public:
    // The first call of next() returns uuidNumber(first).
    explicit SequentialUuidSource(std::uint64_t first = 1) : next_(first) {}

    [[nodiscard]] Uuid next() override { return uuidNumber(next_++); }
    // The number the next identifier will carry.
    [[nodiscard]] std::uint64_t upcoming() const noexcept { return next_; }

private:
    std::uint64_t next_;
};

}  // namespace quillfort::testing
