#include "QuillfortAgent/transports/DirectoryWatcher.hpp"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include <boost/asio/error.hpp>

#include "support/QuillfortLogger.hpp"

namespace quillfort {

Result<std::shared_ptr<DirectoryWatcher>> DirectoryWatcher::make(
    boost::asio::io_context& context, const std::vector<std::filesystem::path>& directories) {
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) return std::unexpected(Error::fromErrno(errno, "inotify"));
    // Clients write a temporary and rename it into place (IN_MOVED_TO); one that
    // writes in place is seen when it closes the file (IN_CLOSE_WRITE). A
    // watched directory that is moved or removed ends its watch.
    constexpr std::uint32_t mask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR;
    for (const auto& directory : directories) {
        if (::inotify_add_watch(fd, directory.c_str(), mask) < 0) {
            const int err = errno;
            ::close(fd);
            return std::unexpected(Error::fromErrno(err, directory.string()));
        }
    }
    return std::shared_ptr<DirectoryWatcher>(new DirectoryWatcher(boost::asio::posix::stream_descriptor(context, fd)));
}

DirectoryWatcher::DirectoryWatcher(boost::asio::posix::stream_descriptor descriptor)
    : descriptor_(std::move(descriptor)) {}

void DirectoryWatcher::start(std::function<void()> onChange) {
    onChange_ = std::move(onChange);
    doRead();
}

void DirectoryWatcher::cancel() {
    boost::system::error_code ignored;
    descriptor_.close(ignored);
    onChange_ = nullptr;
}

bool DirectoryWatcher::namesVisibleFile(std::size_t size) {
    bool visible = false;
    std::size_t offset = 0;
    while (offset + sizeof(inotify_event) <= size) {
        inotify_event event{};
        std::memcpy(&event, buffer_.data() + offset, sizeof(event));
        // A directory of its own moved or removed: whatever takes its place is
        // not watched, so from now on only the poll sees it.
        if (event.mask & (IN_MOVE_SELF | IN_DELETE_SELF | IN_IGNORED)) lostDirectory_ = true;
        const char* name = buffer_.data() + offset + sizeof(inotify_event);
        if ((event.mask & IN_Q_OVERFLOW) || event.len == 0 || name[0] != '.') visible = true;
        offset += sizeof(inotify_event) + event.len;
    }
    return visible;
}

void DirectoryWatcher::doRead() {
    // One read drains everything queued so far; any event but those about hidden
    // files (a writer's temporary) means "look again".
    descriptor_.async_read_some(
        boost::asio::buffer(buffer_),
        [self = shared_from_this()](const boost::system::error_code& code, std::size_t size) {
            if (code == boost::asio::error::operation_aborted || !self->onChange_) return;
            if (code) {
                // Not fatal: the poll tick still finds every request, only later.
                Logger(QuillfortLogCategory::agent)
                    .error("Stopped watching the prompt bridge directories: %{public}s", code.message());
                self->onChange_ = nullptr;
                return;
            }
            if (self->namesVisibleFile(size)) self->onChange_();
            if (self->onChange_) self->doRead();
        });
}

}  // namespace quillfort
