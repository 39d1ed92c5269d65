#include "QuillfortAgent/coordinator/StoredPromptPreference.hpp"

#include <algorithm>
#include <vector>

#include "model/Text.hpp"

namespace quillfort {

namespace {

// "." + the last `count` labels of `labels`.
std::string dottedTail(const std::vector<std::string_view>& labels, std::size_t count) {
    std::string result;
    for (std::size_t i = labels.size() - count; i < labels.size(); ++i) {
        result += '.';
        result += labels[i];
    }
    return result;
}

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

}  // namespace

StoredPromptPreference StoredPromptPreference::from(const AgentPromptSession& session) {
    const auto& selection = session.ruleSelection;
    return StoredPromptPreference{
        .preset = session.selectedPreset,
        .includeExactProcess = selection.includeExactProcess,
        .includeAncestorApp = selection.includeAncestorApp,
        .includeProcessTag = selection.includeProcessTag,
        .hostMatchMode = selection.hostMatchMode,
        .hostPatternOverride = selection.hostPatternOverride,
        .includePortExact = selection.includePortExact,
        .includeProtocol = selection.includeProtocol,
    };
}

std::optional<StoredPromptPreference> StoredPromptPreference::load(const UserDefaults& defaults) {
    const auto bytes = defaults.data(userDefaultsKey);
    if (!bytes) return std::nullopt;
    auto decoded = decodeJson<StoredPromptPreference>(*bytes);
    if (!decoded) return std::nullopt;
    return std::move(*decoded);
}

VoidResult StoredPromptPreference::save(UserDefaults& defaults) const {
    std::string bytes;
    try {
        bytes = encodeCompact(*this);
    } catch (const std::exception& error) {
        return std::unexpected(Error::withMessage(error.what()));
    }
    return defaults.setData(userDefaultsKey, bytes);
}

FlowPromptRuleSelection combinedRuleSelection(const FlowPromptRuleSelection& defaultSelection,
                                              const StoredPromptPreference& preference,
                                              const FlowPromptRequest& request) {
    FlowPromptRuleSelection selection;
    selection.includeExactProcess = defaultSelection.includeExactProcess && preference.includeExactProcess;
    selection.includeSigner = defaultSelection.includeSigner && selection.includeExactProcess;
    selection.includeAncestorApp = defaultSelection.includeAncestorApp && preference.includeAncestorApp;
    selection.includeProcessTag = defaultSelection.includeProcessTag && preference.includeProcessTag;
    selection.hostMatchMode = preference.hostMatchMode;
    selection.hostPatternOverride = resolvedHostPatternOverride(preference, request);
    selection.includePortExact = defaultSelection.includePortExact && preference.includePortExact;
    selection.includeProtocol = defaultSelection.includeProtocol && preference.includeProtocol;
    return selection;
}

std::optional<std::string> resolvedHostPatternOverride(const StoredPromptPreference& preference,
                                                       const FlowPromptRequest& request) {
    const auto host = request.context.host();
    switch (preference.hostMatchMode) {
        case FlowPromptHostMatchMode::none:
            return std::nullopt;
        case FlowPromptHostMatchMode::exact:
            return host;
        case FlowPromptHostMatchMode::suffix:
            if (!host) return preference.hostPatternOverride;
            break;
    }

    const auto hostLabels = text::splitNonEmpty(*host, '.');
    if (preference.hostPatternOverride) {
        const std::string withoutWildcards = text::removingAll(text::trimmed(*preference.hostPatternOverride), "*.");
        const std::string pattern(text::trimmedCharacters(withoutWildcards, "."));
        if (!pattern.empty()) {
            if (*host == pattern || endsWith(*host, "." + pattern)) return "." + pattern;
            if (hostLabels.size() < 2) return *host;
            const auto patternLabels = text::splitNonEmpty(pattern, '.');
            const std::size_t depth = patternLabels.empty() ? 1 : std::min(patternLabels.size(), hostLabels.size() - 1);
            return dottedTail(hostLabels, depth);
        }
    }
    if (hostLabels.size() < 2) return "." + *host;
    return dottedTail(hostLabels, 2);
}

}  // namespace quillfort
