// The agent's server side and the owner of its pieces: a fresh file-bridge
// session in the shared container with its listener manifest, the file bridge,
// the loopback server, automation commands and status publishing, and between
// them the prompt path both transports share: requests hop to the main thread
// for the coordinator, answers come back to the bridge queue, and the rule an
// answer makes goes into the shared rule snapshot.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "QuillfortAgent/automation/AgentAutomationCommands.hpp"
#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"
#include "QuillfortAgent/host/BridgePromptIntake.hpp"
#include "QuillfortAgent/host/BridgeQueue.hpp"
#include "QuillfortAgent/host/MainThreadExecutor.hpp"
#include "QuillfortAgent/host/RuleSnapshotMerger.hpp"
#include "QuillfortAgent/publishing/AgentStatusReporter.hpp"
#include "QuillfortAgent/transports/AgentFileBridge.hpp"
#include "QuillfortAgent/transports/AgentLoopbackServer.hpp"
#include "QuillfortAgent/transports/LoopbackPromptError.hpp"
#include "contracts/FlowPromptAutomation.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/PromptAgentStatusStore.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "contracts/RuleSnapshotStore.hpp"
#include "platform/Clock.hpp"
#include "platform/Error.hpp"
#include "platform/FileSystem.hpp"
#include "platform/ProcessInfo.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

class QuillfortAgentPromptServiceHost : public std::enable_shared_from_this<QuillfortAgentPromptServiceHost> {
public:
    struct Dependencies {
        std::shared_ptr<AgentPromptCoordinator> coordinator;
        // Where the coordinator lives; it must keep accepting tasks for as long as
        // the host exists (the host's last task releases its observers there).
        std::shared_ptr<MainThreadExecutor> mainThread;
        std::shared_ptr<FileSystem> fileSystem;
        std::optional<std::filesystem::path> homeDirectory;  // the agent passes none
        ProcessInfo processInfo;                              // directive, focus and the loopback switch
        std::shared_ptr<Clock> clock;                         // default: the system clock
        std::shared_ptr<UuidSource> uuids;                    // default: random identifiers
        std::uint16_t loopbackPort = QuillfortPromptEndpointStore::defaultLoopbackPort;  // 0: any free port
        // Beside root and the agent's own user, the group whose members may
        // submit prompts over loopback (a filter running as a dedicated user).
        std::optional<LoopbackPeerCheck::TrustedGroup> trustedGroup = std::nullopt;
        // Limits on what other processes may make the agent hold.
        std::chrono::milliseconds loopbackRequestTimeout = defaultLoopbackRequestTimeout;
        std::uint32_t maximumRequestSize = defaultMaximumRequestSize;
        std::uint64_t loopbackFrameBytesBudget = defaultLoopbackFrameBytesBudget;
        std::uint64_t queuedRequestBytesBudget = defaultQueuedRequestBytesBudget;
    };

    // A loopback client has this long to deliver its whole request frame; the
    // wait for the user's answer afterwards is not limited.
    static constexpr std::chrono::milliseconds defaultLoopbackRequestTimeout{30'000};
    // The largest request payload or request file the agent reads.
    static constexpr std::uint32_t defaultMaximumRequestSize = LoopbackPromptError::maximumRequestPayloadSize;
    // Each request is bounded, but not how many arrive at once: these bound the
    // sums. All loopback frames still being received together hold at most
    // this many bytes...
    static constexpr std::uint64_t defaultLoopbackFrameBytesBudget = 64u * 1024u * 1024u;
    // ...and all requests waiting for the user (counted by the size of their
    // frame or file) at most this many.
    static constexpr std::uint64_t defaultQueuedRequestBytesBudget = 256u * 1024u * 1024u;

    static constexpr std::string_view disableLoopbackListenerVariable = "QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER";
    static constexpr std::chrono::milliseconds pollInterval = AgentFileBridge::pollInterval;
    // How long automated answers gather before the coordinator records them.
    static constexpr std::chrono::milliseconds automatedAnswerBatchDelay{10};

    // Builds the host; no file is touched and nothing is served until start().
    [[nodiscard]] static std::shared_ptr<QuillfortAgentPromptServiceHost> make(Dependencies dependencies);

    // Stops serving, then removes the manifest, the status file, the command
    // file and the session directory of a started host.
    ~QuillfortAgentPromptServiceHost();
    QuillfortAgentPromptServiceHost(const QuillfortAgentPromptServiceHost&) = delete;
    QuillfortAgentPromptServiceHost& operator=(const QuillfortAgentPromptServiceHost&) = delete;

    // On the main thread, once: fresh session, manifest, polling, status
    // publishing and the loopback listener. A second call does nothing.
    void start();

    // Stops the poll timer, the loopback listener and the bridge queue, waiting
    // for a handler that is running on the queue. The host serves nothing
    // afterwards, and no handler of its own can keep it alive any longer, so it
    // is destroyed (and its files removed) on the thread that drops it last.
    void stopServing();

    // For the end of the process: stopServing(), and destruction then leaves
    // manifest, status file and session directory for the next launch to replace.
    void stopForProcessExit();

    // Upper-case UUID text naming this launch's session directory.
    [[nodiscard]] const std::string& sessionIdentifier() const noexcept { return sessionIdentifier_; }
    // A copy of the status being published; from any thread.
    [[nodiscard]] PromptAgentStatusSnapshot status() const;
    // The loopback port once the listener is ready, else 0; from any thread.
    [[nodiscard]] std::uint16_t loopbackPort() const noexcept;

    // The status entries for one queued session; `queueCount` is the number of
    // sessions the coordinator holds.
    [[nodiscard]] static PromptAgentQueuedPromptSnapshot makeQueuedPromptSnapshot(const AgentPromptSession& session);
    [[nodiscard]] static PromptAgentActivePromptSnapshot makeActivePromptSnapshot(const AgentPromptSession& session,
                                                                                 std::int64_t queueCount);

private:
    explicit QuillfortAgentPromptServiceHost(Dependencies dependencies);

    [[nodiscard]] Date now() const;
    [[nodiscard]] std::weak_ptr<QuillfortAgentPromptServiceHost> weakSelf() { return weak_from_this(); }
    void onMainThread(std::function<void(QuillfortAgentPromptServiceHost&)> task);
    void onBridgeQueue(std::function<void(QuillfortAgentPromptServiceHost&)> task);

    // Locations, computed on first use (in start(), on the main thread) and kept.
    const std::optional<std::filesystem::path>& sessionDirectoryURL();
    const std::optional<std::filesystem::path>& requestDirectoryURL();
    const std::optional<std::filesystem::path>& responseDirectoryURL();

    [[nodiscard]] VoidResult publishManifest(const std::filesystem::path& requests,
                                             const std::filesystem::path& responses);
    void startFileBridge();
    void startLoopbackListener();
    void publishLoopbackReadiness(bool ready);

    // The prompt path both transports share (bridge queue): the status times,
    // an automation directive or the coordinator, and the rule an answer makes.
    [[nodiscard]] BridgePromptIntake promptIntake();
    void receivePrompt(FlowPromptRequest request, std::size_t size, BridgePromptReply reply);
    void finishPrompt(const FlowPromptRequest& request, std::optional<FlowPromptResponse> response,
                      std::optional<std::string> errorMessage, const BridgePromptReply& reply);
    [[nodiscard]] std::optional<FlowPromptResponse> makeAutomationResponseIfNeeded(const FlowPromptRequest& request);
    void recordAutomatedAnswer(FlowPromptRequest request, FlowPromptResponse response);
    void persistResolvedSnapshotIfPossible(const FlowPromptRequest& request, const FlowPromptResponse& response);

    void cancelServingOnBridgeQueue();

    std::shared_ptr<AgentPromptCoordinator> coordinator_;
    Logger logger_{QuillfortLogCategory::agent};
    std::shared_ptr<MainThreadExecutor> mainThread_;
    std::shared_ptr<FileSystem> fileManager_;
    std::optional<std::filesystem::path> homeDirectoryURL_;
    std::shared_ptr<Clock> clock_;
    std::shared_ptr<UuidSource> uuids_;
    RuleSnapshotMerger ruleSnapshotMerger_;  // bridge queue only
    PromptAgentStatusStore promptAgentStatusStore_;
    std::optional<FlowPromptAutomationDirective> automationDirective_;
    bool loopbackListenerDisabled_ = false;
    std::uint64_t queuedRequestBytesBudget_;
    // Bytes of the requests handed to the coordinator and not yet answered.
    // Added to on the bridge queue only; given back from whichever thread drops
    // a prompt's last reply callback.
    std::shared_ptr<std::atomic<std::uint64_t>> queuedRequestBytes_ =
        std::make_shared<std::atomic<std::uint64_t>>(0);
    std::string sessionIdentifier_;

    // Declared before everything that lives on its io_context, so those go first.
    std::unique_ptr<BridgeQueue> bridgeQueue_;
    // Answers of the automation directive not yet handed to the coordinator,
    // and the timer that hands them over together; bridge queue only.
    boost::asio::steady_timer automatedAnswerBatch_;
    std::vector<std::pair<FlowPromptRequest, FlowPromptResponse>> automatedAnswers_;

    // The four collaborators, each with the state it alone touches; their
    // comments say on which threads they run.
    std::shared_ptr<AgentStatusReporter> statusReporter_;
    std::shared_ptr<AgentFileBridge> fileBridge_;
    std::shared_ptr<AgentLoopbackServer> loopbackServer_;
    std::shared_ptr<AgentAutomationCommands> automationCommands_;  // made in start(), once its location is known

    // Main thread only.
    bool started_ = false;
    bool keepFilesOnTeardown_ = false;
    std::optional<std::optional<std::filesystem::path>> sessionDirectoryURL_;
    std::optional<std::optional<std::filesystem::path>> requestDirectoryURL_;
    std::optional<std::optional<std::filesystem::path>> responseDirectoryURL_;
};

}  // namespace quillfort
