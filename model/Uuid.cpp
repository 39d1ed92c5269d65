#include "model/Uuid.hpp"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>

namespace quillfort {
namespace {

int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) noexcept {
    if (text.size() != 36) return std::nullopt;
    Uuid uuid;
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        int high = hexValue(text[i]);
        int low = hexValue(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        uuid.bytes[byte++] = static_cast<std::uint8_t>(high * 16 + low);
        i += 2;
    }
    return uuid;
}

Uuid Uuid::random() {
    thread_local boost::uuids::random_generator generator;
    boost::uuids::uuid value = generator();
    Uuid uuid;
    std::copy(value.begin(), value.end(), uuid.bytes.begin());
    return uuid;
}

Uuid Uuid::unique() {
    thread_local boost::uuids::random_generator_mt19937 generator;
    boost::uuids::uuid value = generator();
    Uuid uuid;
    std::copy(value.begin(), value.end(), uuid.bytes.begin());
    return uuid;
}

std::string Uuid::uppercaseString() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0xF]);
    }
    return text;
}

bool Uuid::isNil() const noexcept {
    for (auto b : bytes)
        if (b != 0) return false;
    return true;
}

std::ostream& operator<<(std::ostream& out, const Uuid& uuid) { return out << uuid.uppercaseString(); }

std::shared_ptr<UuidSource> randomUuidSource() {
    static const auto source = std::make_shared<RandomUuidSource>();
    return source;
}

}  // namespace quillfort
