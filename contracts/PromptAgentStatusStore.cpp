#include "contracts/PromptAgentStatusStore.hpp"

#include "contracts/QuillfortSharedContainer.hpp"

namespace quillfort {

PromptAgentStatusStore PromptAgentStatusStore::inSharedContainer(
    FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    return PromptAgentStatusStore(fileSystem, QuillfortSharedContainer::promptAgentStatusURL(fileSystem, homeDirectory));
}

}  // namespace quillfort
