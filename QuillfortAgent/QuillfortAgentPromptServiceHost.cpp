#include "QuillfortAgent/QuillfortAgentPromptServiceHost.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>
#include <fmt/format.h>

#include "QuillfortAgent/AgentPromptDecisionPreset.hpp"
#include "QuillfortAgent/LoopbackPromptError.hpp"
#include "contracts/FlowPromptResolution.hpp"
#include "contracts/PromptFrame.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "model/Json.hpp"

namespace quillfort {

namespace {

constexpr std::string_view undecodableRequestMessage = "Failed to decode the Quillfort prompt request.";

// One frame being read from a loopback connection, with the deadline by which
// it must be complete.
struct FrameRead {
    std::shared_ptr<LoopbackConnection> connection;
    FrameReader reader;
    std::function<void(Result<std::string>)> completion;
    boost::asio::io_context::executor_type queue;
    std::uint32_t maximumSize;
    boost::asio::steady_timer deadline;
    bool timedOut = false;
    bool finished = false;
};

void finishFrameRead(FrameRead& read, Result<std::string> result) {
    read.finished = true;
    read.deadline.cancel();
    read.completion(std::move(result));
}

// Each round asks for at least 1 and at most the bytes the frame still needs
// (4 for the header at first), so nothing past the frame is read; the next
// round is queued behind whatever else waits on the bridge queue.
void receiveFrameBytes(std::shared_ptr<FrameRead> read) {
    const auto wanted = read->reader.bytesWanted();
    read->connection->receive(wanted, [read](std::string bytes, bool isComplete, std::optional<Error> error) {
        if (read->finished) return;
        if (read->timedOut) {
            finishFrameRead(*read, std::unexpected(LoopbackPromptError::make(LoopbackPromptErrorCode::requestTimedOut)));
            return;
        }
        if (error) {
            finishFrameRead(*read, std::unexpected(std::move(*error)));
            return;
        }
        read->reader.consume(bytes);
        if (const auto length = read->reader.announcedLength(); length && *length > read->maximumSize) {
            finishFrameRead(*read, std::unexpected(LoopbackPromptError::make(LoopbackPromptErrorCode::payloadTooLarge)));
            return;
        }
        if (read->reader.complete()) {
            finishFrameRead(*read, read->reader.takePayload());
            return;
        }
        if (isComplete) {
            // Inside the header or inside the payload: either way the frame was cut short.
            finishFrameRead(*read,
                            std::unexpected(LoopbackPromptError::make(LoopbackPromptErrorCode::closedBeforePayload)));
            return;
        }
        boost::asio::post(read->queue, [read] { receiveFrameBytes(read); });
    });
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction and teardown

std::shared_ptr<QuillfortAgentPromptServiceHost> QuillfortAgentPromptServiceHost::make(Dependencies dependencies) {
    return std::shared_ptr<QuillfortAgentPromptServiceHost>(
        new QuillfortAgentPromptServiceHost(std::move(dependencies)));
}

QuillfortAgentPromptServiceHost::QuillfortAgentPromptServiceHost(Dependencies dependencies)
    : coordinator_(std::move(dependencies.coordinator)),
      mainThread_(std::move(dependencies.mainThread)),
      fileManager_(dependencies.fileSystem ? std::move(dependencies.fileSystem) : defaultFileSystem()),
      homeDirectoryURL_(std::move(dependencies.homeDirectory)),
      clock_(dependencies.clock ? std::move(dependencies.clock) : systemClock()),
      uuids_(dependencies.uuids ? std::move(dependencies.uuids) : randomUuidSource()),
      ruleSnapshotStore_(RuleSnapshotStore::inSharedContainer(*fileManager_, homeDirectoryURL_)),
      promptAgentStatusStore_(PromptAgentStatusStore::inSharedContainer(*fileManager_, homeDirectoryURL_)),
      automationDirective_(FlowPromptAutomationDirective::fromEnvironment(dependencies.processInfo.environment)),
      loopbackListenerDisabled_(
          dependencies.processInfo.environmentValue(std::string(disableLoopbackListenerVariable)) == "1"),
      requestedLoopbackPort_(dependencies.loopbackPort),
      loopbackRequestTimeout_(dependencies.loopbackRequestTimeout),
      maximumRequestSize_(dependencies.maximumRequestSize),
      sessionIdentifier_(uuids_->next().uppercaseString()),
      bridgeQueue_(std::make_unique<BridgeQueue>()) {
    statusPublisher_ = std::make_unique<AgentStatusPublisher>(promptAgentStatusStore_, clock_, initialStatus());
}

QuillfortAgentPromptServiceHost::~QuillfortAgentPromptServiceHost() {
    stopServing();

    // The subscriptions belong to the coordinator's state, which only the main
    // thread may touch; the last owner of the host can be on any thread.
    auto observers = std::make_shared<std::pair<Subscription, Subscription>>(
        std::move(activePromptObserver_), std::move(promptWindowVisibilityObserver_));
    if (mainThread_) mainThread_->post([observers] { *observers = {}; });

    // The writer must be done before the file goes, or it could bring it back.
    statusPublisher_->stop(/*flushPending=*/started_ && keepFilesOnTeardown_);

    // A host that never started has nothing of its own on disk; clearing would
    // only take the manifest and status away from another running agent.
    if (!started_ || keepFilesOnTeardown_) return;
    (void)QuillfortPromptEndpointStore::clear(*fileManager_, homeDirectoryURL_);
    (void)promptAgentStatusStore_.clear();
    (void)promptAgentAutomationCommandStore().clear();
    if (const auto& session = sessionDirectoryURL()) (void)fileManager_->removeItem(*session);
}

void QuillfortAgentPromptServiceHost::stopServing() {
    bridgeQueue_->shutdown([this] { cancelServingOnBridgeQueue(); });
}

void QuillfortAgentPromptServiceHost::stopForProcessExit() {
    keepFilesOnTeardown_ = true;
    stopServing();
    // The next launch and the tool find the newest status, not one a write behind.
    statusPublisher_->stop(/*flushPending=*/true);
}

void QuillfortAgentPromptServiceHost::cancelServingOnBridgeQueue() {
    stopPolling();
    if (loopbackListener_) {
        loopbackListener_->cancel();
        loopbackListener_.reset();
    }
    // Their clients see the connection end, and sockets held by reply callbacks
    // no longer need the io_context that is about to go.
    for (const auto& weak : loopbackConnections_) {
        if (auto connection = weak.lock()) connection->release();
    }
    loopbackConnections_.clear();
}

std::string QuillfortAgentPromptServiceHost::oversizeRequestMessage() const {
    return fmt::format("The Quillfort prompt request is larger than the {} bytes the agent accepts.",
                       maximumRequestSize_);
}

Date QuillfortAgentPromptServiceHost::now() const { return dateFrom(clock_->now()); }

void QuillfortAgentPromptServiceHost::onMainThread(std::function<void(QuillfortAgentPromptServiceHost&)> task) {
    mainThread_->post([weak = weakSelf(), task = std::move(task)] {
        if (auto self = weak.lock()) task(*self);
    });
}

void QuillfortAgentPromptServiceHost::onBridgeQueue(std::function<void(QuillfortAgentPromptServiceHost&)> task) {
    bridgeQueue_->post([weak = weakSelf(), task = std::move(task)] {
        if (auto self = weak.lock()) task(*self);
    });
}

PromptAgentStatusSnapshot QuillfortAgentPromptServiceHost::status() const { return statusPublisher_->snapshot(); }

std::uint16_t QuillfortAgentPromptServiceHost::loopbackPort() const noexcept { return boundLoopbackPort_.load(); }

// ---------------------------------------------------------------------------
// Locations

const std::optional<std::filesystem::path>& QuillfortAgentPromptServiceHost::sessionDirectoryURL() {
    if (!sessionDirectoryURL_) {
        sessionDirectoryURL_ = QuillfortPromptEndpointStore::bridgeSessionDirectoryURL(sessionIdentifier_, *fileManager_,
                                                                                       homeDirectoryURL_);
    }
    return *sessionDirectoryURL_;
}

const std::optional<std::filesystem::path>& QuillfortAgentPromptServiceHost::requestDirectoryURL() {
    if (!requestDirectoryURL_) {
        requestDirectoryURL_ =
            QuillfortPromptEndpointStore::requestDirectoryURL(sessionIdentifier_, *fileManager_, homeDirectoryURL_);
    }
    return *requestDirectoryURL_;
}

const std::optional<std::filesystem::path>& QuillfortAgentPromptServiceHost::responseDirectoryURL() {
    if (!responseDirectoryURL_) {
        responseDirectoryURL_ =
            QuillfortPromptEndpointStore::responseDirectoryURL(sessionIdentifier_, *fileManager_, homeDirectoryURL_);
    }
    return *responseDirectoryURL_;
}

PromptAgentAutomationCommandStore& QuillfortAgentPromptServiceHost::promptAgentAutomationCommandStore() {
    if (!promptAgentAutomationCommandStore_) {
        std::optional<std::filesystem::path> location;
        if (const auto& session = sessionDirectoryURL()) {
            location = *session / QuillfortSharedContainer::promptAgentAutomationCommandFilename;
        }
        promptAgentAutomationCommandStore_.emplace(*fileManager_, std::move(location));
    }
    return *promptAgentAutomationCommandStore_;
}

// ---------------------------------------------------------------------------
// start()

void QuillfortAgentPromptServiceHost::start() {
    if (started_) return;
    started_ = true;

    // Only the fact of a change matters; the state is read afresh when the task
    // runs, so a burst of changes (a queue filling up) needs one republish.
    // Observers are called on the main thread, like the flag's other uses.
    auto republish = [weak = weakSelf(), mainThread = mainThread_] {
        auto self = weak.lock();
        if (!self || self->presentationRepublishPosted_) return;
        self->presentationRepublishPosted_ = true;
        mainThread->post([weak] {
            auto host = weak.lock();
            if (!host) return;
            host->presentationRepublishPosted_ = false;
            host->publishPromptPresentationState();
        });
    };
    activePromptObserver_ = coordinator_->activePrompts().subscribe([republish](const auto&) { republish(); });
    promptWindowVisibilityObserver_ =
        coordinator_->promptWindowVisible().subscribe([republish](const auto&) { republish(); });

    (void)promptAgentAutomationCommandStore().clear();

    publishStatus([initial = initialStatus()](PromptAgentStatusSnapshot& status) { status = initial; });

    bool manifestPublished = false;
    const auto& requests = requestDirectoryURL();
    const auto& responses = responseDirectoryURL();
    if (!requests || !responses) {
        logger_.error("Failed to resolve the Quillfort prompt bridge directories.");
    } else if (auto published = publishManifest(*requests, *responses); !published) {
        logger_.error("Failed to publish prompt listener endpoint: %{public}s", published.error());
    } else {
        onBridgeQueue([](QuillfortAgentPromptServiceHost& self) { self.startPolling(); });
        manifestPublished = true;
        const auto manifest = QuillfortPromptEndpointStore::listenerEndpointURL(*fileManager_, homeDirectoryURL_);
        logger_.log(
            "Published prompt listener manifest at %{public}s for file transport session %{public}s. "
            "requests=%{public}s responses=%{public}s",
            manifest ? manifest->string() : std::string("<nil>"), sessionIdentifier_, requests->string(),
            responses->string());
    }

    publishStatus([manifestPublished, disabled = loopbackListenerDisabled_](PromptAgentStatusSnapshot& status) {
        status.listenerReady = manifestPublished;
        status.manifestPublished = manifestPublished;
        if (!manifestPublished) {
            status.statusText = "Prompt manifest unavailable. Waiting for prompt listener readiness.";
        } else if (disabled) {
            status.statusText = "Prompt manifest published. Loopback listener disabled for automation.";
        } else {
            status.statusText = "Prompt manifest published. Waiting for loopback listener readiness.";
        }
    });
    publishPromptPresentationState();
    startLoopbackListener();
}

VoidResult QuillfortAgentPromptServiceHost::publishManifest(const std::filesystem::path& requests,
                                                           const std::filesystem::path& responses) {
    if (auto made = fileManager_->createDirectories(requests); !made) return made;
    if (auto made = fileManager_->createDirectories(responses); !made) return made;
    if (const auto& session = sessionDirectoryURL()) {
        if (auto opened = QuillfortPromptEndpointStore::ensureAccessibleDirectory(*session, *fileManager_); !opened) {
            return opened;
        }
    }
    if (auto opened = QuillfortPromptEndpointStore::ensureAccessibleDirectory(requests, *fileManager_); !opened) {
        return opened;
    }
    if (auto opened = QuillfortPromptEndpointStore::ensureAccessibleDirectory(responses, *fileManager_); !opened) {
        return opened;
    }
    const QuillfortPromptListenerRecord record{
        .transport = QuillfortPromptBridgeTransportKind::fileRequestResponse,
        .machServiceName = std::nullopt,
        .requestsDirectoryPath = requests.string(),
        .responsesDirectoryPath = responses.string(),
        .sessionIdentifier = sessionIdentifier_,
    };
    return QuillfortPromptEndpointStore::save(record, *fileManager_, homeDirectoryURL_);
}

// ---------------------------------------------------------------------------
// Status

PromptAgentStatusSnapshot QuillfortAgentPromptServiceHost::initialStatus() const {
    PromptAgentStatusSnapshot status;
    status.updatedAt = now();
    status.statusText = "Starting prompt bridge...";
    return status;
}

void QuillfortAgentPromptServiceHost::publishStatus(const StatusMutation& mutation) {
    (void)statusPublisher_->publish(mutation);
    updateCoordinatorListenerStatus();
}

// Every publication re-sends the status text, but a burst of them (three per
// automated prompt) needs one hop to the main thread: the task reads the text
// when it runs, so the coordinator always ends with the newest.
void QuillfortAgentPromptServiceHost::updateCoordinatorListenerStatus() {
    if (listenerStatusUpdatePosted_.exchange(true)) return;
    onMainThread([](QuillfortAgentPromptServiceHost& self) {
        self.listenerStatusUpdatePosted_ = false;  // before reading: a later change posts again
        self.coordinator_->updateListenerStatus(self.statusPublisher_->statusText());
    });
}

void QuillfortAgentPromptServiceHost::recordPromptReceived() {
    publishStatus([at = now()](PromptAgentStatusSnapshot& status) { status.lastPromptReceivedAt = at; });
}

void QuillfortAgentPromptServiceHost::recordPromptResolved() {
    publishStatus([at = now()](PromptAgentStatusSnapshot& status) { status.lastPromptResolvedAt = at; });
}

void QuillfortAgentPromptServiceHost::publishPromptPresentationState() {
    (void)statusPublisher_->publishPresentation(coordinator_->activePrompts().value(),
                                                coordinator_->promptWindowVisible().value());
    updateCoordinatorListenerStatus();
}

PromptAgentQueuedPromptSnapshot QuillfortAgentPromptServiceHost::makeQueuedPromptSnapshot(
    const AgentPromptSession& session) {
    return AgentStatusPublisher::makeQueuedPromptSnapshot(session);
}

PromptAgentActivePromptSnapshot QuillfortAgentPromptServiceHost::makeActivePromptSnapshot(
    const AgentPromptSession& session, std::int64_t queueCount) {
    return AgentStatusPublisher::makeActivePromptSnapshot(makeQueuedPromptSnapshot(session), queueCount);
}

// ---------------------------------------------------------------------------
// Shared by both transports

std::optional<FlowPromptResponse> QuillfortAgentPromptServiceHost::makeAutomationResponseIfNeeded(
    const FlowPromptRequest& request) {
    if (!automationDirective_) return std::nullopt;
    if (automationDirective_->focus && !automationDirective_->focus->matches(request)) return std::nullopt;

    auto response = makeResponse(automationDirective_->preset, request, *uuids_);
    onMainThread([request, response](QuillfortAgentPromptServiceHost& self) {
        self.coordinator_->recordAutomatedResolution(request, response);
        self.coordinator_->resolvePromptsDecidedBy(response);
    });
    logger_.log("Auto-resolved prompt %{public}s using preset %{public}s.", request.id.uppercaseString(),
                automationDirective_->preset);
    return response;
}

void QuillfortAgentPromptServiceHost::persistResolvedSnapshotIfPossible(const FlowPromptRequest& request,
                                                                        const FlowPromptResponse& response) {
    constexpr std::string_view failure =
        "Failed to persist the prompt-resolved shared rule snapshot in the agent helper: %{public}s";
    const auto generatedAt = now();
    auto loaded = ruleSnapshotStore_.loadIfPresent();
    if (!loaded) {
        logger_.error(failure, loaded.error());
        return;
    }
    const auto existing = loaded->value_or(RuleSnapshotEnvelope{.generatedAt = generatedAt, .rules = {}});
    const auto outcome = FlowPromptResolution::resolve(request, response, existing, /*persistSessionRules=*/true,
                                                       RuleOrigin::promptResolved, generatedAt, *uuids_);
    if (!outcome.updatedSnapshot) return;
    if (auto saved = ruleSnapshotStore_.save(*outcome.updatedSnapshot); !saved) logger_.error(failure, saved.error());
}

// ---------------------------------------------------------------------------
// File bridge

void QuillfortAgentPromptServiceHost::startPolling() {
    pollTimer_ = std::make_unique<boost::asio::steady_timer>(bridgeQueue_->context());
    nextPollAt_ = std::chrono::steady_clock::now();  // the first poll runs at once
    schedulePoll();
    startWatchingDirectories();
}

void QuillfortAgentPromptServiceHost::stopPolling() {
    if (directoryWatcher_) {
        directoryWatcher_->cancel();
        directoryWatcher_.reset();
    }
    if (!pollTimer_) return;
    pollTimer_->cancel();
    pollTimer_.reset();
}

// A request is handled when its file appears; the poll stays as the net for
// anything a notification missed (or when inotify is not available at all).
void QuillfortAgentPromptServiceHost::startWatchingDirectories() {
    const auto& requests = requestDirectoryURL();
    if (!requests) return;
    std::vector<std::filesystem::path> directories{*requests};
    if (const auto& session = sessionDirectoryURL()) directories.push_back(*session);  // the command file
    auto watcher = DirectoryWatcher::make(bridgeQueue_->context(), directories);
    if (!watcher) {
        logger_.error("Failed to watch the prompt bridge directories: %{public}s", watcher.error());
        return;
    }
    directoryWatcher_ = std::move(*watcher);
    directoryWatcher_->start([weak = weakSelf()] {
        auto self = weak.lock();
        if (self && self->pollTimer_) self->processPendingRequests();
    });
}

bool QuillfortAgentPromptServiceHost::requestsMayHaveChanged(const std::filesystem::path& requests) {
    auto identity = fileManager_->fileIdentity(requests);
    if (!identity) {
        tickListedIdentity_.reset();
        return true;  // the listing reports what is wrong
    }
    if (tickListedIdentity_ == *identity) {
        if (tickListingsAtIdentity_ >= 2) return false;
        ++tickListingsAtIdentity_;
    } else {
        tickListedIdentity_ = *identity;
        tickListingsAtIdentity_ = 1;
    }
    return true;
}

void QuillfortAgentPromptServiceHost::schedulePoll() {
    pollTimer_->expires_at(nextPollAt_);
    pollTimer_->async_wait([weak = weakSelf()](const boost::system::error_code& code) {
        if (code) return;  // cancelled
        auto self = weak.lock();
        if (!self || !self->pollTimer_) return;
        // Idle, a tick costs one stat and one look for the command file.
        const auto& requests = self->requestDirectoryURL();
        if (requests && !self->requestsMayHaveChanged(*requests)) {
            self->processPendingAutomationCommand();
        } else {
            self->processPendingRequests();
        }
        if (!self->pollTimer_) return;
        // Ticks stay on the grid of the first one instead of drifting by the time
        // a poll takes; ticks missed while the queue was busy are not made up.
        const auto current = std::chrono::steady_clock::now();
        self->nextPollAt_ += pollInterval;
        if (self->nextPollAt_ <= current) {
            const auto behind = current - self->nextPollAt_;
            self->nextPollAt_ += (behind / pollInterval + 1) * pollInterval;
        }
        self->schedulePoll();
    });
}

void QuillfortAgentPromptServiceHost::processPendingRequests() {
    const auto& requests = requestDirectoryURL();
    if (!requests) return;
    auto listing = fileManager_->listDirectory(*requests, /*skipHiddenEntries=*/true);
    if (!listing) {
        // Ten polls a second would repeat a lasting failure (the directory
        // removed under us) ten times a second; it is logged once until it
        // changes or clears. The poll goes on either way.
        if (lastEnumerationFailure_ != listing.error().description) {
            lastEnumerationFailure_ = listing.error().description;
            logger_.error("Failed to enumerate prompt bridge requests: %{public}s", listing.error());
        }
        return;
    }
    lastEnumerationFailure_.reset();

    std::vector<DirectoryEntry> entries;
    const std::string extension = fmt::format(".{}", bridgeFileExtension);
    for (auto& entry : *listing) {
        if (entry.path.extension().string() == extension) entries.push_back(std::move(entry));
    }
    // Clients name files after their prompt, so only the creation date tells the
    // order in which prompts were asked. Unknown dates count as the distant past.
    std::stable_sort(entries.begin(), entries.end(), [](const DirectoryEntry& lhs, const DirectoryEntry& rhs) {
        return lhs.creationDate < rhs.creationDate;
    });

    for (const auto& entry : entries) {
        if (pendingRequestURLs_.contains(entry.path)) continue;
        pendingRequestURLs_.insert(entry.path);
        processRequest(entry.path);
    }
    processPendingAutomationCommand();
}

void QuillfortAgentPromptServiceHost::processRequest(const std::filesystem::path& url) {
    if (auto identity = fileManager_->fileIdentity(url); identity && identity->size > maximumRequestSize_) {
        finishInvalidRequest(url, oversizeRequestMessage());
        logger_.error("Failed to decode prompt bridge request: %{public}s",
                      fmt::format("{} holds {} bytes.", url.filename().string(), identity->size));
        return;
    }
    auto envelope = [&]() -> Result<QuillfortPromptBridgeRequestEnvelope> {
        auto bytes = fileManager_->readFile(url);
        if (!bytes) return std::unexpected(std::move(bytes.error()));
        auto decoded = decodeJson<QuillfortPromptBridgeRequestEnvelope>(*bytes);
        if (!decoded) return std::unexpected(Error::withMessage(decoded.error().description()));
        return std::move(*decoded);
    }();
    if (!envelope) {
        finishInvalidRequest(url, std::string(undecodableRequestMessage));
        logger_.error("Failed to decode prompt bridge request: %{public}s", envelope.error());
        return;
    }

    recordPromptReceived();
    if (auto response = makeAutomationResponseIfNeeded(envelope->request)) {
        finishRequest(*envelope, url, response, std::nullopt);
        return;
    }
    onMainThread([envelope = std::move(*envelope), url](QuillfortAgentPromptServiceHost& self) {
        auto weak = self.weakSelf();
        self.coordinator_->receivePrompt(
            envelope.request, [weak, envelope, url](std::optional<FlowPromptResponse> response,
                                                    std::optional<std::string> errorMessage) {
                auto host = weak.lock();
                if (!host) return;
                host->onBridgeQueue([envelope, url, response = std::move(response),
                                     errorMessage = std::move(errorMessage)](QuillfortAgentPromptServiceHost& self) {
                    self.finishRequest(envelope, url, response, errorMessage);
                });
            });
    });
}

void QuillfortAgentPromptServiceHost::finishRequest(const QuillfortPromptBridgeRequestEnvelope& envelope,
                                                    const std::filesystem::path& requestURL,
                                                    const std::optional<FlowPromptResponse>& response,
                                                    const std::optional<std::string>& errorMessage) {
    recordPromptResolved();
    if (response) persistResolvedSnapshotIfPossible(envelope.request, *response);
    const QuillfortPromptBridgeResponseEnvelope responseEnvelope{
        .promptID = envelope.request.id,
        .response = response,
        .errorMessage = errorMessage,
        .createdAt = now(),
    };
    finishRequest(envelope.request.id, requestURL, responseEnvelope);
}

void QuillfortAgentPromptServiceHost::finishRequest(const Uuid& promptID, const std::filesystem::path& requestURL,
                                                    const QuillfortPromptBridgeResponseEnvelope& responseEnvelope) {
    if (const auto& responses = responseDirectoryURL(); !responses) {
        logger_.error("Failed to resolve the Quillfort prompt bridge response directory for prompt %{public}s.",
                      promptID.uppercaseString());
    } else {
        // Named after the prompt, not after the request file: that is the name
        // the client waits for.
        const auto responseURL = *responses / bridgeFileName(promptID);
        // A hand-off read at once by the waiting client, not a record: no fsync.
        auto written = fileManager_->replaceFileWithoutSync(responseURL, encodeCompact(responseEnvelope));
        if (written) written = QuillfortPromptEndpointStore::ensureAccessibleFile(responseURL, *fileManager_);
        if (!written) {
            logger_.error("Failed to write prompt bridge response for %{public}s: %{public}s",
                          promptID.uppercaseString(), written.error());
        }
    }
    pendingRequestURLs_.erase(requestURL);
    (void)fileManager_->removeItem(requestURL);
}

void QuillfortAgentPromptServiceHost::finishInvalidRequest(const std::filesystem::path& url,
                                                           const std::string& errorMessage) {
    auto parsed = Uuid::parse(url.stem().string());
    const Uuid promptID = parsed ? *parsed : uuids_->next();
    const QuillfortPromptBridgeResponseEnvelope responseEnvelope{
        .promptID = promptID,
        .response = std::nullopt,
        .errorMessage = errorMessage,
        .createdAt = now(),
    };
    finishRequest(promptID, url, responseEnvelope);
}

void QuillfortAgentPromptServiceHost::processPendingAutomationCommand() {
    auto loaded = promptAgentAutomationCommandStore().loadIfPresent();
    if (!loaded || !*loaded) return;
    const auto command = **loaded;
    // Cleared before acting, so a command is applied at most once.
    (void)promptAgentAutomationCommandStore().clear();

    onMainThread([command](QuillfortAgentPromptServiceHost& self) {
        const auto& sessions = self.coordinator_->activePrompts().value();
        const bool active = std::any_of(sessions.begin(), sessions.end(), [&](const AgentPromptSession& session) {
            return session.request.id == command.promptID;
        });
        if (!active) {
            self.logger_.log("Ignoring prompt automation command for %{public}s because the prompt is no longer active.",
                             command.promptID.uppercaseString());
            return;
        }
        self.logger_.log("Applying prompt automation command for %{public}s using preset %{public}s.",
                         command.promptID.uppercaseString(), command.preset);
        self.coordinator_->resolvePrompt(command.promptID,
                                         AgentPromptDecisionPresets::fromAutomationPreset(command.preset));
    });
}

// ---------------------------------------------------------------------------
// Loopback listener

void QuillfortAgentPromptServiceHost::startLoopbackListener() {
    if (loopbackListenerDisabled_) {
        logger_.log(
            "Skipping the loopback prompt listener because automation explicitly disabled it for this "
            "QuillfortAgent launch.");
        return;
    }
    // Clients only ever connect to 127.0.0.1, so nothing beyond this machine
    // needs to reach the port.
    auto listener = LoopbackListener::make(bridgeQueue_->context(),
                                           std::string(QuillfortPromptEndpointStore::defaultLoopbackHost),
                                           requestedLoopbackPort_);
    if (!listener) {
        logger_.error("Failed to initialize the loopback prompt listener: %{public}s", listener.error());
        return;
    }
    onBridgeQueue([listener = std::move(*listener)](QuillfortAgentPromptServiceHost& self) {
        auto weak = self.weakSelf();
        self.loopbackListener_ = listener;
        listener->start(
            [weak](LoopbackListener::State state, const std::optional<Error>& error) {
                if (auto host = weak.lock()) host->handleLoopbackListenerState(state, error);
            },
            [weak](std::shared_ptr<LoopbackConnection> connection) {
                if (auto host = weak.lock()) host->receiveLoopbackRequest(connection);
            },
            [weak](const Error& error) {
                if (auto host = weak.lock()) host->logger_.error("Loopback prompt connection failed: %{public}s", error);
            });
    });
}

void QuillfortAgentPromptServiceHost::handleLoopbackListenerState(LoopbackListener::State state,
                                                                  const std::optional<Error>& error) {
    switch (state) {
        case LoopbackListener::State::ready: {
            const auto port = loopbackListener_ ? loopbackListener_->port() : requestedLoopbackPort_;
            boundLoopbackPort_ = port;
            logger_.log("Listening for loopback prompt requests on %{public}s:%{public}hu.",
                        QuillfortPromptEndpointStore::defaultLoopbackHost, port);
            publishStatus([](PromptAgentStatusSnapshot& status) {
                status.loopbackListenerReady = true;
                status.statusText = status.manifestPublished ? "Prompt bridge ready."
                                                             : "Loopback listener ready (manifest unavailable).";
            });
            return;
        }
        case LoopbackListener::State::failed:
            logger_.error("Failed to start the loopback prompt listener: %{public}s",
                          error ? error->description : std::string());
            publishStatus([](PromptAgentStatusSnapshot& status) {
                status.loopbackListenerReady = false;
                status.statusText = status.manifestPublished
                                        ? "Prompt manifest published, but the loopback listener failed."
                                        : "Prompt bridge degraded: loopback listener failed.";
            });
            return;
    }
}

void QuillfortAgentPromptServiceHost::receiveLoopbackFrame(const std::shared_ptr<LoopbackConnection>& connection,
                                                           FrameCompletion completion) {
    auto read = std::make_shared<FrameRead>(FrameRead{
        .connection = connection,
        .reader = {},
        .completion = std::move(completion),
        .queue = bridgeQueue_->context().get_executor(),
        .maximumSize = maximumRequestSize_,
        .deadline = boost::asio::steady_timer(bridgeQueue_->context()),
    });
    // An idle or trickling client must not hold a descriptor for ever. Closing
    // the socket ends the pending receive, which then reports the time-out.
    read->deadline.expires_after(loopbackRequestTimeout_);
    read->deadline.async_wait([weak = std::weak_ptr<FrameRead>(read)](const boost::system::error_code& code) {
        auto pending = weak.lock();
        if (code || !pending || pending->finished) return;
        pending->timedOut = true;
        pending->connection->cancel();
    });
    receiveFrameBytes(std::move(read));
}

void QuillfortAgentPromptServiceHost::receiveLoopbackRequest(const std::shared_ptr<LoopbackConnection>& connection) {
    std::erase_if(loopbackConnections_, [](const auto& weak) { return weak.expired(); });
    loopbackConnections_.push_back(connection);

    receiveLoopbackFrame(connection, [weak = weakSelf(), connection](Result<std::string> frame) {
        auto self = weak.lock();
        if (!self) {
            connection->cancel();
            return;
        }
        if (!frame && frame.error().code ==
                          std::error_code(static_cast<int>(LoopbackPromptErrorCode::payloadTooLarge),
                                          LoopbackPromptError::category())) {
            // The client is told why, rather than left with a closed connection.
            self->logger_.error("Failed to receive the loopback prompt request: %{public}s", frame.error());
            self->sendLoopbackResponse(
                QuillfortPromptBridgeResponseEnvelope{
                    .promptID = self->uuids_->next(),
                    .response = std::nullopt,
                    .errorMessage = self->oversizeRequestMessage(),
                    .createdAt = self->now(),
                },
                connection);
            return;
        }
        if (!frame) {
            self->logger_.error("Failed to receive the loopback prompt request: %{public}s", frame.error());
            connection->cancel();
            return;
        }
        auto envelope = decodeJson<QuillfortPromptBridgeRequestEnvelope>(*frame);
        if (!envelope) {
            self->logger_.error("Failed to decode the loopback prompt request: %{public}s",
                                envelope.error().description());
            self->sendLoopbackResponse(
                QuillfortPromptBridgeResponseEnvelope{
                    .promptID = self->uuids_->next(),
                    .response = std::nullopt,
                    .errorMessage = std::string(undecodableRequestMessage),
                    .createdAt = self->now(),
                },
                connection);
            return;
        }

        self->recordPromptReceived();
        if (auto response = self->makeAutomationResponseIfNeeded(envelope->request)) {
            self->finishLoopbackRequest(*envelope, connection, response, std::nullopt);
            return;
        }
        self->onMainThread([envelope = std::move(*envelope), connection](QuillfortAgentPromptServiceHost& host) {
            auto weakHost = host.weakSelf();
            host.coordinator_->receivePrompt(
                envelope.request, [weakHost, envelope, connection](std::optional<FlowPromptResponse> response,
                                                                   std::optional<std::string> errorMessage) {
                    auto answering = weakHost.lock();
                    if (!answering) return;
                    answering->onBridgeQueue([envelope, connection, response = std::move(response),
                                              errorMessage = std::move(errorMessage)](QuillfortAgentPromptServiceHost& h) {
                        h.finishLoopbackRequest(envelope, connection, response, errorMessage);
                    });
                });
        });
    });
}

void QuillfortAgentPromptServiceHost::finishLoopbackRequest(const QuillfortPromptBridgeRequestEnvelope& envelope,
                                                            const std::shared_ptr<LoopbackConnection>& connection,
                                                            const std::optional<FlowPromptResponse>& response,
                                                            const std::optional<std::string>& errorMessage) {
    recordPromptResolved();
    if (response) persistResolvedSnapshotIfPossible(envelope.request, *response);
    sendLoopbackResponse(
        QuillfortPromptBridgeResponseEnvelope{
            .promptID = envelope.request.id,
            .response = response,
            .errorMessage = errorMessage,
            .createdAt = now(),
        },
        connection);
}

void QuillfortAgentPromptServiceHost::sendLoopbackResponse(const QuillfortPromptBridgeResponseEnvelope& envelope,
                                                           const std::shared_ptr<LoopbackConnection>& connection) {
    auto frame = encodeFrame(encodeCompact(envelope));
    if (!frame) {
        logger_.error("Failed to encode the loopback prompt response: %{public}s", frame.error().description());
        connection->cancel();
        return;
    }
    connection->sendFinal(std::move(*frame), [logger = logger_, connection](std::optional<Error> error) {
        if (error) logger.error("Failed to send the loopback prompt response: %{public}s", *error);
        connection->cancel();
    });
}

}  // namespace quillfort
