// Merges the rules that lasting answers create into the shared rule snapshot.
// The decoded snapshot is kept under the file's identity (device, inode, size,
// modification time), so back-to-back answers do not decode a large unchanged
// file again, while a file another process replaced is always read afresh.
#pragma once

#include <filesystem>
#include <optional>

#include "contracts/FlowPromptMessages.hpp"
#include "contracts/RuleSnapshotStore.hpp"
#include "model/Uuid.hpp"
#include "platform/Error.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort {

// Used from one queue only (the service host's bridge queue).
class RuleSnapshotMerger {
public:
    // `fileSystem` must outlive the merger. Without a location nothing is read or written.
    RuleSnapshotMerger(FileSystem& fileSystem, std::optional<std::filesystem::path> snapshotURL);

    // Resolves `response` against the snapshot as it is on disk now and saves
    // the result, dated `generatedAt`, when a rule results and the rules differ
    // from those stored: an answer whose rule is already there, unchanged,
    // leaves the file alone. A failure to read, decode or write is returned and
    // leaves the file as it was.
    [[nodiscard]] VoidResult merge(const FlowPromptRequest& request, const FlowPromptResponse& response,
                                   Date generatedAt, UuidSource& ids);

private:
    [[nodiscard]] VoidResult save(const FlowPromptRequest& request, const FlowPromptResponse& response,
                                  const RuleSnapshotEnvelope& existing, Date generatedAt, UuidSource& ids);

    struct Cached {
        FileIdentity identity;
        RuleSnapshotEnvelope snapshot;
    };

    FileSystem* fileSystem_;
    RuleSnapshotStore store_;
    std::optional<Cached> cached_;
};

}  // namespace quillfort
