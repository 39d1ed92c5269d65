#include "contracts/RuleExpiryStore.hpp"

#include <charconv>

#include <fmt/format.h>

namespace quillfort {

std::optional<std::filesystem::path> RuleExpiryStore::standardLocation(
    const std::optional<std::string>& xdgConfigHome, const std::optional<std::filesystem::path>& home) {
    // Relative values are invalid for this variable and are ignored.
    if (xdgConfigHome && std::filesystem::path(*xdgConfigHome).is_absolute())
        return std::filesystem::path(*xdgConfigHome) / "quillfort" / filename;
    if (home) return *home / ".config" / "quillfort" / filename;
    return std::nullopt;
}

Result<std::map<Uuid, Date>> RuleExpiryStore::loadMap() const {
    auto stored = loadIfPresent();
    if (!stored) return std::unexpected(std::move(stored.error()));
    std::map<Uuid, Date> out;
    if (*stored)
        for (const auto& entry : (**stored).expiries) out[entry.ruleID] = entry.expiresAt;
    return out;
}

VoidResult RuleExpiryStore::saveMap(const std::map<Uuid, Date>& expiries) const {
    RuleExpiries value;
    for (const auto& [id, at] : expiries) value.expiries.push_back({id, at});
    return save(value);
}

namespace RuleExpiryDuration {

std::optional<std::chrono::seconds> parse(std::string_view text) {
    if (text.size() < 2) return std::nullopt;
    std::int64_t count = 0;
    const auto digits = text.substr(0, text.size() - 1);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), count);
    if (error != std::errc() || end != digits.data() + digits.size() || count <= 0) return std::nullopt;
    std::int64_t unit = 0;
    switch (text.back()) {
        case 's': unit = 1; break;
        case 'm': unit = 60; break;
        case 'h': unit = 3600; break;
        case 'd': unit = 86400; break;
        default: return std::nullopt;
    }
    constexpr std::int64_t tenYears = 3650LL * 86400;
    if (count > tenYears / unit) return std::nullopt;
    return std::chrono::seconds(count * unit);
}

std::string remaining(Date expiresAt, Date now) {
    if (expiresAt <= now) return "now";
    const auto left = (expiresAt - now).count();
    if (left < 60) return fmt::format("in {} s", left);
    // Whole minutes, rounded up: a rule given an hour reads "in 1 h", not "in 59 min".
    const auto inMinutes = (left + 59) / 60;
    const auto days = inMinutes / 1440, hours = inMinutes % 1440 / 60, minutes = inMinutes % 60;
    if (days > 0) return hours > 0 ? fmt::format("in {} d {} h", days, hours) : fmt::format("in {} d", days);
    if (hours > 0) return minutes > 0 ? fmt::format("in {} h {} min", hours, minutes) : fmt::format("in {} h", hours);
    return fmt::format("in {} min", minutes);
}

}  // namespace RuleExpiryDuration

}  // namespace quillfort
