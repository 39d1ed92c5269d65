// Tells the bridge queue when a file lands in a watched directory (inotify), so
// a request is handled when it appears instead of at the next poll tick, and
// whether every change is still being told.
#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include "platform/Error.hpp"

namespace quillfort {

// Lives on the io_context it was made on: start() and cancel() are called from
// tasks running there, and `onChange` runs there too.
class DirectoryWatcher : public std::enable_shared_from_this<DirectoryWatcher> {
public:
    // Watches each directory for files finished or moved in. Fails with the
    // errno of inotify when a watch cannot be set up.
    [[nodiscard]] static Result<std::shared_ptr<DirectoryWatcher>> make(
        boost::asio::io_context& context, const std::vector<std::filesystem::path>& directories);

    // `onChange` runs once per batch of events read together; which files they
    // name does not matter, the caller looks at the directory itself. An
    // overflowed event queue counts as a change like any other.
    void start(std::function<void()> onChange);
    void cancel();
    // False once cancelled, once reading the events failed, or once a watched
    // directory was moved or removed: changes are then no longer all reported.
    [[nodiscard]] bool watching() const noexcept { return static_cast<bool>(onChange_) && !lostDirectory_; }

private:
    explicit DirectoryWatcher(boost::asio::posix::stream_descriptor descriptor);
    void doRead();
    // Whether the `size` bytes of events just read name anything but hidden
    // files; notes a watched directory that went.
    [[nodiscard]] bool namesVisibleFile(std::size_t size);

    boost::asio::posix::stream_descriptor descriptor_;
    std::function<void()> onChange_;
    bool lostDirectory_ = false;
    alignas(8) std::array<char, 8192> buffer_{};
};

}  // namespace quillfort
