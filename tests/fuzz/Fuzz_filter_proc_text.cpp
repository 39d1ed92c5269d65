// Text the filter reads from /proc, which other processes shape: a process's
// stat line (its command name may hold anything), mountinfo, and descriptor
// link targets.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "QuillfortFilter/bpf/BpfSocketOwners.hpp"
#include "QuillfortFilter/process/ProcessLineage.hpp"
#include "QuillfortFilter/process/SocketInodeIndex.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillfort;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (auto stat = ProcessLineage::parseStat(text))
        if (stat->parentPid < 0) __builtin_trap();
    (void)BpfSocketOwners::cgroup2Mount(text);
    (void)SocketInodeIndex::socketInode(text);
    return 0;
}
