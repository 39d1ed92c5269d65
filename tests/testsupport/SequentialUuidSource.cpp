#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort::testing {

Uuid uuidNumber(std::uint64_t number) {
    Uuid uuid;
    for (std::size_t i = 0; i < 8; ++i) uuid.bytes[15 - i] = static_cast<std::uint8_t>(number >> (8 * i));
    return uuid;
}

}  // namespace quillfort::testing
