// User defaults that live only as long as the object: for tests, and for a
// user without a home directory to keep a defaults file in.
#pragma once

#include <map>
#include <mutex>

#include "platform/UserDefaults.hpp"

namespace quillfort {

class InMemoryUserDefaults final : public UserDefaults {
public:
    [[nodiscard]] std::optional<std::string> string(std::string_view key) const override;
    [[nodiscard]] std::optional<std::string> data(std::string_view key) const override;
    [[nodiscard]] VoidResult setString(std::string_view key, std::string_view value) override;
    [[nodiscard]] VoidResult setData(std::string_view key, std::string_view bytes) override;
    [[nodiscard]] VoidResult remove(std::string_view key) override;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::string, std::less<>> values_;
};

}  // namespace quillfort
