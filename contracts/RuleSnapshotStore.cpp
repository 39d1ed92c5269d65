#include "contracts/RuleSnapshotStore.hpp"

#include "contracts/QuillfortSharedContainer.hpp"

namespace quillfort {

RuleSnapshotStore RuleSnapshotStore::inSharedContainer(FileSystem& fileSystem,
                                                       const std::optional<std::filesystem::path>& homeDirectory) {
    return RuleSnapshotStore(fileSystem, QuillfortSharedContainer::ruleSnapshotURL(fileSystem, homeDirectory));
}

Result<RuleSnapshotEnvelope> RuleSnapshotStore::load(Date now) const {
    auto stored = loadIfPresent();
    if (!stored) return std::unexpected(std::move(stored.error()));
    if (*stored) return std::move(**stored);
    return RuleSnapshotEnvelope{now, {}};
}

VoidResult RuleSnapshotStore::replaceRules(std::vector<Rule> rules, Date generatedAt) const {
    return save(RuleSnapshotEnvelope{generatedAt, std::move(rules)});
}

}  // namespace quillfort
