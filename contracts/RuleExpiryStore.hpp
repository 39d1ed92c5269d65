// When rules end. The rule itself has no such field and its JSON form stays
// as the filter reads it, so the agent keeps the ends of its timed rules in a
// file of its own, "rule-expiries.json" in the user's Quillfort configuration
// folder, and removes each rule from the snapshot when its time comes.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/JsonFileStore.hpp"
#include "model/Date.hpp"
#include "model/Uuid.hpp"

namespace quillfort {

struct RuleExpiry {
    Uuid ruleID;
    Date expiresAt{};
    bool operator==(const RuleExpiry&) const = default;
};

template <>
struct JsonFields<RuleExpiry> {
    static constexpr auto fields = std::tuple{
        jsonField("ruleID", &RuleExpiry::ruleID),
        jsonField("expiresAt", &RuleExpiry::expiresAt),
    };
};

struct RuleExpiries {
    std::vector<RuleExpiry> expiries;
    bool operator==(const RuleExpiries&) const = default;
};

template <>
struct JsonFields<RuleExpiries> {
    static constexpr auto fields = std::tuple{jsonField("expiries", &RuleExpiries::expiries)};
};

class RuleExpiryStore : public JsonFileStore<RuleExpiries> {
public:
    static constexpr std::string_view filename = "rule-expiries.json";

    RuleExpiryStore(FileSystem& fileSystem, std::optional<std::filesystem::path> location)
        : JsonFileStore(fileSystem, std::move(location)) {}

    // $XDG_CONFIG_HOME/quillfort/rule-expiries.json (an absolute XDG_CONFIG_HOME
    // only), else ~/.config/quillfort/rule-expiries.json; nothing without a home.
    [[nodiscard]] static std::optional<std::filesystem::path> standardLocation(
        const std::optional<std::string>& xdgConfigHome, const std::optional<std::filesystem::path>& home);

    // The stored ends by rule id; a missing file is no expiries.
    [[nodiscard]] Result<std::map<Uuid, Date>> loadMap() const;
    [[nodiscard]] VoidResult saveMap(const std::map<Uuid, Date>& expiries) const;
};

namespace RuleExpiryDuration {
// "90s", "15m", "2h", "1d": a positive whole number and one unit, at most ten
// years. Nothing for anything else.
[[nodiscard]] std::optional<std::chrono::seconds> parse(std::string_view text);
// What is left until `expiresAt`, seen at `now`, in one or two units:
// "in 59 min", "in 1 h 30 min", "in 2 d 4 h", "now".
[[nodiscard]] std::string remaining(Date expiresAt, Date now);
}  // namespace RuleExpiryDuration

}  // namespace quillfort
