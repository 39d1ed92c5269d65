#include "QuillfortAgent/coordinator/CachedRuleSnapshotReader.hpp"

#include "contracts/QuillfortSharedContainer.hpp"
#include "contracts/RuleSnapshotStore.hpp"

namespace quillfort {

CachedRuleSnapshotReader::CachedRuleSnapshotReader(std::shared_ptr<FileSystem> fileSystem,
                                                   std::optional<std::filesystem::path> snapshotPath)
    : fileSystem_(std::move(fileSystem)), snapshotPath_(std::move(snapshotPath)) {}

std::shared_ptr<CachedRuleSnapshotReader> CachedRuleSnapshotReader::inSharedContainer(
    std::shared_ptr<FileSystem> fileSystem) {
    auto path = QuillfortSharedContainer::ruleSnapshotURL(*fileSystem, std::nullopt);
    return std::make_shared<CachedRuleSnapshotReader>(std::move(fileSystem), std::move(path));
}

namespace {

RuleSnapshotReader::Rules noRules() {
    static const auto none = std::make_shared<const std::vector<Rule>>();
    return none;
}

}  // namespace

RuleSnapshotReader::Rules CachedRuleSnapshotReader::currentRules() {
    if (!snapshotPath_) return noRules();

    // The identity is taken before reading: should the file be replaced in
    // between, the newer rules are kept under the older identity and simply
    // read once more on the next call.
    const auto identity = fileSystem_->fileIdentity(*snapshotPath_);
    if (!identity) {
        cached_.reset();
        if (identity.error().isNoSuchFile()) return noRules();
    } else if (cached_ && cached_->identity == *identity) {
        return cached_->rules;
    }

    const RuleSnapshotStore store(*fileSystem_, snapshotPath_);
    auto loaded = store.loadIfPresent();
    if (!loaded || !*loaded) {
        cached_.reset();
        return noRules();
    }
    auto rules = std::make_shared<const std::vector<Rule>>(std::move((*loaded)->rules));
    if (identity) cached_ = Cached{*identity, rules};
    return rules;
}

}  // namespace quillfort
