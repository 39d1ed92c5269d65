#include "QuillfortFilter/bpf/BpfSocketOwners.hpp"

#include <bpf/libbpf.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include <fmt/format.h>

#include "QuillfortFilter/bpf/SocketOwners.skel.h"
#include "platform/FileDescriptor.hpp"

namespace quillfort {

struct BpfSocketOwners::Skeleton : socket_owners {};

namespace {

// libbpf's own messages would go to stderr unasked; the filter reports the
// one error that matters itself.
int quietLibbpf(enum libbpf_print_level, const char*, va_list) { return 0; }

Error bpfError(int err, std::string_view step) {
    return Error{std::error_code(err, std::generic_category()),
                 fmt::format("Cannot {} the socket-owner programs: {}", step, std::strerror(err))};
}

}  // namespace

std::optional<std::filesystem::path> BpfSocketOwners::cgroup2Mount(std::string_view mountinfo) {
    std::istringstream lines{std::string(mountinfo)};
    for (std::string line; std::getline(lines, line);) {
        // "... <mount point> <options> - <type> <source> <super options>"
        const auto separator = line.find(" - ");
        if (separator == std::string::npos || line.compare(separator + 3, 8, "cgroup2 ") != 0) continue;
        std::istringstream fields(line.substr(0, separator));
        std::string field, mountPoint;
        for (int index = 0; index < 5 && fields >> field; ++index)
            if (index == 4) mountPoint = field;
        if (!mountPoint.empty() && mountPoint.find('\\') == std::string::npos) return std::filesystem::path(mountPoint);
    }
    return std::nullopt;
}

Result<std::unique_ptr<BpfSocketOwners>> BpfSocketOwners::load(std::uint64_t netnsCookie,
                                                               const std::filesystem::path& cgroupRoot) {
    libbpf_set_print(quietLibbpf);
    FileDescriptor cgroup(::open(cgroupRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!cgroup) return std::unexpected(bpfError(errno, "find the cgroup v2 root for"));
    socket_owners* skeleton = socket_owners__open();
    if (skeleton == nullptr) return std::unexpected(bpfError(errno, "open"));
    skeleton->rodata->target_netns_cookie = netnsCookie;
    if (int err = socket_owners__load(skeleton); err != 0) {
        socket_owners__destroy(skeleton);
        return std::unexpected(bpfError(-err, "load"));
    }
    std::vector<bpf_link*> links;
    auto fail = [&](std::string_view step) {
        const int err = errno;
        for (auto* link : links) bpf_link__destroy(link);
        socket_owners__destroy(skeleton);
        return std::unexpected(bpfError(err, step));
    };
    for (bpf_program* program : {skeleton->progs.quillfort_tcp_connect, skeleton->progs.quillfort_udp4_send,
                                 skeleton->progs.quillfort_udp6_send}) {
        bpf_link* link = bpf_program__attach_cgroup(program, cgroup.get());
        if (link == nullptr) return fail("attach");
        links.push_back(link);
    }
    bpf_link* exec = bpf_program__attach_raw_tracepoint(skeleton->progs.quillfort_exec, "sched_process_exec");
    if (exec == nullptr) return fail("attach");
    links.push_back(exec);
    return std::unique_ptr<BpfSocketOwners>(new BpfSocketOwners(static_cast<Skeleton*>(skeleton), std::move(links)));
}

BpfSocketOwners::~BpfSocketOwners() {
    for (auto* link : links_) bpf_link__destroy(link);
    socket_owners__destroy(skeleton_);
}

const volatile std::uint64_t* BpfSocketOwners::execGeneration() const {
    // __u64 is unsigned long long here, std::uint64_t unsigned long: the same 64 bits.
    static_assert(sizeof skeleton_->bss->exec_generation == sizeof(std::uint64_t));
    return reinterpret_cast<const volatile std::uint64_t*>(&skeleton_->bss->exec_generation);
}

std::optional<qf_flow_owner> BpfSocketOwners::flowOwner(const qf_flow_key& key) const {
    qf_flow_owner owner{};
    if (bpf_map__lookup_elem(skeleton_->maps.flow_owners, &key, sizeof key, &owner, sizeof owner, 0) != 0)
        return std::nullopt;
    return owner;
}

std::optional<BpfSocketOwners::StartedProgram> BpfSocketOwners::startedProgram(std::uint32_t tgid,
                                                                              std::uint64_t startBoottimeNs) const {
    qf_exec_record record{};
    if (bpf_map__lookup_elem(skeleton_->maps.exec_paths, &tgid, sizeof tgid, &record, sizeof record, 0) != 0)
        return std::nullopt;
    if (record.start_boottime_ns != startBoottimeNs) return std::nullopt;
    record.path[sizeof record.path - 1] = '\0';
    if (record.path[0] == '\0') return std::nullopt;
    const auto length = std::min<std::size_t>(record.args_length, sizeof record.args);
    return StartedProgram{record.path, recordedArguments(std::string_view(record.args, length))};
}

std::vector<std::string> BpfSocketOwners::recordedArguments(std::string_view args) {
    std::vector<std::string> arguments;
    for (std::size_t end; (end = args.find('\0')) != std::string_view::npos; args.remove_prefix(end + 1))
        arguments.emplace_back(args.substr(0, end));
    return arguments;
}

}  // namespace quillfort
