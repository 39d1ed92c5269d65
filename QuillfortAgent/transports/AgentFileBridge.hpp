// The file transport of the service host: the 100 ms poll of this session's
// requests directory (with an inotify watch so most requests need no tick),
// each request file decoded and handed to the host, and its answer written as a
// response file named after the prompt. While the watch works, an idle tick
// costs nothing but its wake-up.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include "QuillfortAgent/host/BridgePromptIntake.hpp"
#include "QuillfortAgent/transports/DirectoryWatcher.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "model/Date.hpp"
#include "model/Uuid.hpp"
#include "platform/Clock.hpp"
#include "platform/FileSystem.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

// Threads: made on the main thread; start(), stop() and everything they lead
// to run on the bridge queue, whose io_context must outlive this object.
class AgentFileBridge : public std::enable_shared_from_this<AgentFileBridge> {
public:
    static constexpr std::chrono::milliseconds pollInterval{100};

    struct Directories {
        std::filesystem::path requests;
        std::filesystem::path responses;
        std::optional<std::filesystem::path> session;  // watched for the automation command file
    };

    AgentFileBridge(boost::asio::io_context& queue, std::shared_ptr<FileSystem> fileSystem,
                    std::shared_ptr<Clock> clock, std::shared_ptr<UuidSource> uuids,
                    std::uint32_t maximumRequestSize);

    // Polls at once and then on every tick. `intake` gets each decoded request;
    // `afterPoll` (the automation command's look) runs after every listing of
    // the directory, and on every tick while no watch reports the changes.
    void start(Directories directories, BridgePromptIntake intake, std::function<void()> afterPoll);
    // Ends the poll and the watch; requests handed on still get their answers
    // written if the host lives on. Idempotent.
    void stop();

private:
    void startPollTimer();
    void waitForTick();
    void tick();
    void startWatchingDirectories();
    // True when the poll tick must list the requests directory; see the
    // fields it keeps below.
    [[nodiscard]] bool requestsMayHaveChanged();
    void processPendingRequests();
    void processRequest(const std::filesystem::path& url);
    void finishRequest(const Uuid& promptID, const std::filesystem::path& requestURL,
                       const QuillfortPromptBridgeResponseEnvelope& responseEnvelope);
    void finishInvalidRequest(const std::filesystem::path& url, const std::string& errorMessage);
    [[nodiscard]] Date now() const { return dateFrom(clock_->now()); }

    boost::asio::io_context& queue_;
    std::shared_ptr<FileSystem> fileManager_;
    std::shared_ptr<Clock> clock_;
    std::shared_ptr<UuidSource> uuids_;
    std::uint32_t maximumRequestSize_;
    Logger logger_{QuillfortLogCategory::agent};

    std::optional<Directories> directories_;
    BridgePromptIntake intake_;
    std::function<void()> afterPoll_;
    bool serving_ = false;  // from start() to stop()
    // A periodic timerfd: the kernel keeps the ticks on the grid of the first
    // one, and a tick missed while the queue was busy is not made up.
    std::unique_ptr<boost::asio::posix::stream_descriptor> pollTimer_;
    std::uint64_t tickExpirations_ = 0;  // what the timer's read gives; not used
    std::shared_ptr<DirectoryWatcher> directoryWatcher_;
    // Request files handed on and not yet answered: they stay in the directory
    // while the coordinator holds their prompt and must not be taken again.
    std::set<std::filesystem::path> pendingRequestURLs_;
    // The requests directory as the poll tick last listed it, and how many tick
    // listings in a row found it so. A directory's time stamp is coarse, so a
    // file made just after one listing can leave it as it was; a second listing
    // a tick later catches that file, and only then is the directory quiet.
    std::optional<FileIdentity> tickListedIdentity_;
    int tickListingsAtIdentity_ = 0;
    std::optional<std::string> lastEnumerationFailure_;
};

}  // namespace quillfort
