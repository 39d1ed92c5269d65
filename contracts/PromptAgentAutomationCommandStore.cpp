#include "contracts/PromptAgentAutomationCommandStore.hpp"

#include "contracts/QuillfortSharedContainer.hpp"

namespace quillfort {

PromptAgentAutomationCommandStore PromptAgentAutomationCommandStore::inSharedContainer(
    FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    return PromptAgentAutomationCommandStore(
        fileSystem, QuillfortSharedContainer::promptAgentAutomationCommandURL(fileSystem, homeDirectory));
}

}  // namespace quillfort
