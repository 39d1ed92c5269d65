// Reads the shared rule snapshot for every new prompt without decoding an
// unchanged (possibly multi-megabyte) file again: the decoded rules are kept
// for as long as the file's identity stays the same.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort {

class CachedRuleSnapshotReader final : public RuleSnapshotReader {
public:
    // `snapshotPath` absent: there are never any rules.
    CachedRuleSnapshotReader(std::shared_ptr<FileSystem> fileSystem, std::optional<std::filesystem::path> snapshotPath);

    // The snapshot file in the shared container, as the filter finds it.
    [[nodiscard]] static std::shared_ptr<CachedRuleSnapshotReader> inSharedContainer(
        std::shared_ptr<FileSystem> fileSystem);

    // The rules of the snapshot as it is now; a missing, unreadable or
    // undecodable snapshot gives no rules. Main thread only.
    [[nodiscard]] Rules currentRules() override;

private:
    struct Cached {
        FileIdentity identity;
        Rules rules;
    };

    std::shared_ptr<FileSystem> fileSystem_;
    std::optional<std::filesystem::path> snapshotPath_;
    std::optional<Cached> cached_;
};

}  // namespace quillfort
