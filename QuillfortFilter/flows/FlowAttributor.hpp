// Who made a flow and what it is about: the process (from the kernel's
// socket-owner record, or sock_diag and /proc), its ancestors, the names its
// remote address was given in DNS answers, and the code identity of the
// executables involved. Turns a queued packet into the context events and
// prompts carry and the facts rules are matched against.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "QuillfortFilter/bpf/BpfSocketOwners.hpp"
#include "QuillfortFilter/flows/HostNameCache.hpp"
#include "QuillfortFilter/flows/PendingPrompts.hpp"
#include "QuillfortFilter/kernel/PacketQueue.hpp"
#include "QuillfortFilter/process/ExecutableIdentities.hpp"
#include "QuillfortFilter/process/IdentityWorker.hpp"
#include "QuillfortFilter/process/ProcessCache.hpp"
#include "QuillfortFilter/process/SocketInodeIndex.hpp"
#include "QuillfortFilter/rules/RuleMatcher.hpp"
#include "model/FlowContext.hpp"
#include "platform/SocketDiagnostics.hpp"

namespace quillfort {

struct AttributedFlow {
    FlowTuple tuple;
    std::shared_ptr<const ProcessRecord> process;
    std::optional<ProcessNode> exitedProcess;  // named from the kernel's record after it exited
    std::int32_t exitedParentPid = 0;
    std::vector<std::shared_ptr<const ProcessRecord>> ancestors;
    bool kernel = false;         // no process owns it: the kernel's own traffic
    bool noLocalSocket = false;  // inbound to a port nothing listens on
    std::optional<std::uint32_t> uid;
    std::optional<HostNameMatch> names;

    [[nodiscard]] const ProcessNode* node() const {
        if (process) return &process->node;
        if (exitedProcess) return &*exitedProcess;
        return nullptr;
    }
};

class FlowAttributor {
public:
    using Clock = std::chrono::steady_clock;

    FlowAttributor(ProcessLineage::ProcfsView procfs, std::shared_ptr<ExecutableIdentities> identities);

    // The kernel programs, when they could be loaded, for the network
    // namespace with cookie `netns`; sock_diag for everything else.
    void useSocketOwners(std::unique_ptr<BpfSocketOwners> owners, std::uint64_t netns);
    void useSocketDiagnostics(SocketDiagnostics diagnostics);
    [[nodiscard]] bool hasSocketOwners() const noexcept { return owners_ != nullptr; }
    [[nodiscard]] const std::optional<SocketDiagnostics>& socketDiagnostics() const noexcept { return sockets_; }

    [[nodiscard]] AttributedFlow attribute(const QueuedPacket& packet, const FlowTuple& tuple, Clock::time_point now);

    // What events and prompts carry: the flow, the process with the tags it
    // inherits and its ancestors, the asked name. `flowID` names the flow.
    [[nodiscard]] static FlowContext context(const AttributedFlow& flow, std::string flowID);
    // What rules are matched against; points into `context`, which must outlive it.
    [[nodiscard]] static FlowFacts facts(const FlowContext& context, const AttributedFlow& flow);

    // Fills in the code identity of the flow's executables that is already
    // known; true when some executable has yet to be hashed.
    [[nodiscard]] bool needsCodeIdentity(const AttributedFlow& flow);
    // The hashing jobs for what `needsCodeIdentity` found missing, with the
    // executables' (inode, mtime) keys the flow waits for.
    [[nodiscard]] std::vector<IdentityWorker::Job> codeIdentityJobs(const AttributedFlow& flow) const;
    void codeIdentityFound(const ExecutableFileKey& key, const ExecutableCodeIdentity& identity);

    enum class Answer { ignored, learned, refused };
    // Learns the names in one DNS answer as the log group copied it.
    Answer learnFromDnsAnswer(std::span<const std::uint8_t> packet, Clock::time_point now);

    [[nodiscard]] const ProcessCache& processes() const noexcept { return processes_; }
    [[nodiscard]] const HostNameCache& hostNames() const noexcept { return hostNames_; }
    [[nodiscard]] const ExecutableIdentities& identities() const noexcept { return *identities_; }
    [[nodiscard]] const std::shared_ptr<ExecutableIdentities>& sharedIdentities() const noexcept { return identities_; }

    // The process that names traffic the kernel sends itself.
    [[nodiscard]] static ProcessNode kernelNode();

private:
    [[nodiscard]] std::uint64_t ticksOf(std::uint64_t startNs) const;
    [[nodiscard]] ProcessNode exitedNode(const qf_flow_owner& owner) const;
    [[nodiscard]] qf_flow_key keyOf(std::uint8_t protocol, std::uint16_t localPort, const IpEndpoint& remote) const;
    [[nodiscard]] static std::vector<const ProcessRecord*> recordsOf(const AttributedFlow& flow);

    ProcessCache processes_;
    SocketInodeIndex inodes_;
    std::shared_ptr<ExecutableIdentities> identities_;
    HostNameCache hostNames_;
    std::unique_ptr<BpfSocketOwners> owners_;
    std::optional<SocketDiagnostics> sockets_;
    std::uint64_t netns_ = 0;
};

}  // namespace quillfort
