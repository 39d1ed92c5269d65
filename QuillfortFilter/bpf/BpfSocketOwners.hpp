// The filter's side of the socket-owner programs: loads and attaches them,
// and looks up who made a flow and where an exited process was started from.
// Loading needs CAP_BPF, CAP_PERFMON and CAP_NET_ADMIN (or root) and a kernel
// with BTF and cgroup v2; the lookups afterwards need no privilege. The
// programs detach by themselves when the filter's process ends.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuillfortFilter/bpf/SocketOwnerRecords.h"
#include "platform/Error.hpp"

struct bpf_link;

namespace quillfort {

class BpfSocketOwners {
public:
    // Loads the programs for the network namespace with cookie `netnsCookie`
    // (0: all) and attaches them to the cgroup v2 root mounted at `cgroupRoot`.
    // An error says why they cannot run here; the filter then attributes flows
    // without them.
    [[nodiscard]] static Result<std::unique_ptr<BpfSocketOwners>> load(std::uint64_t netnsCookie,
                                                                       const std::filesystem::path& cgroupRoot);

    ~BpfSocketOwners();
    BpfSocketOwners(const BpfSocketOwners&) = delete;
    BpfSocketOwners& operator=(const BpfSocketOwners&) = delete;

    [[nodiscard]] std::optional<qf_flow_owner> flowOwner(const qf_flow_key& key) const;
    // How many execs the machine has seen since the programs loaded, read
    // from memory the kernel program writes (no system call).
    [[nodiscard]] const volatile std::uint64_t* execGeneration() const;
    struct StartedProgram {
        std::string path;
        std::vector<std::string> arguments;  // as far as the record holds whole ones
    };
    // What the thread group `tgid` was last started as, when that start is
    // the one at `startBoottimeNs`.
    [[nodiscard]] std::optional<StartedProgram> startedProgram(std::uint32_t tgid,
                                                               std::uint64_t startBoottimeNs) const;
    // The whole NUL-terminated pieces of a recorded argument list; a piece
    // cut short by the record's end is left out rather than taken for a name.
    [[nodiscard]] static std::vector<std::string> recordedArguments(std::string_view args);

    // The mount point of the cgroup v2 hierarchy in a mountinfo text, or nothing.
    [[nodiscard]] static std::optional<std::filesystem::path> cgroup2Mount(std::string_view mountinfo);

private:
    struct Skeleton;
    BpfSocketOwners(Skeleton* skeleton, std::vector<bpf_link*> links) : skeleton_(skeleton), links_(std::move(links)) {}
    Skeleton* skeleton_;
    std::vector<bpf_link*> links_;
};

}  // namespace quillfort
