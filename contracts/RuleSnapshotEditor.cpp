#include "contracts/RuleSnapshotEditor.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

namespace quillfort {

// ---------------------------------------------------------------------------
// The lock

Result<RuleSnapshotLock> RuleSnapshotLock::acquire(const std::filesystem::path& snapshotURL) {
    // Hidden, so that folder watchers (the filter's, the agent's) pass over it.
    const auto path = snapshotURL.parent_path() / ("." + snapshotURL.filename().string() + ".lock");
    // O_NOFOLLOW: the shared folder is the user's own, but a link planted there
    // must not make the agent create or lock a file somewhere else.
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) return std::unexpected(Error::fromErrno(errno, path.string()));
    while (::flock(descriptor, LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        const int err = errno;
        ::close(descriptor);
        return std::unexpected(Error::fromErrno(err, path.string()));
    }
    return RuleSnapshotLock(descriptor);
}

RuleSnapshotLock::RuleSnapshotLock(RuleSnapshotLock&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

RuleSnapshotLock& RuleSnapshotLock::operator=(RuleSnapshotLock&& other) noexcept {
    if (this != &other) {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
}

RuleSnapshotLock::~RuleSnapshotLock() {
    if (descriptor_ >= 0) ::close(descriptor_);  // closing releases the lock
}

// ---------------------------------------------------------------------------
// The editor

RuleSnapshotEditor::RuleSnapshotEditor(FileSystem& fileSystem, std::optional<std::filesystem::path> snapshotURL)
    : fileSystem_(&fileSystem), store_(fileSystem, std::move(snapshotURL)) {}

Result<RuleEditOutcome> RuleSnapshotEditor::edit(const RuleChange& change, Date now) const {
    const auto& location = store_.snapshotURL();
    if (!location) return std::unexpected(Error::withMessage("No shared folder is known, so there is no rule snapshot."));
    if (auto directory = location->parent_path(); !directory.empty()) {
        if (auto made = fileSystem_->createDirectories(directory); !made) return std::unexpected(made.error());
    }
    auto lock = RuleSnapshotLock::acquire(*location);
    if (!lock) return std::unexpected(lock.error());

    auto loaded = store_.load(now);
    if (!loaded) {
        return std::unexpected(Error::withMessage(
            fmt::format("{} cannot be read, so it was left as it is: {}", location->string(), loaded.error().description)));
    }
    RuleEditOutcome outcome{std::move(*loaded), false};
    auto changed = change(outcome.snapshot.rules);
    if (!changed) return std::unexpected(Error::withMessage(changed.error()));
    if (!*changed) return outcome;
    outcome.snapshot.generatedAt = now;
    if (auto saved = store_.save(outcome.snapshot); !saved) return std::unexpected(saved.error());
    outcome.written = true;
    return outcome;
}

// ---------------------------------------------------------------------------
// The edits

namespace {

std::string missing(const Uuid& id) {
    return fmt::format("No rule {} in the rule snapshot (it may have been deleted meanwhile).", id.uppercaseString());
}

std::vector<Rule>::iterator findRule(std::vector<Rule>& rules, const Uuid& id) {
    return std::ranges::find_if(rules, [&](const Rule& rule) { return rule.id == id; });
}

}  // namespace

namespace RuleChanges {

RuleChange setEnabled(const Uuid& id, bool enabled) {
    return [id, enabled](std::vector<Rule>& rules) -> std::expected<bool, std::string> {
        const auto rule = findRule(rules, id);
        if (rule == rules.end()) return std::unexpected(missing(id));
        if (rule->enabled == enabled) return false;
        rule->enabled = enabled;
        return true;
    };
}

RuleChange setAction(const Uuid& id, RuleAction action) {
    return [id, action](std::vector<Rule>& rules) -> std::expected<bool, std::string> {
        const auto rule = findRule(rules, id);
        if (rule == rules.end()) return std::unexpected(missing(id));
        if (rule->action == action) return false;
        rule->action = action;
        return true;
    };
}

RuleChange remove(const Uuid& id) {
    return [id](std::vector<Rule>& rules) -> std::expected<bool, std::string> {
        const auto rule = findRule(rules, id);
        if (rule == rules.end()) return std::unexpected(missing(id));
        rules.erase(rule);
        return true;
    };
}

RuleChange restore(const Rule& rule, std::size_t index) {
    return [rule, index](std::vector<Rule>& rules) -> std::expected<bool, std::string> {
        if (findRule(rules, rule.id) != rules.end())
            return std::unexpected(fmt::format("Rule {} is in the rule snapshot again.", rule.id.uppercaseString()));
        rules.insert(rules.begin() + static_cast<std::ptrdiff_t>(std::min(index, rules.size())), rule);
        return true;
    };
}

RuleChange removeAll(std::vector<Uuid> ids) {
    return [ids = std::move(ids)](std::vector<Rule>& rules) -> std::expected<bool, std::string> {
        return std::erase_if(rules, [&](const Rule& rule) { return std::ranges::find(ids, rule.id) != ids.end(); }) >
               0;
    };
}

RuleChange removeSessionRules(std::vector<Rule>& removed) {
    return [&removed](std::vector<Rule>& rules) -> std::expected<bool, std::string> {
        removed.clear();
        std::ranges::copy_if(rules, std::back_inserter(removed),
                             [](const Rule& rule) { return rule.scope == RuleScope::session; });
        std::erase_if(rules, [](const Rule& rule) { return rule.scope == RuleScope::session; });
        return !removed.empty();
    };
}

}  // namespace RuleChanges

std::expected<Rule, std::string> findRuleByIDPrefix(const std::vector<Rule>& rules, std::string_view prefix) {
    std::string wanted;
    for (const char c : prefix) wanted += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (wanted.size() < 4) return std::unexpected(fmt::format("\"{}\" is too short for a rule id: give at least four characters.", prefix));
    const Rule* found = nullptr;
    for (const auto& rule : rules) {
        if (!rule.id.uppercaseString().starts_with(wanted)) continue;
        if (found) return std::unexpected(fmt::format("\"{}\" names more than one rule; give more of its id.", prefix));
        found = &rule;
    }
    if (!found) return std::unexpected(fmt::format("No rule has an id starting with \"{}\".", prefix));
    return *found;
}

}  // namespace quillfort
