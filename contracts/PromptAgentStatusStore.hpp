// Keeps the agent's status file ("PromptAgentStatus.json" in the shared container).
#pragma once

#include <filesystem>
#include <optional>

#include "contracts/JsonFileStore.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"

namespace quillfort {

class PromptAgentStatusStore : public JsonFileStore<PromptAgentStatusSnapshot> {
public:
    // `fileSystem` reads and writes the file and must outlive the store.
    PromptAgentStatusStore(FileSystem& fileSystem, std::optional<std::filesystem::path> snapshotURL)
        : JsonFileStore(fileSystem, std::move(snapshotURL)) {}

    // The status file in the shared container; no location when the container
    // cannot be determined.
    [[nodiscard]] static PromptAgentStatusStore inSharedContainer(
        FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);

    [[nodiscard]] const std::optional<std::filesystem::path>& snapshotURL() const noexcept { return location(); }
};

}  // namespace quillfort
