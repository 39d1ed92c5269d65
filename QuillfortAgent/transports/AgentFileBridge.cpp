#include "QuillfortAgent/transports/AgentFileBridge.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "model/Json.hpp"

namespace quillfort {

AgentFileBridge::AgentFileBridge(boost::asio::io_context& queue, std::shared_ptr<FileSystem> fileSystem,
                                 std::shared_ptr<Clock> clock, std::shared_ptr<UuidSource> uuids,
                                 std::uint32_t maximumRequestSize)
    : queue_(queue),
      fileManager_(std::move(fileSystem)),
      clock_(std::move(clock)),
      uuids_(std::move(uuids)),
      maximumRequestSize_(maximumRequestSize) {}

void AgentFileBridge::start(Directories directories, BridgePromptIntake intake, std::function<void()> afterPoll) {
    directories_ = std::move(directories);
    intake_ = std::move(intake);
    afterPoll_ = std::move(afterPoll);
    pollTimer_ = std::make_unique<boost::asio::steady_timer>(queue_);
    nextPollAt_ = std::chrono::steady_clock::now();  // the first poll runs at once
    schedulePoll();
    startWatchingDirectories();
}

void AgentFileBridge::stop() {
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
void AgentFileBridge::startWatchingDirectories() {
    std::vector<std::filesystem::path> directories{directories_->requests};
    if (directories_->session) directories.push_back(*directories_->session);  // the command file
    auto watcher = DirectoryWatcher::make(queue_, directories);
    if (!watcher) {
        logger_.error("Failed to watch the prompt bridge directories: %{public}s", watcher.error());
        return;
    }
    directoryWatcher_ = std::move(*watcher);
    directoryWatcher_->start([weak = weak_from_this()] {
        auto self = weak.lock();
        if (self && self->pollTimer_) self->processPendingRequests();
    });
}

bool AgentFileBridge::requestsMayHaveChanged() {
    auto identity = fileManager_->fileIdentity(directories_->requests);
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

void AgentFileBridge::schedulePoll() {
    pollTimer_->expires_at(nextPollAt_);
    pollTimer_->async_wait([weak = weak_from_this()](const boost::system::error_code& code) {
        if (code) return;  // cancelled
        auto self = weak.lock();
        if (!self || !self->pollTimer_) return;
        // Idle, a tick costs one stat and one look for the command file.
        if (!self->requestsMayHaveChanged()) {
            self->afterPoll_();
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

void AgentFileBridge::processPendingRequests() {
    auto listing = fileManager_->listDirectory(directories_->requests, /*skipHiddenEntries=*/true);
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
    afterPoll_();
}

void AgentFileBridge::processRequest(const std::filesystem::path& url) {
    if (auto identity = fileManager_->fileIdentity(url); identity && identity->size > maximumRequestSize_) {
        finishInvalidRequest(url, oversizeRequestMessage(maximumRequestSize_));
        logger_.error("Failed to decode prompt bridge request: %{public}s",
                      fmt::format("{} holds {} bytes.", url.filename().string(), identity->size));
        return;
    }
    std::size_t size = 0;
    auto envelope = [&]() -> Result<QuillfortPromptBridgeRequestEnvelope> {
        auto bytes = fileManager_->readFile(url);
        if (!bytes) return std::unexpected(std::move(bytes.error()));
        size = bytes->size();
        auto decoded = decodeJson<QuillfortPromptBridgeRequestEnvelope>(*bytes);
        if (!decoded) return std::unexpected(Error::withMessage(decoded.error().description()));
        return std::move(*decoded);
    }();
    if (!envelope) {
        finishInvalidRequest(url, std::string(undecodableRequestMessage));
        logger_.error("Failed to decode prompt bridge request: %{public}s", envelope.error());
        return;
    }

    const auto promptID = envelope->request.id;
    intake_(std::move(envelope->request), size,
            [weak = weak_from_this(), promptID, url](std::optional<FlowPromptResponse> response,
                                                     std::optional<std::string> errorMessage) {
                auto self = weak.lock();
                if (!self) return;
                self->finishRequest(promptID, url,
                                    QuillfortPromptBridgeResponseEnvelope{
                                        .promptID = promptID,
                                        .response = std::move(response),
                                        .errorMessage = std::move(errorMessage),
                                        .createdAt = self->now(),
                                    });
            });
}

void AgentFileBridge::finishRequest(const Uuid& promptID, const std::filesystem::path& requestURL,
                                    const QuillfortPromptBridgeResponseEnvelope& responseEnvelope) {
    // Named after the prompt, not after the request file: that is the name the
    // client waits for.
    const auto responseURL = directories_->responses / bridgeFileName(promptID);
    // A hand-off read at once by the waiting client, not a record: no fsync.
    auto written = fileManager_->replaceFileWithoutSync(responseURL, encodeCompact(responseEnvelope));
    if (written) written = QuillfortPromptEndpointStore::ensureAccessibleFile(responseURL, *fileManager_);
    if (!written) {
        logger_.error("Failed to write prompt bridge response for %{public}s: %{public}s",
                      promptID.uppercaseString(), written.error());
    }
    pendingRequestURLs_.erase(requestURL);
    (void)fileManager_->removeItem(requestURL);
}

void AgentFileBridge::finishInvalidRequest(const std::filesystem::path& url, const std::string& errorMessage) {
    auto parsed = Uuid::parse(url.stem().string());
    const Uuid promptID = parsed ? *parsed : uuids_->next();
    finishRequest(promptID, url,
                  QuillfortPromptBridgeResponseEnvelope{
                      .promptID = promptID,
                      .response = std::nullopt,
                      .errorMessage = errorMessage,
                      .createdAt = now(),
                  });
}

}  // namespace quillfort
