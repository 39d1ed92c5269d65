#include "QuillfortFilter/flows/FlowAttributor.hpp"

#include <cstring>

#include "QuillfortFilter/packet/DnsMessage.hpp"
#include "QuillfortFilter/process/ProcessTags.hpp"
#include "model/Text.hpp"

namespace quillfort {

namespace {

TransportProtocol transportOf(std::uint8_t protocol) {
    return protocol == PacketParser::tcp ? TransportProtocol::tcp
           : protocol == PacketParser::udp ? TransportProtocol::udp
                                           : TransportProtocol::unknown;
}

}  // namespace

FlowAttributor::FlowAttributor(ProcessLineage::ProcfsView procfs, std::shared_ptr<ExecutableIdentities> identities)
    : processes_(procfs), inodes_(procfs), identities_(std::move(identities)) {}

void FlowAttributor::useSocketOwners(std::unique_ptr<BpfSocketOwners> owners, std::uint64_t netns) {
    owners_ = std::move(owners);
    if (owners_) processes_.useExecGeneration(owners_->execGeneration());
    netns_ = netns;
}

void FlowAttributor::useSocketDiagnostics(SocketDiagnostics diagnostics) { sockets_.emplace(std::move(diagnostics)); }

std::uint64_t FlowAttributor::ticksOf(std::uint64_t startNs) const {
    const auto ticks = processes_.procfs().clockTicksPerSecond;
    return ticks > 0 ? startNs / (1'000'000'000ull / static_cast<std::uint64_t>(ticks)) : 0;
}

qf_flow_key FlowAttributor::keyOf(std::uint8_t protocol, std::uint16_t localPort, const IpEndpoint& remote) const {
    qf_flow_key key{};
    key.netns_cookie = netns_;
    key.family = remote.address.family == IpAddress::Family::v4 ? 2 : 10;
    key.protocol = protocol;
    key.local_port = localPort;
    key.remote_port = remote.port;
    std::copy(remote.address.bytes.begin(), remote.address.bytes.end(), key.remote_address);
    return key;
}

AttributedFlow FlowAttributor::attribute(const QueuedPacket& packet, const FlowTuple& tuple, Clock::time_point now) {
    AttributedFlow flow;
    flow.tuple = tuple;
    flow.uid = packet.uid;
    if (tuple.direction == FlowDirection::outbound) {
        std::optional<qf_flow_owner> owner;
        if (owners_) owner = owners_->flowOwner(keyOf(tuple.protocol, tuple.local.port, tuple.remote));
        if (owner) {
            if (owner->tgid == 0) {
                flow.kernel = true;
            } else {
                flow.uid = owner->uid;
                flow.process = processes_.process(static_cast<std::int32_t>(owner->tgid),
                                                  ticksOf(owner->start_boottime_ns), now);
                if (!flow.process) {
                    flow.exitedProcess = exitedNode(*owner);
                    flow.exitedParentPid = static_cast<std::int32_t>(owner->parent_tgid);
                }
            }
        } else if (!packet.uid) {
            // No socket of any process sent it: the kernel's own traffic.
            flow.kernel = true;
        }
    }
    if (!flow.kernel && !flow.process && !flow.exitedProcess && sockets_) {
        const auto protocol = tuple.protocol == PacketParser::tcp ? SocketDiagnostics::Protocol::tcp
                                                                  : SocketDiagnostics::Protocol::udp;
        auto found = sockets_->lookup(protocol, tuple.local, tuple.remote);
        if (found && *found) {
            flow.uid = (*found)->uid;
            if (auto holder = inodes_.owner((*found)->inode, now)) flow.process = processes_.process(*holder, std::nullopt, now);
        } else if (found && tuple.direction == FlowDirection::inbound) {
            flow.noLocalSocket = true;
        }
    }
    if (flow.process) {
        flow.ancestors = processes_.ancestors(*flow.process, now);
    } else if (flow.exitedProcess && flow.exitedParentPid > 0) {
        if (auto parent = processes_.process(flow.exitedParentPid, std::nullopt, now)) {
            flow.ancestors.push_back(parent);
            auto rest = processes_.ancestors(*parent, now);
            flow.ancestors.insert(flow.ancestors.end(), rest.begin(), rest.end());
        }
    }
    const std::uint32_t tgid = flow.node() ? static_cast<std::uint32_t>(flow.node()->identity.pid) : 0;
    flow.names = hostNames_.lookup(tuple.remote.address, tgid, now);
    return flow;
}

ProcessNode FlowAttributor::exitedNode(const qf_flow_owner& owner) const {
    ProcessNode node;
    auto& identity = node.identity;
    identity.pid = static_cast<std::int32_t>(owner.tgid);
    const auto ticks = ticksOf(owner.start_boottime_ns);
    identity.auditToken = ProcessLineage::auditToken(identity.pid, ticks);
    const std::string comm(owner.comm, strnlen(owner.comm, sizeof owner.comm));
    auto started = owners_ ? owners_->startedProgram(owner.tgid, owner.start_boottime_ns) : std::nullopt;
    identity.executablePath = started && started->path.starts_with('/') ? text::validUtf8(started->path)
                                                                        : "[" + text::validUtf8(comm) + "]";
    if (started) {
        // The arguments name the script an interpreter ran: a rule for the
        // script still decides a flow whose process ended before it was read.
        for (const auto& argument : started->arguments) identity.argv.push_back(text::validUtf8(argument));
        identity.scriptPath = ProcessTags::scriptPath(identity);
    }
    identity.userID = owner.uid;
    const auto& procfs = processes_.procfs();
    if (procfs.bootTimeSeconds && procfs.clockTicksPerSecond > 0)
        identity.launchTime = Date(std::chrono::seconds(static_cast<std::int64_t>(
            *procfs.bootTimeSeconds + ticks / static_cast<std::uint64_t>(procfs.clockTicksPerSecond))));
    node.tags = ProcessTags::classify(identity);
    node.state = ProcessState::exited;
    return node;
}

ProcessNode FlowAttributor::kernelNode() {
    ProcessNode node;
    node.identity.pid = 0;
    node.identity.executablePath = std::string(RuleMatcher::kernelExecutable);
    node.identity.auditToken = ProcessLineage::auditToken(0, 0);
    return node;
}

FlowContext FlowAttributor::context(const AttributedFlow& flow, std::string flowID) {
    FlowContext context;
    auto& identity = context.flow;
    identity.extensionGeneratedID = std::move(flowID);
    identity.direction = flow.tuple.direction;
    identity.transportProtocol = transportOf(flow.tuple.protocol);
    identity.localEndpoint = NetworkEndpoint{flow.tuple.local.address.toString(), flow.tuple.local.port};
    identity.remoteEndpoint = NetworkEndpoint{flow.tuple.remote.address.toString(), flow.tuple.remote.port};
    identity.port = flow.tuple.direction == FlowDirection::outbound ? flow.tuple.remote.port : flow.tuple.local.port;
    identity.timestamp = dateFrom(std::chrono::system_clock::now());
    if (flow.kernel) {
        context.matchedProcessNode = kernelNode();
    } else if (const ProcessNode* node = flow.node()) {
        context.matchedProcessNode = *node;
        identity.sourceProcessAuditToken = node->identity.auditToken;
        identity.sourceAppAuditToken = node->identity.auditToken;
        Bytes child = node->identity.auditToken;
        for (const auto& ancestor : flow.ancestors) {
            ProcessNode copy = ancestor->node;
            copy.childAuditTokens = {child};
            child = copy.identity.auditToken;
            context.ancestorChain.push_back(std::move(copy));
        }
        ProcessTags::inherit(*context.matchedProcessNode, context.ancestorChain);
    }
    if (flow.names && !flow.names->names.empty()) {
        context.matchedHostname = flow.names->names.front();
        context.dnsConfidence = flow.names->confidence;
    }
    return context;
}

FlowFacts FlowAttributor::facts(const FlowContext& context, const AttributedFlow& flow) {
    FlowFacts facts;
    if (context.matchedProcessNode) facts.process = &*context.matchedProcessNode;
    for (const auto& ancestor : context.ancestorChain) facts.ancestors.push_back(&ancestor);
    if (flow.names) facts.hostNames = flow.names->names;
    facts.hostNames.push_back(flow.tuple.remote.address.toString());
    facts.remoteAddress = flow.tuple.remote.address;
    facts.port = context.flow.port;
    facts.protocol = context.flow.transportProtocol;
    facts.direction = context.flow.direction;
    return facts;
}

std::vector<const ProcessRecord*> FlowAttributor::recordsOf(const AttributedFlow& flow) {
    std::vector<const ProcessRecord*> records;
    if (flow.process) records.push_back(flow.process.get());
    for (const auto& ancestor : flow.ancestors) records.push_back(ancestor.get());
    return records;
}

bool FlowAttributor::needsCodeIdentity(const AttributedFlow& flow) {
    bool missing = false;
    for (const auto* record : recordsOf(flow)) {
        if (!record->executableKey || record->codeIdentityKnown) continue;
        if (auto known = identities_->cached(*record->executableKey)) {
            processes_.setCodeIdentity(*record->executableKey, *known);
            continue;
        }
        missing = true;
    }
    return missing;
}

std::vector<IdentityWorker::Job> FlowAttributor::codeIdentityJobs(const AttributedFlow& flow) const {
    std::vector<IdentityWorker::Job> jobs;
    for (const auto* record : recordsOf(flow)) {
        if (!record->executableKey || record->codeIdentityKnown) continue;
        const auto directory = processes_.procfs().root / std::to_string(record->node.identity.pid);
        jobs.push_back({*record->executableKey, directory / "exe", record->node.identity.executablePath, directory / "root"});
    }
    return jobs;
}

void FlowAttributor::codeIdentityFound(const ExecutableFileKey& key, const ExecutableCodeIdentity& identity) {
    processes_.setCodeIdentity(key, identity);
}

FlowAttributor::Answer FlowAttributor::learnFromDnsAnswer(std::span<const std::uint8_t> packet, Clock::time_point now) {
    auto headers = PacketParser::parse(packet);
    if (!headers || !headers->destinationPort) return Answer::ignored;
    auto payload = packet.subspan(headers->payloadOffset, headers->payloadLength);
    if (headers->protocol == PacketParser::tcp) payload = DnsParser::messageInTcpPayload(payload);
    if (payload.empty()) return Answer::ignored;  // a bare acknowledgement of a TCP exchange
    auto response = DnsParser::parseResponse(payload);
    if (!response) {
        // Failed lookups (NXDOMAIN and the like) are not hostile; only
        // successful-looking answers that do not parse are refused.
        const bool lookedSuccessful = payload.size() >= 4 && (payload[2] & 0x80) != 0 && (payload[3] & 0x0f) == 0;
        return lookedSuccessful ? Answer::refused : Answer::ignored;
    }
    // The process the answer was delivered to asked over the flow whose
    // local port the answer goes to.
    std::uint32_t receiver = 0;
    if (owners_)
        if (auto owner = owners_->flowOwner(keyOf(headers->protocol, *headers->destinationPort,
                                                  {headers->source.unmapped(), headers->sourcePort.value_or(53)})))
            receiver = owner->tgid;
    hostNames_.record(*response, receiver, now);
    return Answer::learned;
}

}  // namespace quillfort
