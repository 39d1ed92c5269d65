// Keeps the automation command file ("PromptAgentAutomationCommand.json"). The
// agent places it in its own bridge session directory, so a command reaches the
// agent run it was written for; the shared container is only the default.
#pragma once

#include <filesystem>
#include <optional>

#include "contracts/JsonFileStore.hpp"
#include "contracts/PromptAgentAutomationCommand.hpp"

namespace quillfort {

class PromptAgentAutomationCommandStore : public JsonFileStore<PromptAgentAutomationCommand> {
public:
    // `fileSystem` reads and writes the file and must outlive the store.
    PromptAgentAutomationCommandStore(FileSystem& fileSystem, std::optional<std::filesystem::path> commandURL)
        : JsonFileStore(fileSystem, std::move(commandURL)) {}

    // The command file in the shared container; no location when the
    // container cannot be determined.
    [[nodiscard]] static PromptAgentAutomationCommandStore inSharedContainer(
        FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);

    [[nodiscard]] const std::optional<std::filesystem::path>& commandURL() const noexcept { return location(); }
};

}  // namespace quillfort
