#include "QuillfortAgent/host/RuleSnapshotMerger.hpp"

#include <utility>

#include "contracts/FlowPromptResolution.hpp"
#include "contracts/RuleSnapshotEditor.hpp"

namespace quillfort {

RuleSnapshotMerger::RuleSnapshotMerger(FileSystem& fileSystem, std::optional<std::filesystem::path> snapshotURL)
    : fileSystem_(&fileSystem), store_(fileSystem, std::move(snapshotURL)) {}

VoidResult RuleSnapshotMerger::merge(const FlowPromptRequest& request, const FlowPromptResponse& response,
                                     Date generatedAt, UuidSource& ids) {
    const auto& location = store_.snapshotURL();
    if (!location) return {};
    // Only a lasting answer that carries or describes a rule can change the
    // snapshot; the many one-time answers must not cost a look at the file.
    if (response.scope == RuleScope::temporary || (!response.suggestedRule && !response.ruleSelection)) return {};

    // Under the snapshot's lock nobody else writes between the look below and
    // the write: an edit made in the rules view or by the tool is never lost.
    if (auto made = fileSystem_->createDirectories(location->parent_path()); !made) return made;
    auto lock = RuleSnapshotLock::acquire(*location);
    if (!lock) return std::unexpected(std::move(lock.error()));

    // The identity is taken before reading: should the file be replaced in
    // between, the newer rules are kept under the older identity and simply
    // read once more next time.
    const auto identity = fileSystem_->fileIdentity(*location);
    if (!identity || !cached_ || cached_->identity != *identity) {
        cached_.reset();
        auto loaded = store_.loadIfPresent();
        if (!loaded) return std::unexpected(std::move(loaded.error()));
        auto snapshot = std::move(*loaded).value_or(RuleSnapshotEnvelope{.generatedAt = generatedAt, .rules = {}});
        if (!identity) {
            // Nothing to key a cache on (most often: no file yet).
            return save(request, response, snapshot, generatedAt, ids);
        }
        cached_ = Cached{*identity, std::move(snapshot)};
    }
    return save(request, response, cached_->snapshot, generatedAt, ids);
}

VoidResult RuleSnapshotMerger::save(const FlowPromptRequest& request, const FlowPromptResponse& response,
                                    const RuleSnapshotEnvelope& existing, Date generatedAt, UuidSource& ids) {
    auto outcome = FlowPromptResolution::resolve(request, response, existing, /*persistSessionRules=*/true,
                                                 RuleOrigin::promptResolved, generatedAt, ids);
    if (!outcome.updatedSnapshot) return {};
    // Only the date would change: the filter's rules are already these.
    if (outcome.updatedSnapshot->rules == existing.rules) return {};

    if (auto saved = store_.save(*outcome.updatedSnapshot); !saved) {
        cached_.reset();
        return saved;
    }
    // What is on disk now is what we just wrote; keep it under the identity the
    // replaced file has, so the next answer need not decode it.
    auto identity = fileSystem_->fileIdentity(*store_.snapshotURL());
    if (identity)
        cached_ = Cached{*identity, std::move(*outcome.updatedSnapshot)};
    else
        cached_.reset();
    return {};
}

}  // namespace quillfort
