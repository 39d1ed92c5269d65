// An owned file descriptor: closed on every way out of a scope, movable, never
// copied. Sockets, netlink channels and directory handles all live in one.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quillfort {

class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~FileDescriptor() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
    explicit operator bool() const noexcept { return valid(); }

    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    // Closes now, reporting the error close gives (a delayed write error on
    // some file systems): 0 or the errno.
    [[nodiscard]] int close() noexcept {
        if (fd_ < 0) return 0;
        const int rc = ::close(std::exchange(fd_, -1));
        return rc == 0 ? 0 : errno;
    }

private:
    int fd_ = -1;
};

}  // namespace quillfort
