// The agent's server side: a fresh file-bridge session in the shared container
// with its listener manifest, the 100 ms poll of the requests directory, the
// loopback listener, automation commands, the rule-snapshot update for every
// answer, and the status file. Requests hop to the main thread for the
// coordinator; answers come back to the bridge queue to be delivered.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "QuillfortAgent/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/AgentPromptSession.hpp"
#include "QuillfortAgent/AgentStatusPublisher.hpp"
#include "QuillfortAgent/BridgeQueue.hpp"
#include "QuillfortAgent/DirectoryWatcher.hpp"
#include "QuillfortAgent/LoopbackConnection.hpp"
#include "QuillfortAgent/LoopbackListener.hpp"
#include "QuillfortAgent/LoopbackPromptError.hpp"
#include "QuillfortAgent/MainThreadExecutor.hpp"
#include "QuillfortAgent/Observable.hpp"
#include "contracts/FlowPromptAutomation.hpp"
#include "contracts/PromptAgentAutomationCommandStore.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/PromptAgentStatusStore.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
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
        // Limits on what other processes may make the agent hold.
        std::chrono::milliseconds loopbackRequestTimeout = defaultLoopbackRequestTimeout;
        std::uint32_t maximumRequestSize = defaultMaximumRequestSize;
    };

    // A loopback client has this long to deliver its whole request frame; the
    // wait for the user's answer afterwards is not limited.
    static constexpr std::chrono::milliseconds defaultLoopbackRequestTimeout{30'000};
    // The largest request payload or request file the agent reads.
    static constexpr std::uint32_t defaultMaximumRequestSize = LoopbackPromptError::maximumRequestPayloadSize;

    static constexpr std::string_view disableLoopbackListenerVariable = "QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER";
    static constexpr std::chrono::milliseconds pollInterval{100};

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

    using StatusMutation = std::function<void(PromptAgentStatusSnapshot&)>;
    using FrameCompletion = std::function<void(Result<std::string>)>;

    [[nodiscard]] Date now() const;
    [[nodiscard]] std::weak_ptr<QuillfortAgentPromptServiceHost> weakSelf() { return weak_from_this(); }
    void onMainThread(std::function<void(QuillfortAgentPromptServiceHost&)> task);
    void onBridgeQueue(std::function<void(QuillfortAgentPromptServiceHost&)> task);

    // Locations, computed on first use (in start(), on the main thread) and kept.
    const std::optional<std::filesystem::path>& sessionDirectoryURL();
    const std::optional<std::filesystem::path>& requestDirectoryURL();
    const std::optional<std::filesystem::path>& responseDirectoryURL();
    PromptAgentAutomationCommandStore& promptAgentAutomationCommandStore();

    // Status.
    void publishStatus(const StatusMutation& mutation);
    void updateCoordinatorListenerStatus();
    void recordPromptReceived();
    void recordPromptResolved();
    void publishPromptPresentationState();
    [[nodiscard]] PromptAgentStatusSnapshot initialStatus() const;

    // Shared by both transports.
    [[nodiscard]] VoidResult publishManifest(const std::filesystem::path& requests,
                                             const std::filesystem::path& responses);
    [[nodiscard]] std::optional<FlowPromptResponse> makeAutomationResponseIfNeeded(const FlowPromptRequest& request);
    void persistResolvedSnapshotIfPossible(const FlowPromptRequest& request, const FlowPromptResponse& response);

    // File bridge (bridge queue).
    void startPolling();
    void stopPolling();
    void schedulePoll();
    void startWatchingDirectories();
    // True when the poll tick must list the requests directory; see the
    // fields it keeps below.
    [[nodiscard]] bool requestsMayHaveChanged(const std::filesystem::path& requests);
    void processPendingRequests();
    void processRequest(const std::filesystem::path& url);
    void finishRequest(const QuillfortPromptBridgeRequestEnvelope& envelope, const std::filesystem::path& requestURL,
                       const std::optional<FlowPromptResponse>& response,
                       const std::optional<std::string>& errorMessage);
    void finishRequest(const Uuid& promptID, const std::filesystem::path& requestURL,
                       const QuillfortPromptBridgeResponseEnvelope& responseEnvelope);
    void finishInvalidRequest(const std::filesystem::path& url, const std::string& errorMessage);
    void processPendingAutomationCommand();

    // Loopback (bridge queue, except startLoopbackListener).
    void startLoopbackListener();
    void handleLoopbackListenerState(LoopbackListener::State state, const std::optional<Error>& error);
    void receiveLoopbackRequest(const std::shared_ptr<LoopbackConnection>& connection);
    void receiveLoopbackFrame(const std::shared_ptr<LoopbackConnection>& connection, FrameCompletion completion);
    void finishLoopbackRequest(const QuillfortPromptBridgeRequestEnvelope& envelope,
                               const std::shared_ptr<LoopbackConnection>& connection,
                               const std::optional<FlowPromptResponse>& response,
                               const std::optional<std::string>& errorMessage);
    void sendLoopbackResponse(const QuillfortPromptBridgeResponseEnvelope& envelope,
                              const std::shared_ptr<LoopbackConnection>& connection);

    void cancelServingOnBridgeQueue();
    [[nodiscard]] std::string oversizeRequestMessage() const;

    std::shared_ptr<AgentPromptCoordinator> coordinator_;
    Logger logger_{QuillfortLogCategory::agent};
    std::shared_ptr<MainThreadExecutor> mainThread_;
    std::shared_ptr<FileSystem> fileManager_;
    std::optional<std::filesystem::path> homeDirectoryURL_;
    std::shared_ptr<Clock> clock_;
    std::shared_ptr<UuidSource> uuids_;
    RuleSnapshotStore ruleSnapshotStore_;
    PromptAgentStatusStore promptAgentStatusStore_;
    std::optional<FlowPromptAutomationDirective> automationDirective_;
    bool loopbackListenerDisabled_ = false;
    std::uint16_t requestedLoopbackPort_;
    std::chrono::milliseconds loopbackRequestTimeout_;
    std::uint32_t maximumRequestSize_;
    std::string sessionIdentifier_;

    // Declared before everything that lives on its io_context, so those go first.
    std::unique_ptr<BridgeQueue> bridgeQueue_;

    // The status in memory and its file; publishing is safe from any thread and
    // the file is written on the publisher's own thread.
    std::unique_ptr<AgentStatusPublisher> statusPublisher_;
    // Set while a task that hands the newest status text to the coordinator
    // waits on the main thread; any thread.
    std::atomic<bool> listenerStatusUpdatePosted_{false};

    // Bridge queue only.
    std::unique_ptr<boost::asio::steady_timer> pollTimer_;
    std::chrono::steady_clock::time_point nextPollAt_{};
    std::shared_ptr<LoopbackListener> loopbackListener_;
    // Every accepted connection that may still be alive, above all those whose
    // reply callback waits in the coordinator: their sockets are released on
    // the queue before its io_context goes, whoever holds them then.
    std::vector<std::weak_ptr<LoopbackConnection>> loopbackConnections_;
    std::set<std::filesystem::path> pendingRequestURLs_;
    std::shared_ptr<DirectoryWatcher> directoryWatcher_;
    // The requests directory as the poll tick last listed it, and how many tick
    // listings in a row found it so. A directory's time stamp is coarse, so a
    // file made just after one listing can leave it as it was; a second listing
    // a tick later catches that file, and only then is the directory quiet.
    std::optional<FileIdentity> tickListedIdentity_;
    int tickListingsAtIdentity_ = 0;
    std::optional<std::string> lastEnumerationFailure_;
    std::atomic<std::uint16_t> boundLoopbackPort_{0};

    // Main thread only.
    bool started_ = false;
    bool keepFilesOnTeardown_ = false;
    bool presentationRepublishPosted_ = false;  // one republish waits at a time
    Subscription activePromptObserver_;
    Subscription promptWindowVisibilityObserver_;

    std::optional<std::optional<std::filesystem::path>> sessionDirectoryURL_;
    std::optional<std::optional<std::filesystem::path>> requestDirectoryURL_;
    std::optional<std::optional<std::filesystem::path>> responseDirectoryURL_;
    std::optional<PromptAgentAutomationCommandStore> promptAgentAutomationCommandStore_;
};

}  // namespace quillfort
