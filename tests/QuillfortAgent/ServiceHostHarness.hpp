// A service host in a temporary home with a real coordinator, its main thread
// being the test's own thread (an io_context the test runs while it waits),
// and helpers that act as the filter side would: request files and command
// files (the loopback client, frames and samples are the agent sandbox's).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/coordinator/CachedRuleSnapshotReader.hpp"
#include "QuillfortAgent/host/AsioMainThreadExecutor.hpp"
#include "QuillfortAgent/host/QuillfortAgentPromptServiceHost.hpp"
#include "contracts/PromptAgentAutomationCommand.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "model/Json.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "support/LogSink.hpp"
#include "tests/testsupport/AgentSandbox.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort::testing {

using namespace std::chrono_literals;

// Generous: the machine may be busy compiling; nothing is asserted on time.
inline constexpr std::chrono::seconds waitDeadline{10};

// The file bridge alone: most host tests need no listener.
inline const Environment fileOnly{{"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}};

// The error both transports answer an undecodable request with.
inline constexpr std::string_view decodeFailureText = "Failed to decode the Quillfort prompt request.";

using HostSettings = QuillfortAgentPromptServiceHost::Dependencies;

class ServiceHostHarness {
public:
    ServiceHostHarness() : fakeFileSystem(std::make_shared<FakeFileSystem>(home.path())), fileSystem(fakeFileSystem) {
        coordinator = std::make_shared<AgentPromptCoordinator>(AgentPromptCoordinator::Dependencies{
            .processInfo = {},
            .userDefaults = std::make_shared<InMemoryUserDefaults>(),
            .rules = std::make_shared<CachedRuleSnapshotReader>(fileSystem, std::nullopt),  // no rules
            .fileSystem = fileSystem,
            .clock = systemClock(),
            .uuids = std::make_shared<SequentialUuidSource>(5000),
            .formatTime = [](auto) { return std::string("12:00:00"); },
        });
    }

    ~ServiceHostHarness() {
        destroyHost();
        // Lets the host's last main-thread tasks (releasing its observers) run.
        mainContext.poll();
    }

    // Destroys the host here and now: once it has stopped serving, no handler
    // on its queue can hold it past the test's own reference.
    void destroyHost() {
        if (!host) return;
        host->stopServing();
        std::weak_ptr<QuillfortAgentPromptServiceHost> weak = host;
        host.reset();
        EXPECT_TRUE(weak.expired());
    }

    // A host on any free port; `adjust` changes its settings before it is made.
    std::shared_ptr<QuillfortAgentPromptServiceHost> makeHost(Environment environment = {},
                                                              const std::function<void(HostSettings&)>& adjust = {}) {
        HostSettings settings{.coordinator = coordinator,
                              .mainThread = mainThread,
                              .fileSystem = fileSystem,
                              .homeDirectory = home.path(),
                              .processInfo = {.environment = std::move(environment),
                                              .arguments = {},
                                              .processIdentifier = 1},
                              .clock = systemClock(),
                              .uuids = uuids,
                              .loopbackPort = 0};
        if (adjust) adjust(settings);
        host = QuillfortAgentPromptServiceHost::make(std::move(settings));
        return host;
    }

    // Runs the main thread until `condition` holds; false when the deadline passed first.
    bool runUntil(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + waitDeadline;
        while (!condition()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            mainContext.run_one_for(10ms);
        }
        return true;
    }

    // --- Locations ---------------------------------------------------------

    [[nodiscard]] std::filesystem::path container() const {
        return *QuillfortSharedContainer::containerURL(*fileSystem, home.path());
    }
    [[nodiscard]] std::filesystem::path sessionDirectory() const {
        return *QuillfortPromptEndpointStore::bridgeSessionDirectoryURL(host->sessionIdentifier(), *fileSystem,
                                                                        home.path());
    }
    [[nodiscard]] std::filesystem::path requestsDirectory() const { return sessionDirectory() / "Requests"; }
    [[nodiscard]] std::filesystem::path responsesDirectory() const { return sessionDirectory() / "Responses"; }
    [[nodiscard]] std::filesystem::path statusFile() const { return container() / "PromptAgentStatus.json"; }
    [[nodiscard]] std::filesystem::path ruleSnapshotFile() const { return container() / "RuleSnapshot.json"; }
    [[nodiscard]] std::filesystem::path commandFile() const {
        return sessionDirectory() / "PromptAgentAutomationCommand.json";
    }

    // --- Acting as the filter side ------------------------------------------

    std::filesystem::path writeRequest(const QuillfortPromptBridgeRequestEnvelope& envelope,
                                       std::optional<std::string> fileName = std::nullopt) {
        const auto path = requestsDirectory() / fileName.value_or(bridgeFileName(envelope.request.id));
        writeFile(path, encodeCompact(envelope));
        return path;
    }

    void writeFile(const std::filesystem::path& path, const std::string& bytes) {
        ASSERT_TRUE(fileSystem->createDirectories(path.parent_path()));
        ASSERT_TRUE(fileSystem->writeFileAtomically(path, bytes));
    }

    void writeCommand(const Uuid& promptID, FlowPromptAutomationPreset preset) {
        writeFile(commandFile(),
                  encodePretty(PromptAgentAutomationCommand{.promptID = promptID, .preset = preset, .createdAt = sampleDate()}));
    }

    [[nodiscard]] std::optional<QuillfortPromptBridgeResponseEnvelope> response(const Uuid& promptID) const {
        auto decoded = decodeJson<QuillfortPromptBridgeResponseEnvelope>(
            fileSystem->readFile(responsesDirectory() / bridgeFileName(promptID)).value_or(""));
        return decoded ? std::optional(*decoded) : std::nullopt;
    }

    bool waitForResponse(const Uuid& promptID) {
        return runUntil([&] { return response(promptID).has_value(); });
    }

    bool waitUntilQueued(const Uuid& promptID) {
        return runUntil([&] { return std::ranges::count(queuedIDs(), promptID) > 0; });
    }

    [[nodiscard]] std::vector<Uuid> queuedIDs() const {
        std::vector<Uuid> ids;
        for (const auto& session : coordinator->activePrompts().value()) ids.push_back(session.request.id);
        return ids;
    }

    // How many log lines hold `fragment`.
    [[nodiscard]] std::size_t logCount(const std::string& fragment) const {
        const auto records = logs.records();
        return std::ranges::count_if(records, [&](const auto& record) { return record.message.contains(fragment); });
    }

    bool waitForLog(const std::string& fragment) {
        return runUntil([&] { return logs.sink().containsMessagePart(fragment); });
    }

    ScopedLogCapture logs;
    TemporaryDirectory home;
    std::shared_ptr<FakeFileSystem> fakeFileSystem;
    std::shared_ptr<FileSystem> fileSystem;
    std::shared_ptr<SequentialUuidSource> uuids = std::make_shared<SequentialUuidSource>(100);
    boost::asio::io_context mainContext{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{mainContext.get_executor()};
    std::shared_ptr<AsioMainThreadExecutor> mainThread = std::make_shared<AsioMainThreadExecutor>(mainContext);
    std::shared_ptr<AgentPromptCoordinator> coordinator;
    std::shared_ptr<QuillfortAgentPromptServiceHost> host;
};

}  // namespace quillfort::testing
