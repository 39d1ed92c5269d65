// Keeps the shared rule snapshot ("RuleSnapshot.json" in the shared container),
// from which the filter reads its rules and into which the agent merges the
// rules that prompt answers create.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "contracts/JsonFileStore.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"

namespace quillfort {

class RuleSnapshotStore : public JsonFileStore<RuleSnapshotEnvelope> {
public:
    // `fileSystem` reads and writes the file and must outlive the store.
    RuleSnapshotStore(FileSystem& fileSystem, std::optional<std::filesystem::path> snapshotURL)
        : JsonFileStore(fileSystem, std::move(snapshotURL)) {}

    // The snapshot file in the shared container; no location when the
    // container cannot be determined.
    [[nodiscard]] static RuleSnapshotStore inSharedContainer(FileSystem& fileSystem,
                                                             const std::optional<std::filesystem::path>& homeDirectory);

    [[nodiscard]] const std::optional<std::filesystem::path>& snapshotURL() const noexcept { return location(); }

    // The stored snapshot, or an empty one dated `now` when there is no file.
    // A file that cannot be read or decoded is an error, not an empty snapshot.
    [[nodiscard]] Result<RuleSnapshotEnvelope> load(Date now) const;

    [[nodiscard]] VoidResult replaceRules(std::vector<Rule> rules, Date generatedAt) const;
};

}  // namespace quillfort
