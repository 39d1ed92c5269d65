// Changes to the shared rule snapshot that keep every other writer's change:
// each edit holds the snapshot's lock, reads the file as it is at that moment,
// applies itself to those rules and replaces the file whole and atomically.
// Edits name rules by id, so a rule another process added, changed or removed
// since the editor last looked is neither lost nor brought back.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "contracts/RuleSnapshotStore.hpp"
#include "model/Rule.hpp"
#include "platform/Error.hpp"

namespace quillfort {

// An exclusive advisory lock on ".<snapshot>.lock" beside the snapshot, held
// for its lifetime. Every writer of the snapshot in this system takes it, so a
// read-change-write never interleaves with another one (in this process or
// another). Blocks until the lock is free.
class RuleSnapshotLock {
public:
    [[nodiscard]] static Result<RuleSnapshotLock> acquire(const std::filesystem::path& snapshotURL);
    RuleSnapshotLock(RuleSnapshotLock&& other) noexcept;
    RuleSnapshotLock& operator=(RuleSnapshotLock&& other) noexcept;
    RuleSnapshotLock(const RuleSnapshotLock&) = delete;
    RuleSnapshotLock& operator=(const RuleSnapshotLock&) = delete;
    ~RuleSnapshotLock();

private:
    explicit RuleSnapshotLock(int descriptor) noexcept : descriptor_(descriptor) {}
    int descriptor_ = -1;
};

// A change to the rules of the snapshot as they are now. Returns whether it
// changed anything, or why it cannot apply (the text reaches the user).
using RuleChange = std::function<std::expected<bool, std::string>(std::vector<Rule>&)>;

struct RuleEditOutcome {
    RuleSnapshotEnvelope snapshot;  // what the file holds now
    bool written = false;           // false when the change changed nothing
};

class RuleSnapshotEditor {
public:
    // `fileSystem` must outlive the editor. Without a location every edit fails.
    RuleSnapshotEditor(FileSystem& fileSystem, std::optional<std::filesystem::path> snapshotURL);

    // Applies `change` under the lock to the snapshot on disk (none: an empty
    // one) and writes it, dated `now`, when it changed. A file that cannot be
    // read or decoded is left alone and reported, never replaced.
    [[nodiscard]] Result<RuleEditOutcome> edit(const RuleChange& change, Date now) const;

    [[nodiscard]] const std::optional<std::filesystem::path>& snapshotURL() const noexcept {
        return store_.snapshotURL();
    }

private:
    FileSystem* fileSystem_;
    RuleSnapshotStore store_;
};

// The edits the agent's views, its bus interface and the tool offer. Each
// fails with a readable text when its rule is not (or, for restore, already)
// in the snapshot.
namespace RuleChanges {
[[nodiscard]] RuleChange setEnabled(const Uuid& id, bool enabled);
[[nodiscard]] RuleChange setAction(const Uuid& id, RuleAction action);
[[nodiscard]] RuleChange remove(const Uuid& id);
// Undoes a removal: `rule` goes back at `index` (or last, when the snapshot
// is shorter now).
[[nodiscard]] RuleChange restore(const Rule& rule, std::size_t index);
// Removes every rule whose id is in `ids`; ids no longer present are ignored.
[[nodiscard]] RuleChange removeAll(std::vector<Uuid> ids);
// Removes every rule of scope session; `removed` receives them.
[[nodiscard]] RuleChange removeSessionRules(std::vector<Rule>& removed);
}  // namespace RuleChanges

// Finds the one rule whose id starts with `prefix` (any case, at least four
// characters; a whole id always matches). The error names the problem.
[[nodiscard]] std::expected<Rule, std::string> findRuleByIDPrefix(const std::vector<Rule>& rules,
                                                                  std::string_view prefix);

}  // namespace quillfort
