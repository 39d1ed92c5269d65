#include "QuillfortAgent/transports/AgentFileBridge.hpp"

#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
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
    serving_ = true;
    startWatchingDirectories();
    startPollTimer();
    processPendingRequests();  // the first poll runs at once
}

void AgentFileBridge::stop() {
    serving_ = false;
    if (directoryWatcher_) {
        directoryWatcher_->cancel();
        directoryWatcher_.reset();
    }
    if (!pollTimer_) return;
    boost::system::error_code ignored;
    pollTimer_->close(ignored);  // the pending read ends with operation_aborted
    pollTimer_.reset();
}

void AgentFileBridge::startPollTimer() {
    const int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    const auto interval = std::chrono::duration_cast<std::chrono::nanoseconds>(pollInterval).count();
    const itimerspec every{.it_interval = {.tv_sec = interval / 1'000'000'000, .tv_nsec = interval % 1'000'000'000},
                           .it_value = {.tv_sec = interval / 1'000'000'000, .tv_nsec = interval % 1'000'000'000}};
    if (fd < 0 || ::timerfd_settime(fd, 0, &every, nullptr) != 0) {
        const int err = errno;
        if (fd >= 0) ::close(fd);
        // Requests still arrive through the watch, when there is one.
        logger_.error("Failed to start the prompt bridge poll: %{public}s", Error::fromErrno(err, "timerfd"));
        return;
    }
    pollTimer_ = std::make_unique<boost::asio::posix::stream_descriptor>(queue_, fd);
    waitForTick();
}

void AgentFileBridge::waitForTick() {
    pollTimer_->async_read_some(
        boost::asio::buffer(&tickExpirations_, sizeof tickExpirations_),
        [weak = weak_from_this()](const boost::system::error_code& code, std::size_t) {
            if (code) return;  // stopped
            auto self = weak.lock();
            if (!self || !self->serving_) return;
            self->tick();
            if (self->serving_ && self->pollTimer_) self->waitForTick();
        });
}

// Idle, a tick is one look at the watch: while it works, every file that
// landed (request or command) and every loss of a directory has already been
// handled when it was reported, and there is nothing to look for. Without a
// working watch the tick stats the requests directory, lists it when that
// changed, and looks for the command file.
void AgentFileBridge::tick() {
    if (directoryWatcher_ && directoryWatcher_->watching()) return;
    if (requestsMayHaveChanged()) {
        processPendingRequests();
    } else {
        afterPoll_();
    }
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
        if (self && self->serving_) self->processPendingRequests();
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
