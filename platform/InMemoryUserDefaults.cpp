#include "platform/InMemoryUserDefaults.hpp"

namespace quillfort {

std::optional<std::string> InMemoryUserDefaults::string(std::string_view key) const {
    std::lock_guard lock(mutex_);
    if (auto it = values_.find(key); it != values_.end()) return it->second;
    return std::nullopt;
}

std::optional<std::string> InMemoryUserDefaults::data(std::string_view key) const {
    return string(key);
}

VoidResult InMemoryUserDefaults::setString(std::string_view key, std::string_view value) {
    if (auto storable = checkStorable(key, value); !storable) return storable;
    std::lock_guard lock(mutex_);
    values_.insert_or_assign(std::string(key), std::string(value));
    return {};
}

VoidResult InMemoryUserDefaults::setData(std::string_view key, std::string_view bytes) {
    return setString(key, bytes);
}

VoidResult InMemoryUserDefaults::remove(std::string_view key) {
    std::lock_guard lock(mutex_);
    if (auto it = values_.find(key); it != values_.end()) values_.erase(it);
    return {};
}

}  // namespace quillfort
