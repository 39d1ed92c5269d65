#include "platform/FileSystem.hpp"

#include "platform/PosixFileSystem.hpp"

namespace quillfort {

std::shared_ptr<FileSystem> defaultFileSystem() {
    static const std::shared_ptr<FileSystem> fileSystem =
        std::make_shared<PosixFileSystem>(ProcessInfo::current());
    return fileSystem;
}

}  // namespace quillfort
