#include "QuillfortAgent/host/QuillfortAgentPromptServiceHost.hpp"

#include <unistd.h>

#include <utility>

#include "contracts/FlowPromptResolution.hpp"
#include "contracts/QuillfortSharedContainer.hpp"

namespace quillfort {

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
      ruleSnapshotMerger_(*fileManager_,
                          RuleSnapshotStore::inSharedContainer(*fileManager_, homeDirectoryURL_).snapshotURL()),
      promptAgentStatusStore_(PromptAgentStatusStore::inSharedContainer(*fileManager_, homeDirectoryURL_)),
      automationDirective_(FlowPromptAutomationDirective::fromEnvironment(dependencies.processInfo.environment)),
      loopbackListenerDisabled_(
          dependencies.processInfo.environmentValue(std::string(disableLoopbackListenerVariable)) == "1"),
      queuedRequestBytesBudget_(dependencies.queuedRequestBytesBudget),
      sessionIdentifier_(uuids_->next().uppercaseString()),
      bridgeQueue_(std::make_unique<BridgeQueue>()),
      automatedAnswerBatch_(bridgeQueue_->context()) {
    statusReporter_ = std::make_shared<AgentStatusReporter>(coordinator_, mainThread_, fileManager_,
                                                            promptAgentStatusStore_, clock_);
    fileBridge_ = std::make_shared<AgentFileBridge>(bridgeQueue_->context(), fileManager_, clock_, uuids_,
                                                    dependencies.maximumRequestSize);
    loopbackServer_ = std::make_shared<AgentLoopbackServer>(
        bridgeQueue_->context(), clock_, uuids_, dependencies.loopbackPort,
        AgentLoopbackServer::Limits{.requestTimeout = dependencies.loopbackRequestTimeout,
                                    .maximumRequestSize = dependencies.maximumRequestSize,
                                    .frameBytesBudget = dependencies.loopbackFrameBytesBudget},
        std::make_unique<LoopbackPeerCheck>(::geteuid(), std::move(dependencies.trustedGroup)));
}

QuillfortAgentPromptServiceHost::~QuillfortAgentPromptServiceHost() {
    stopServing();

    // The writer must be done before the file goes, or it could bring it back.
    statusReporter_->stop(/*flushPending=*/started_ && keepFilesOnTeardown_);

    // A host that never started has nothing of its own on disk; clearing would
    // only take the manifest and status away from another running agent.
    if (!started_ || keepFilesOnTeardown_) return;
    (void)QuillfortPromptEndpointStore::clear(*fileManager_, homeDirectoryURL_);
    (void)promptAgentStatusStore_.clear();
    (void)automationCommands_->clear();
    if (const auto& session = sessionDirectoryURL()) (void)fileManager_->removeItem(*session);
}

void QuillfortAgentPromptServiceHost::stopServing() {
    bridgeQueue_->shutdown([this] { cancelServingOnBridgeQueue(); });
}

void QuillfortAgentPromptServiceHost::stopForProcessExit() {
    keepFilesOnTeardown_ = true;
    stopServing();
    // The next launch and the tool find the newest status, not one a write behind.
    statusReporter_->stop(/*flushPending=*/true);
}

void QuillfortAgentPromptServiceHost::cancelServingOnBridgeQueue() {
    fileBridge_->stop();
    loopbackServer_->stop();
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

PromptAgentStatusSnapshot QuillfortAgentPromptServiceHost::status() const { return statusReporter_->snapshot(); }

std::uint16_t QuillfortAgentPromptServiceHost::loopbackPort() const noexcept { return loopbackServer_->port(); }

PromptAgentQueuedPromptSnapshot QuillfortAgentPromptServiceHost::makeQueuedPromptSnapshot(
    const AgentPromptSession& session) {
    return AgentStatusPublisher::makeQueuedPromptSnapshot(session);
}

PromptAgentActivePromptSnapshot QuillfortAgentPromptServiceHost::makeActivePromptSnapshot(
    const AgentPromptSession& session, std::int64_t queueCount) {
    return AgentStatusPublisher::makeActivePromptSnapshot(makeQueuedPromptSnapshot(session), queueCount);
}

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

// ---------------------------------------------------------------------------
// start()

void QuillfortAgentPromptServiceHost::start() {
    if (started_) return;
    started_ = true;

    statusReporter_->observeCoordinator();

    std::optional<std::filesystem::path> commandLocation;
    if (const auto& session = sessionDirectoryURL()) {
        commandLocation = *session / QuillfortSharedContainer::promptAgentAutomationCommandFilename;
    }
    automationCommands_ =
        std::make_shared<AgentAutomationCommands>(fileManager_, std::move(commandLocation), coordinator_, mainThread_);
    (void)automationCommands_->clear();

    statusReporter_->publish(
        [initial = statusReporter_->initialStatus()](PromptAgentStatusSnapshot& status) { status = initial; });

    bool manifestPublished = false;
    const auto& requests = requestDirectoryURL();
    const auto& responses = responseDirectoryURL();
    if (!requests || !responses) {
        logger_.error("Failed to resolve the Quillfort prompt bridge directories.");
    } else if (auto published = publishManifest(*requests, *responses); !published) {
        logger_.error("Failed to publish prompt listener endpoint: %{public}s", published.error());
    } else {
        startFileBridge();
        manifestPublished = true;
        const auto manifest = QuillfortPromptEndpointStore::listenerEndpointURL(*fileManager_, homeDirectoryURL_);
        logger_.log(
            "Published prompt listener manifest at %{public}s for file transport session %{public}s. "
            "requests=%{public}s responses=%{public}s",
            manifest ? manifest->string() : std::string("<nil>"), sessionIdentifier_, requests->string(),
            responses->string());
    }

    statusReporter_->publish([manifestPublished,
                              disabled = loopbackListenerDisabled_](PromptAgentStatusSnapshot& status) {
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
    statusReporter_->publishPresentationState();
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

void QuillfortAgentPromptServiceHost::startFileBridge() {
    AgentFileBridge::Directories directories{
        .requests = *requestDirectoryURL(),
        .responses = *responseDirectoryURL(),
        .session = sessionDirectoryURL(),
    };
    onBridgeQueue([directories = std::move(directories)](QuillfortAgentPromptServiceHost& self) {
        self.fileBridge_->start(directories, self.promptIntake(),
                                [commands = std::weak_ptr<AgentAutomationCommands>(self.automationCommands_)] {
                                    if (auto pending = commands.lock()) pending->processPending();
                                });
    });
}

void QuillfortAgentPromptServiceHost::startLoopbackListener() {
    if (loopbackListenerDisabled_) {
        logger_.log(
            "Skipping the loopback prompt listener because automation explicitly disabled it for this "
            "QuillfortAgent launch.");
        return;
    }
    loopbackServer_->start(promptIntake(), [weak = weakSelf()](bool ready) {
        if (auto self = weak.lock()) self->publishLoopbackReadiness(ready);
    });
}

void QuillfortAgentPromptServiceHost::publishLoopbackReadiness(bool ready) {
    statusReporter_->publish([ready](PromptAgentStatusSnapshot& status) {
        status.loopbackListenerReady = ready;
        if (ready) {
            status.statusText = status.manifestPublished ? "Prompt bridge ready."
                                                         : "Loopback listener ready (manifest unavailable).";
        } else {
            status.statusText = status.manifestPublished
                                    ? "Prompt manifest published, but the loopback listener failed."
                                    : "Prompt bridge degraded: loopback listener failed.";
        }
    });
}

// ---------------------------------------------------------------------------
// The prompt path both transports share

BridgePromptIntake QuillfortAgentPromptServiceHost::promptIntake() {
    return [weak = weakSelf()](FlowPromptRequest request, std::size_t size, BridgePromptReply reply) {
        if (auto self = weak.lock()) self->receivePrompt(std::move(request), size, std::move(reply));
    };
}

namespace {

// A queued prompt's bytes, given back when the last copy of its reply callback
// goes: after its answer is sent, or when the prompt is dropped unanswered.
class QueuedRequestBytes {
public:
    QueuedRequestBytes(std::shared_ptr<std::atomic<std::uint64_t>> total, std::uint64_t size)
        : total_(std::move(total)), size_(size) {
        *total_ += size_;
    }
    QueuedRequestBytes(const QueuedRequestBytes&) = delete;
    QueuedRequestBytes& operator=(const QueuedRequestBytes&) = delete;
    ~QueuedRequestBytes() { *total_ -= size_; }

private:
    std::shared_ptr<std::atomic<std::uint64_t>> total_;
    std::uint64_t size_;
};

}  // namespace

void QuillfortAgentPromptServiceHost::receivePrompt(FlowPromptRequest request, std::size_t size,
                                                    BridgePromptReply reply) {
    statusReporter_->recordPromptReceived();
    if (auto response = makeAutomationResponseIfNeeded(request)) {
        finishPrompt(request, response, std::nullopt, reply);
        recordAutomatedAnswer(std::move(request), std::move(*response));
        return;
    }
    // Only the bridge queue adds, so the total read here can only have fallen
    // by the time it is added to.
    if (queuedRequestBytes_->load() + size > queuedRequestBytesBudget_) {
        logger_.error("Refused prompt %{public}s of %{public}s bytes: the queue already holds %{public}s bytes.",
                      request.id.uppercaseString(), std::to_string(size), std::to_string(queuedRequestBytes_->load()));
        reply(std::nullopt, queueBudgetExceededMessage(queuedRequestBytesBudget_));
        return;
    }
    auto held = std::make_shared<const QueuedRequestBytes>(queuedRequestBytes_, size);
    onMainThread([request = std::move(request), reply = std::move(reply),
                  held = std::move(held)](QuillfortAgentPromptServiceHost& self) {
        auto weak = self.weakSelf();
        self.coordinator_->receivePrompt(
            request, [weak, request, reply, held](std::optional<FlowPromptResponse> response,
                                                  std::optional<std::string> errorMessage) {
                auto host = weak.lock();
                if (!host) return;
                host->onBridgeQueue([request, reply, held, response = std::move(response),
                                     errorMessage = std::move(errorMessage)](QuillfortAgentPromptServiceHost& self) {
                    self.finishPrompt(request, response, errorMessage, reply);
                });
            });
    });
}

void QuillfortAgentPromptServiceHost::finishPrompt(const FlowPromptRequest& request,
                                                   std::optional<FlowPromptResponse> response,
                                                   std::optional<std::string> errorMessage,
                                                   const BridgePromptReply& reply) {
    statusReporter_->recordPromptResolved();
    if (response) persistResolvedSnapshotIfPossible(request, *response);
    reply(std::move(response), std::move(errorMessage));
}

std::optional<FlowPromptResponse> QuillfortAgentPromptServiceHost::makeAutomationResponseIfNeeded(
    const FlowPromptRequest& request) {
    if (!automationDirective_) return std::nullopt;
    if (automationDirective_->focus && !automationDirective_->focus->matches(request)) return std::nullopt;

    auto response = makeResponse(automationDirective_->preset, request, *uuids_);
    logger_.log("Auto-resolved prompt %{public}s using preset %{public}s.", request.id.uppercaseString(),
                automationDirective_->preset);
    return response;
}

// The coordinator records every automated answer (and lets a lasting one
// settle the prompts it decides), but nobody waits for that: the answers of a
// burst travel to the main thread together, one hop per batch instead of one
// per prompt, in the order they were given. The client has its answer before.
void QuillfortAgentPromptServiceHost::recordAutomatedAnswer(FlowPromptRequest request, FlowPromptResponse response) {
    const bool first = automatedAnswers_.empty();
    automatedAnswers_.emplace_back(std::move(request), std::move(response));
    if (!first) return;
    automatedAnswerBatch_.expires_after(automatedAnswerBatchDelay);
    automatedAnswerBatch_.async_wait([weak = weakSelf()](const boost::system::error_code& code) {
        auto self = weak.lock();
        if (code || !self) return;
        self->onMainThread([answers = std::exchange(self->automatedAnswers_, {})](
                               QuillfortAgentPromptServiceHost& host) {
            for (const auto& [answered, given] : answers) {
                host.coordinator_->recordAutomatedResolution(answered, given);
                host.coordinator_->resolvePromptsDecidedBy(given);
            }
        });
    });
}

void QuillfortAgentPromptServiceHost::persistResolvedSnapshotIfPossible(const FlowPromptRequest& request,
                                                                        const FlowPromptResponse& response) {
    constexpr std::string_view failure =
        "Failed to persist the prompt-resolved shared rule snapshot in the agent helper: %{public}s";
    if (auto merged = ruleSnapshotMerger_.merge(request, response, now(), *uuids_); !merged)
        logger_.error(failure, merged.error());
}

}  // namespace quillfort
