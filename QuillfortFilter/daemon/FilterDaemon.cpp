#include "QuillfortFilter/daemon/FilterDaemon.hpp"

#include <malloc.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <fmt/format.h>

#include "QuillfortFilter/daemon/Privileges.hpp"
#include "QuillfortFilter/daemon/UserFolder.hpp"
#include "QuillfortFilter/flows/FlowAttributor.hpp"
#include "QuillfortFilter/flows/FlowEventLog.hpp"
#include "QuillfortFilter/flows/PendingPrompts.hpp"
#include "QuillfortFilter/kernel/DnsAnswerLog.hpp"
#include "QuillfortFilter/process/ExecutableIdentities.hpp"
#include "QuillfortFilter/kernel/FilterKernelRules.hpp"
#include "QuillfortFilter/kernel/PacketQueue.hpp"
#include "QuillfortFilter/rules/FlowPolicy.hpp"
#include "QuillfortFilter/rules/RuleIndex.hpp"
#include "contracts/FlowPromptResolution.hpp"
#include "contracts/QuillfortFilterStatus.hpp"
#include "contracts/QuillfortInternalPromptTransport.hpp"
#include "contracts/QuillfortPromptAgentClient.hpp"
#include "contracts/JsonFileStore.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "model/Text.hpp"
#include "platform/LoginSessions.hpp"
#include "platform/PosixFileSystem.hpp"
#include "platform/UserDatabase.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

namespace {

namespace asio = boost::asio;
using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// A burst of decisions is written once, this long after its first event.
constexpr auto eventWriteDelay = 500ms;
// While prompts wait, the agent's lock is looked at this often: a prompt
// whose agent died must not wait for ever.
constexpr auto agentCheckInterval = 2s;
// How long a prompt's drop keeps answering the same flow without a new prompt.
constexpr auto shadowLifetime = 60s;
constexpr std::size_t maximumShadows = 4096;
constexpr std::size_t maximumParkedFlows = 4096;
// One line per kind of hostile input per interval, however many arrive.
constexpr auto complaintInterval = 60s;

Logger flowLog() { return QuillfortLogger::logger(QuillfortLogCategory::flowFilter); }
Logger packetLog() { return QuillfortLogger::logger(QuillfortLogCategory::packetFilter); }
Logger processLog() { return QuillfortLogger::logger(QuillfortLogCategory::processObserver); }

std::uint64_t netnsCookie() {
    FileDescriptor probe(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    std::uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    constexpr int soNetnsCookie = 71;
    if (!probe || ::getsockopt(probe.get(), SOL_SOCKET, soNetnsCookie, &cookie, &length) != 0) return 0;
    return cookie;
}

// Logs at most once per interval, counting what it kept quiet about.
class Complaint {
public:
    template <class... Args>
    void operator()(const Logger& logger, std::string_view format, const Args&... args) {
        const auto now = SteadyClock::now();
        if (last_ && now - *last_ < complaintInterval) {
            ++suppressed_;
            return;
        }
        if (suppressed_ > 0) logger.error("%{public}llu more like the next were not logged.", suppressed_);
        suppressed_ = 0;
        last_ = now;
        logger.error(format, args...);
    }

private:
    std::optional<SteadyClock::time_point> last_;
    std::uint64_t suppressed_ = 0;
};

// A flow waiting for the code identity of its executables.
struct ParkedFlow {
    std::vector<std::uint32_t> packets;
    AttributedFlow flow;
    SteadyClock::time_point arrivedAt;
    std::set<std::pair<std::uint64_t, std::uint64_t>> waitingFor;  // (inode, mtime) of executables
};

struct Shadow {
    FlowDecision decision;
    FlowFilterDecisionSource source;
    SteadyClock::time_point expires;
};

}  // namespace

struct FilterDaemon::State {
    explicit State(FilterOptions opts)
        : options(std::move(opts)),
          attribution(ProcessLineage::ProcfsView::system(), std::make_shared<ExecutableIdentities>()),
          bootstrap(FlowPolicy::bootstrapRules()) {}

    FilterOptions options;
    PropertyListDictionary configuration;
    FilterSettings settings;

    asio::io_context io;
    asio::signal_set signals{io, SIGTERM, SIGINT, SIGHUP};
    std::optional<PacketQueue> queue;
    std::optional<asio::posix::stream_descriptor> queueWatch;
    std::optional<DnsAnswerLog> dnsLog;
    std::optional<asio::posix::stream_descriptor> dnsWatch;
    std::optional<FilterKernelRules> kernelRules;
    std::int32_t selfPid = static_cast<std::int32_t>(::getpid());

    FlowAttributor attribution;
    std::unique_ptr<IdentityWorker> worker;
    std::vector<ParkedFlow> parked;

    RuleIndex rules;
    RuleIndex bootstrap;
    std::string ruleSource = "none";
    std::optional<std::string> ruleProblem;
    std::optional<RuleSnapshotEnvelope> lastSharedSnapshot;
    bool identityNeededForRules = false;

    PendingPrompts pending;
    std::map<PromptKey, Shadow> shadows;
    asio::steady_timer agentTimer{io};
    bool agentTimerArmed = false;

    FlowEventLog events;
    std::unique_ptr<FlowEventWriter> eventWriter;  // started once privileges are dropped
    asio::steady_timer eventTimer{io};
    bool writeTimerArmed = false;
    bool statusDirty = true;
    QuillfortFilterCounters counters;
    std::uint64_t flowCounter = 0;

    std::shared_ptr<UserFolder> folder;
    std::shared_ptr<PosixFileSystem> system = std::make_shared<PosixFileSystem>(ProcessInfo::current());
    std::unique_ptr<QuillfortPromptAgentClient> client;          // with the loopback fallback
    std::unique_ptr<QuillfortPromptAgentClient> clientNoLoopback;

    FileDescriptor inotify;
    std::optional<asio::posix::stream_descriptor> inotifyWatch;
    int configurationWatch = -1;
    int folderWatch = -1;
    std::filesystem::path folderWatched;

    sd_login_monitor* loginMonitor = nullptr;
    std::optional<asio::posix::stream_descriptor> loginWatch;

    Complaint dnsComplaint;
    Complaint queueComplaint;
    Complaint fullComplaint;
    int exitStatus = 0;

    // --- set-up ------------------------------------------------------------------

    void loadConfiguration(bool initial) {
        auto dictionary = readConfigurationFile(options.configurationFile);
        if (!dictionary) {
            flowLog().error("Cannot read the filter configuration; keeping the one in force: %{public}s",
                            dictionary.error().description);
            if (!initial) return;
            dictionary = PropertyListDictionary{};
        }
        configuration = *dictionary;
        std::vector<std::string> problems;
        settings = FilterSettings::from(configuration, options, problems);
        for (const auto& problem : problems)
            flowLog().error("Filter configuration %{public}s: %{public}s; its default applies.",
                            options.configurationFile, problem);
        flowLog().log("Mode %{public}s, unknown traffic %{public}s, prompt-drop shadowing %{bool,public}d.",
                      settings.mode, settings.unknownTrafficMode, settings.shadowPromptDrop);
        statusDirty = true;
    }

    std::optional<std::filesystem::path> servedHome() {
        if (options.home) return options.home;
        if (settings.consoleHome && !settings.consoleHome->empty()) return std::filesystem::path(*settings.consoleHome);
        if (auto uid = LoginSessions::activeConsoleUser()) return UserDatabase::homeDirectory(*uid);
        return std::nullopt;
    }

    void openFolder() {
        folder.reset();
        client.reset();
        clientNoLoopback.reset();
        auto home = servedHome();
        if (!home) {
            flowLog().log("Nobody is signed in at the console: no shared folder to serve, prompts fall back.");
            return;
        }
        auto opened = UserFolder::open(*home);
        if (!opened) {
            flowLog().error("Cannot serve the shared folder of %{public}s: %{public}s", *home,
                            opened.error().description);
            return;
        }
        folder = *opened;
        client = std::make_unique<QuillfortPromptAgentClient>(folder, folder->home(), std::string("127.0.0.1"),
                                                              options.agentLoopbackPort);
        clientNoLoopback = std::make_unique<QuillfortPromptAgentClient>(folder, folder->home(), std::nullopt,
                                                                        std::nullopt);
        flowLog().log("Serving the shared folder %{public}s of user %{public}u.", folder->container(), folder->uid());
    }

    std::filesystem::path lastGoodCopy() const { return options.stateDirectory / "RuleSnapshot.json"; }

    // Rules in force: the later of the configuration's snapshot and the
    // shared file's; when the shared file cannot be used, the last good one.
    void loadRules(bool initial) {
        std::optional<RuleSnapshotEnvelope> shared;
        std::optional<std::string> problem;
        std::string sharedBytes;
        if (folder) {
            auto path = folder->container() / QuillfortSharedContainer::ruleSnapshotFilename;
            auto bytes = folder->readFile(path);
            if (bytes) {
                auto decoded = decodeJson<RuleSnapshotEnvelope>(*bytes);
                sharedBytes = std::move(*bytes);
                if (decoded)
                    shared = std::move(*decoded);
                else
                    problem = fmt::format("RuleSnapshot.json does not decode ({})", decoded.error().description());
            } else if (bytes.error().isNoSuchFile()) {
                problem = std::string("RuleSnapshot.json is missing");
            } else {
                problem = fmt::format("RuleSnapshot.json was refused ({})", bytes.error().description);
            }
        } else {
            problem = std::string("no shared folder is served");
        }

        if (shared) {
            lastSharedSnapshot = shared;
            saveLastGood(sharedBytes);
        } else {
            if (!lastSharedSnapshot || initial) lastSharedSnapshot = readLastGood();
            if (lastSharedSnapshot)
                flowLog().error("%{public}s; keeping the %{public}llu rules last loaded.", *problem,
                                static_cast<unsigned long long>(lastSharedSnapshot->rules.size()));
            else if (folder && problem && *problem != "RuleSnapshot.json is missing")
                flowLog().error("%{public}s, and no earlier rules are known.", *problem);
        }
        ruleProblem = shared ? std::nullopt : problem;
        const auto& sharedInForce = shared ? shared : lastSharedSnapshot;
        auto preferred = FlowPromptResolution::preferredRuleSnapshot(settings.configurationSnapshot, sharedInForce,
                                                                     dateFrom(std::chrono::system_clock::now()));
        if (settings.configurationSnapshot &&
            (!sharedInForce || settings.configurationSnapshot->generatedAt > sharedInForce->generatedAt))
            ruleSource = "configuration";
        else if (shared)
            ruleSource = "shared";
        else if (lastSharedSnapshot)
            ruleSource = "last good copy";
        else
            ruleSource = "none";
        rules = RuleIndex(std::move(preferred.rules));
        identityNeededForRules = rules.readsCodeIdentity();
        statusDirty = true;
        flowLog().log("Loaded %{public}llu enabled rules (%{public}s).",
                      static_cast<unsigned long long>(rules.size()), ruleSource);
        // Decoding a large snapshot leaves free heap the daemon will not need
        // until the next load: hand it back now.
        ::malloc_trim(0);
    }

    std::optional<RuleSnapshotEnvelope> readLastGood() {
        auto bytes = system->readFile(lastGoodCopy());
        if (!bytes) return std::nullopt;
        lastGoodDigest = ExecutableIdentities::sha256Of(*bytes).value_or("");
        auto decoded = decodeJson<RuleSnapshotEnvelope>(*bytes);
        if (!decoded) return std::nullopt;
        return *decoded;
    }

    // The user's file as it was read, once it decoded: no second encoding,
    // and no write when the copy already holds these bytes (told by their
    // digest: a copy of a large snapshot's bytes is not kept for it).
    void saveLastGood(const std::string& bytes) {
        const auto digest = ExecutableIdentities::sha256Of(bytes).value_or("");
        if (!lastGoodDigest)
            lastGoodDigest = ExecutableIdentities::sha256Of(system->readFile(lastGoodCopy()).value_or("")).value_or("");
        if (!digest.empty() && *lastGoodDigest == digest) return;
        std::error_code error;
        std::filesystem::create_directories(options.stateDirectory, error);
        if (!system->writeFileAtomically(lastGoodCopy(), bytes)) {
            flowLog().error("Cannot keep a copy of the rules in %{public}s.", options.stateDirectory);
            return;
        }
        ::chmod(lastGoodCopy().c_str(), 0600);
        lastGoodDigest = digest;
    }
    std::optional<std::string> lastGoodDigest;  // of the copy on disk; nothing until looked at

    bool setUpKernelSide() {
        if (auto sockets = SocketDiagnostics::open())
            attribution.useSocketDiagnostics(std::move(*sockets));
        else
            processLog().error("Cannot ask the kernel about sockets: %{public}s", sockets.error().description);

        PacketQueueOptions queueOptions;
        queueOptions.queue = options.queue;
        auto opened = PacketQueue::open(queueOptions);
        if (!opened) {
            packetLog().error("Cannot serve packet queue %{public}hu: %{public}s", options.queue,
                              opened.error().description);
            return false;
        }
        queue.emplace(std::move(*opened));
        auto log = DnsAnswerLog::open(options.queue);
        if (log) dnsLog.emplace(std::move(*log));
        else packetLog().error("DNS answers cannot be read; flows carry addresses only: %{public}s",
                               log.error().description);

        const std::uint64_t netns = netnsCookie();
        if (options.useSocketOwnerPrograms) {
            std::ifstream mountinfo("/proc/self/mountinfo");
            std::string text((std::istreambuf_iterator<char>(mountinfo)), std::istreambuf_iterator<char>());
            auto root = BpfSocketOwners::cgroup2Mount(text);
            auto loaded = root ? BpfSocketOwners::load(netns, *root)
                               : Result<std::unique_ptr<BpfSocketOwners>>(std::unexpected(
                                     Error::withMessage("no cgroup v2 hierarchy is mounted")));
            if (loaded) attribution.useSocketOwners(std::move(*loaded), netns);
            else processLog().error("Socket owners are found through sock_diag and /proc instead: %{public}s",
                                    loaded.error().description);
        }

        KernelRuleOptions ruleOptions;
        ruleOptions.queue = options.queue;
        ruleOptions.dnsLogGroup = options.queue;
        ruleOptions.includeLoopback = options.includeLoopback;
        ruleOptions.failClosed = options.failClosed;
        auto installed = FilterKernelRules::install(ruleOptions);
        if (!installed) {
            packetLog().error("Cannot install the kernel rules: %{public}s", installed.error().description);
            return false;
        }
        kernelRules.emplace(std::move(*installed));
        packetLog().log("Kernel rules in table inet quillfort, queue %{public}hu through the %{public}s%{public}s.",
                        options.queue, queueMechanismName(kernelRules->mechanism()),
                        options.failClosed ? "; new flows are dropped while no filter serves the queue"
                                           : "; new flows pass while no filter serves the queue");
        return true;
    }

    // --- the loop ----------------------------------------------------------------

    void armQueue() {
        queueWatch->async_wait(asio::posix::stream_descriptor::wait_read, [this](const boost::system::error_code& e) {
            if (e) return;
            serveQueue();
            armQueue();
        });
    }

    void armDnsLog() {
        if (!dnsWatch) return;
        dnsWatch->async_wait(asio::posix::stream_descriptor::wait_read, [this](const boost::system::error_code& e) {
            if (e) return;
            readDnsAnswers();
            armDnsLog();
        });
    }

    void readDnsAnswers() {
        if (!dnsLog) return;
        auto read = dnsLog->receive([this](std::span<const std::uint8_t> bytes) {
            switch (attribution.learnFromDnsAnswer(bytes, SteadyClock::now())) {
                case FlowAttributor::Answer::learned: ++counters.dnsAnswersSeen; break;
                case FlowAttributor::Answer::refused:
                    ++counters.dnsAnswersRefused;
                    dnsComplaint(packetLog(), "A DNS answer could not be read; it was ignored.");
                    break;
                case FlowAttributor::Answer::ignored: break;
            }
        });
        if (!read) dnsComplaint(packetLog(), "Reading DNS answers failed: %{public}s", read.error().description);
    }

    void serveQueue() {
        std::vector<QueuedPacket> packets;
        for (;;) {
            packets.clear();
            auto read = queue->receive(packets);
            if (!read) {
                queueComplaint(packetLog(), "Reading the packet queue failed: %{public}s", read.error().description);
                break;
            }
            // The DNS answers logged by now include every answer that arrived
            // before a packet of this batch was queued (the kernel logs an
            // answer before its program even reads it): the names a program
            // was just given are known before its connection is decided.
            readDnsAnswers();
            for (const auto& packet : packets) handlePacket(packet);
            if (auto sent = queue->flush(); !sent)
                queueComplaint(packetLog(), "Sending verdicts failed: %{public}s", sent.error().description);
            if (*read == 0) break;
        }
        statusDirty = true;
        armWrite();
    }

    void verdict(std::uint32_t packet, bool accept) { queue->verdict(packet, accept); }

    static std::optional<FlowTuple> tupleOf(const QueuedPacket& packet) {
        if (!packet.headers || !packet.headers->sourcePort || !packet.headers->destinationPort) return std::nullopt;
        const auto& h = *packet.headers;
        if (h.protocol != PacketParser::tcp && h.protocol != PacketParser::udp) return std::nullopt;
        FlowTuple tuple;
        tuple.protocol = h.protocol;
        const bool outbound = packet.hook == QueuedPacket::hookLocalOut;
        tuple.direction = outbound ? FlowDirection::outbound : FlowDirection::inbound;
        const IpEndpoint source{h.source.unmapped(), *h.sourcePort};
        const IpEndpoint destination{h.destination.unmapped(), *h.destinationPort};
        tuple.local = outbound ? source : destination;
        tuple.remote = outbound ? destination : source;
        return tuple;
    }

    void handlePacket(const QueuedPacket& packet) {
        auto tuple = tupleOf(packet);
        // Only TCP and UDP are queued; anything else that arrives is not ours to hold.
        if (!tuple) return verdict(packet.id, true);
        switch (pending.holdPacket(*tuple, packet.id)) {
            case PendingPrompts::Join::joined: ++counters.packetsHeld; return;
            case PendingPrompts::Join::full:
                ++counters.packetsRefusedWhileFull;
                fullComplaint(flowLog(), "As many packets are held as the filter keeps; new ones are dropped.");
                return verdict(packet.id, settings.mode == FlowFilterMode::monitor);
            case PendingPrompts::Join::notHeld: break;
        }
        for (auto& flow : parked)
            if (flow.flow.tuple == *tuple) {
                flow.packets.push_back(packet.id);
                return;
            }
        const auto now = SteadyClock::now();
        AttributedFlow flow = attribution.attribute(packet, *tuple, now);
        if (flow.noLocalSocket) return verdict(packet.id, true);  // the kernel answers it as closed
        if (identityNeededForRules && attribution.needsCodeIdentity(flow)) {
            if (park({packet.id}, std::move(flow), now)) return;
        }
        decide({packet.id}, flow, now);
    }

    // --- attribution ---------------------------------------------------------------

    // --- code identity -------------------------------------------------------------

    bool park(std::vector<std::uint32_t> packets, AttributedFlow flow, SteadyClock::time_point now) {
        if (parked.size() >= maximumParkedFlows) return false;
        ParkedFlow waiting{std::move(packets), std::move(flow), now, {}};
        for (auto& job : attribution.codeIdentityJobs(waiting.flow)) {
            waiting.waitingFor.insert({job.key.inode, static_cast<std::uint64_t>(job.key.modificationNs)});
            worker->submit(std::move(job));
        }
        parked.push_back(std::move(waiting));
        return true;
    }

    void identityComputed(const ExecutableFileKey& key, const ExecutableCodeIdentity& identity) {
        attribution.codeIdentityFound(key, identity);
        const auto now = SteadyClock::now();
        std::vector<ParkedFlow> ready;
        for (auto it = parked.begin(); it != parked.end();) {
            it->waitingFor.erase({key.inode, static_cast<std::uint64_t>(key.modificationNs)});
            if (it->waitingFor.empty()) {
                ready.push_back(std::move(*it));
                it = parked.erase(it);
            } else {
                ++it;
            }
        }
        for (auto& flow : ready) decide(flow.packets, flow.flow, now, flow.arrivedAt);
        if (!ready.empty()) {
            (void)queue->flush();
            statusDirty = true;
            armWrite();
        }
    }

    // --- deciding ------------------------------------------------------------------

    PromptKey promptKeyOf(const FlowContext& context, const AttributedFlow& flow) const {
        PromptKey key;
        key.executable = context.matchedProcessNode ? context.matchedProcessNode->identity.executablePath : "";
        key.uid = flow.uid.value_or(UINT32_MAX);
        key.host = context.host().value_or("");
        key.port = context.port().value_or(0);
        key.protocol = context.flow.transportProtocol;
        key.direction = context.flow.direction;
        return key;
    }

    static std::string processTitle(const FlowContext& context) {
        if (!context.matchedProcessNode) return "unknown process";
        const auto& identity = context.matchedProcessNode->identity;
        if (identity.pid == 0) return "the kernel";
        return fmt::format("{} ({})", text::lastPathComponent(identity.executablePath), identity.pid);
    }

    void record(FlowContext context, const FlowDecision& decision, FlowFilterDecisionSource source,
                const std::optional<std::string>& ruleName) {
        ++counters.flowsDecided;
        if (decision.action == FlowDecisionAction::allow) ++counters.flowsAllowed;
        else ++counters.flowsDropped;
        FlowFilterEvent event;
        event.id = Uuid::unique();
        event.recordedAt = dateFrom(std::chrono::system_clock::now());
        event.mode = settings.mode;
        event.unknownTrafficMode = settings.unknownTrafficMode;
        event.kind = FlowFilterEventKind::decided;
        const auto port = context.port();
        event.summary = fmt::format("{} {} {}{} {}: {} ({}{})", processTitle(context),
                                    context.flow.direction == FlowDirection::outbound ? "to" : "from",
                                    context.host().value_or("?"), port ? fmt::format(":{}", *port) : "",
                                    rawValue(context.flow.transportProtocol), rawValue(decision.action),
                                    rawValue(source), ruleName ? fmt::format(", rule \"{}\"", *ruleName) : "");
        if (context.matchedProcessNode) event.sourceAppIdentifier = context.matchedProcessNode->identity.signingID;
        event.context = std::move(context);
        event.decision = decision;
        event.decisionSource = source;
        if (events.append(std::move(event))) armWrite();
    }

    void enforce(const std::vector<std::uint32_t>& packets, bool allow) {
        // Monitor mode decides and records, and lets everything pass.
        const bool accept = allow || settings.mode == FlowFilterMode::monitor;
        for (auto packet : packets) verdict(packet, accept);
    }

    static double millisecondsSince(SteadyClock::time_point start) {
        return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
    }

    void decide(const std::vector<std::uint32_t>& packets, const AttributedFlow& flow, SteadyClock::time_point now,
                std::optional<SteadyClock::time_point> arrivedAt = std::nullopt) {
        const auto started = arrivedAt.value_or(now);
        FlowContext context =
            FlowAttributor::context(flow, fmt::format("quillfort-filter-{}-{}", selfPid, ++flowCounter));
        const FlowFacts facts = FlowAttributor::facts(context, flow);

        const bool ownFlow = flow.node() && flow.node()->identity.pid == selfPid;
        if (ownFlow || QuillfortInternalPromptTransport::shouldBypass(context)) {
            enforce(packets, true);
            auto decision = QuillfortInternalPromptTransport::bypassDecision(context);
            decision.latencyMs = millisecondsSince(started);
            return record(std::move(context), decision, FlowFilterDecisionSource::internalBypass, std::nullopt);
        }

        const PromptKey key = promptKeyOf(context, flow);
        if (settings.shadowPromptDrop) {
            if (auto shadow = shadows.find(key); shadow != shadows.end()) {
                if (shadow->second.expires > now) {
                    enforce(packets, false);
                    auto decision = shadow->second.decision;
                    decision.latencyMs = millisecondsSince(started);
                    return record(std::move(context), decision, shadow->second.source, std::nullopt);
                }
                shadows.erase(shadow);
            }
        }

        const auto outcome = FlowPolicy::decide(facts, flow.kernel, rules,
                                                settings.bootstrapAllowlist ? &bootstrap : nullptr,
                                                settings.unknownTrafficMode);
        if (outcome.kind != PolicyOutcome::Kind::ask) {
            const bool allow = outcome.kind == PolicyOutcome::Kind::allow;
            enforce(packets, allow);
            FlowDecision decision{allow ? FlowDecisionAction::allow : FlowDecisionAction::drop, outcome.reasonCode,
                                  outcome.matchedRuleID, std::nullopt, millisecondsSince(started)};
            return record(std::move(context), decision, outcome.source, outcome.ruleName);
        }
        ask(packets, flow, context, key, started);
    }

    // --- prompts -------------------------------------------------------------------

    void ask(const std::vector<std::uint32_t>& packets, const AttributedFlow& flow, FlowContext context,
             const PromptKey& key, SteadyClock::time_point started) {
        FlowPromptRequest request{Uuid::random(), context, std::nullopt};
        // An unattended answer configured for this destination needs nobody.
        if (settings.automation) {
            if (auto response = settings.automation->makeResponseIfMatch(request)) {
                return applyAnswer(packets, context, request, *response, started, nullptr);
            }
        }
        // The prompt shows the program's signer: found first, off the loop.
        if (!pending.find(key) && attribution.needsCodeIdentity(flow) && park(packets, flow, started)) return;
        HeldFlow held{flow.tuple, packets, context, started};
        auto holding = pending.hold(key, std::move(held), request, SteadyClock::now());
        if (!holding) {
            fullComplaint(flowLog(), "As many prompts wait as the filter keeps; a new flow gets the fallback.");
            FlowDecision decision{FlowDecisionAction::drop, "prompt_agent_too_many_prompts_drop", std::nullopt,
                                  std::nullopt, millisecondsSince(started)};
            enforce(packets, false);
            return record(context, decision, FlowFilterDecisionSource::promptFallback, std::nullopt);
        }
        counters.packetsHeld += packets.size();
        auto [prompt, opened] = *holding;
        if (!opened) {
            flowLog().log("Flow %{public}s joins prompt %{public}s.", context.flow.extensionGeneratedID,
                          prompt->request.id.uppercaseString());
            return;
        }
        ++counters.promptsAsked;
        submit(*prompt);
    }

    bool agentReachable() const { return folder && folder->agentHoldsLock(); }

    // The loopback listener is used only when it belongs to the user served
    // (or to root): anyone may listen on a free port while no agent does.
    bool loopbackTrusted() const {
        const auto& sockets = attribution.socketDiagnostics();
        if (!sockets || !folder) return false;
        IpEndpoint listener{*IpAddress::parse("127.0.0.1"), options.agentLoopbackPort};
        auto found = sockets->lookup(SocketDiagnostics::Protocol::tcp, listener, IpEndpoint{});
        return found && *found && ((*found)->uid == folder->uid() || (*found)->uid == 0);
    }

    void submit(PendingPrompt& prompt) {
        const Uuid id = prompt.request.id;
        if (!agentReachable()) {
            flowLog().log("No agent runs for the shared folder; prompt %{public}s gets the fallback.", id.uppercaseString());
            return fallBack(id, "prompt_agent_unavailable_drop");
        }
        flowLog().log("Asking the agent about %{public}s: %{public}s of user %u to %{public}s port %u (prompt %{public}s).",
                      prompt.request.context.flow.extensionGeneratedID, prompt.key.executable, prompt.key.uid,
                      prompt.key.host, static_cast<unsigned>(prompt.key.port), id.uppercaseString());
        const auto& chosen = loopbackTrusted() ? client : clientNoLoopback;
        chosen->submit(
            prompt.request,
            [this, id](QuillfortPromptAgentClientResult result) {
                asio::post(io, [this, id, result = std::move(result)] { answered(id, result); });
            },
            prompt.cancelled);
        armAgentCheck();
    }

    void answered(const Uuid& id, const QuillfortPromptAgentClientResult& result) {
        if (!result) {
            flowLog().error("Prompt %{public}s could not be answered: %{public}s", id.uppercaseString(),
                            result.error().description());
            return fallBack(id, "prompt_agent_failure_drop");
        }
        auto prompt = pending.take(id);
        if (!prompt) return;  // given up on already
        for (const auto& flow : prompt->flows)
            applyAnswer(flow.packets, flow.context, prompt->request, *result, flow.arrivedAt, &*prompt);
        (void)queue->flush();
        statusDirty = true;
        armWrite();
    }

    void applyAnswer(const std::vector<std::uint32_t>& packets, const FlowContext& context,
                     const FlowPromptRequest& request, const FlowPromptResponse& response,
                     SteadyClock::time_point started, const PendingPrompt* prompt) {
        auto outcome = FlowPromptResolution::resolve(request, response, RuleSnapshotEnvelope{}, true,
                                                     RuleOrigin::promptResolved,
                                                     dateFrom(std::chrono::system_clock::now()));
        auto decision = outcome.decision;
        decision.latencyMs = millisecondsSince(started);
        // "ask" is no answer a flow can wait on any longer: it does not pass.
        const bool allow = decision.action == FlowDecisionAction::allow;
        enforce(packets, allow);
        // A lasting answer decides the next such flow at once, before the
        // agent's snapshot with the rule is read back.
        if (outcome.persistedRule) {
            rules.add(*outcome.persistedRule);
            identityNeededForRules = rules.readsCodeIdentity();
        }
        if (!allow && settings.shadowPromptDrop && FlowDecisionShadowing::shouldShadowPromptDrop(decision) && prompt)
            shadow(prompt->key, decision, FlowFilterDecisionSource::promptResolution);
        record(context, decision, FlowFilterDecisionSource::promptResolution,
               outcome.persistedRule ? std::optional(outcome.persistedRule->name) : std::nullopt);
    }

    void shadow(const PromptKey& key, const FlowDecision& decision, FlowFilterDecisionSource source) {
        if (shadows.size() >= maximumShadows) {
            const auto now = SteadyClock::now();
            std::erase_if(shadows, [&](const auto& entry) { return entry.second.expires <= now; });
            if (shadows.size() >= maximumShadows) shadows.erase(shadows.begin());
        }
        shadows.insert_or_assign(key, Shadow{decision, source, SteadyClock::now() + shadowLifetime});
    }

    void fallBack(const Uuid& id, std::string_view reason) {
        auto prompt = pending.take(id);
        if (!prompt) return;
        prompt->cancelled->store(true);
        FlowDecision decision{FlowDecisionAction::drop, std::string(reason), std::nullopt, id, 0};
        if (settings.shadowPromptDrop) shadow(prompt->key, decision, FlowFilterDecisionSource::promptFallback);
        for (const auto& flow : prompt->flows) {
            enforce(flow.packets, false);
            auto flowDecision = decision;
            flowDecision.latencyMs = millisecondsSince(flow.arrivedAt);
            record(flow.context, flowDecision, FlowFilterDecisionSource::promptFallback, std::nullopt);
        }
        (void)queue->flush();
        statusDirty = true;
        armWrite();
    }

    void armAgentCheck() {
        if (agentTimerArmed) return;
        agentTimerArmed = true;
        agentTimer.expires_after(agentCheckInterval);
        agentTimer.async_wait([this](const boost::system::error_code& e) {
            agentTimerArmed = false;
            if (e || pending.empty()) return;
            if (!agentReachable()) {
                flowLog().error("The agent stopped while %{public}llu prompts waited; they get the fallback.",
                                static_cast<unsigned long long>(pending.prompts()));
                std::vector<Uuid> ids;
                for (auto& prompt : pending.takeAll()) {
                    const Uuid promptID = prompt.request.id;
                    prompt.cancelled->store(true);
                    FlowDecision decision{FlowDecisionAction::drop, "prompt_agent_unavailable_drop", std::nullopt,
                                          promptID, 0};
                    if (settings.shadowPromptDrop) shadow(prompt.key, decision, FlowFilterDecisionSource::promptFallback);
                    for (const auto& flow : prompt.flows) {
                        enforce(flow.packets, false);
                        decision.latencyMs = millisecondsSince(flow.arrivedAt);
                        record(flow.context, decision, FlowFilterDecisionSource::promptFallback, std::nullopt);
                    }
                }
                (void)queue->flush();
                return;
            }
            armAgentCheck();
        });
    }

    // --- records -------------------------------------------------------------------

    void armWrite() {
        if (writeTimerArmed || (!events.dirty() && !statusDirty)) return;
        writeTimerArmed = true;
        eventTimer.expires_after(eventWriteDelay);
        eventTimer.async_wait([this](const boost::system::error_code& e) {
            writeTimerArmed = false;
            if (e) return;
            writeRecords();
        });
    }

    void writeRecords() {
        if (events.dirty() && folder)
            eventWriter->write(folder, folder->container() / QuillfortSharedContainer::flowFilterMonitorSnapshotFilename,
                              events.takeSnapshot(), dateFrom(std::chrono::system_clock::now()));
        if (statusDirty) writeStatus();
    }

    void writeStatus() {
        statusDirty = false;
        QuillfortFilterStatus status;
        status.updatedAt = dateFrom(std::chrono::system_clock::now());
        status.pid = static_cast<std::uint32_t>(selfPid);
        QuillfortComponentStatus filterComponent;
        filterComponent.component = QuillfortProtectedComponent::flowFilter;
        filterComponent.state = kernelRules ? QuillfortActivationState::running : QuillfortActivationState::error;
        filterComponent.summary = kernelRules ? fmt::format("Filtering new flows on queue {}", options.queue)
                                              : std::string("Not filtering");
        filterComponent.detail = ruleProblem.value_or(fmt::format("{} rules from the {} snapshot", rules.size(), ruleSource));
        filterComponent.bundleIdentifier = "quillfort-filter";
        filterComponent.isBundled = true;
        filterComponent.lastUpdatedAt = status.updatedAt;
        QuillfortComponentStatus observer;
        observer.component = QuillfortProtectedComponent::processObserver;
        const bool owners = attribution.hasSocketOwners();
        observer.state = owners ? QuillfortActivationState::running : QuillfortActivationState::degraded;
        observer.summary = owners ? "Socket owners recorded in the kernel" : "Socket owners found through /proc";
        observer.detail = owners ? "Flows of processes that exit at once are still named."
                              : "A process that exits before its flow is read cannot be named.";
        observer.bundleIdentifier = "quillfort-filter";
        observer.isBundled = true;
        observer.lastUpdatedAt = status.updatedAt;
        status.activation.components = {filterComponent, observer};
        status.activation.lastUpdatedAt = status.updatedAt;
        status.mode = settings.mode;
        status.unknownTrafficMode = settings.unknownTrafficMode;
        status.queue = options.queue;
        status.queueMechanism = kernelRules ? std::string(queueMechanismName(kernelRules->mechanism())) : "";
        status.attribution = owners ? "socket-owner programs" : "sock_diag and /proc";
        status.failClosed = options.failClosed;
        status.includeLoopback = options.includeLoopback;
        status.ruleCount = rules.size();
        status.ruleSource = ruleSource;
        status.ruleProblem = ruleProblem;
        if (folder) status.sharedFolder = folder->container().string();
        status.configurationFile = options.configurationFile.string();
        counters.promptsWaiting = pending.prompts();
        counters.packetsHeld = pending.packets();
        counters.processCacheEntries = attribution.processes().size();
        counters.processCacheHits = attribution.processes().hits();
        counters.processCacheMisses = attribution.processes().misses();
        counters.hostNameCacheEntries = attribution.hostNames().size();
        counters.executableIdentities = attribution.identities().size();
        status.counters = counters;
        std::error_code error;
        std::filesystem::create_directories(options.statusFile.parent_path(), error);
        JsonFileStore<QuillfortFilterStatus> store(*system, options.statusFile);
        if (auto saved = store.saveWithoutSync(status); !saved)
            flowLog().error("Cannot write the filter status: %{public}s", saved.error().description);
        else
            ::chmod(options.statusFile.c_str(), 0644);
        sd_notifyf(0, "STATUS=%s: %llu rules (%s), %llu flows decided, %llu prompts waiting",
                   std::string(rawValue(settings.mode)).c_str(), static_cast<unsigned long long>(rules.size()),
                   ruleSource.c_str(), static_cast<unsigned long long>(counters.flowsDecided),
                   static_cast<unsigned long long>(counters.promptsWaiting));
    }

    // --- watching files and sessions ----------------------------------------------

    void setUpWatches() {
        inotify.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (!inotify) {
            flowLog().error("Cannot watch files for changes; send SIGHUP after changing them.");
            return;
        }
        inotifyWatch.emplace(io, ::dup(inotify.get()));
        configurationWatch = ::inotify_add_watch(inotify.get(), options.configurationFile.parent_path().c_str(),
                                                 IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_CREATE | IN_ONLYDIR);
        watchFolder();
        armInotify();
    }

    // Watches the shared folder, or while it does not exist yet, the nearest
    // folder above it that does, to notice it being made.
    void watchFolder() {
        // One directory has one watch: when the configuration's folder is the
        // one watched here as well, removing it would end both.
        if (folderWatch >= 0 && folderWatch != configurationWatch) ::inotify_rm_watch(inotify.get(), folderWatch);
        folderWatch = -1;
        if (!folder || !inotify) return;
        auto target = folder->container();
        while (true) {
            folderWatch = folder->asUser([&] {
                return ::inotify_add_watch(inotify.get(), target.c_str(),
                                           IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_CREATE | IN_MOVED_FROM |
                                               IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW);
            });
            if (folderWatch >= 0 || target == folder->home() || !target.has_parent_path()) break;
            target = target.parent_path();
        }
        folderWatched = target;
    }

    void armInotify() {
        inotifyWatch->async_wait(asio::posix::stream_descriptor::wait_read, [this](const boost::system::error_code& e) {
            if (e) return;
            readInotify();
            armInotify();
        });
    }

    void readInotify() {
        alignas(inotify_event) std::array<char, 16384> buffer{};
        bool configurationChanged = false, rulesChanged = false, folderMoved = false;
        for (;;) {
            const ssize_t length = ::read(inotify.get(), buffer.data(), buffer.size());
            if (length <= 0) break;
            for (std::size_t offset = 0; offset + sizeof(inotify_event) <= static_cast<std::size_t>(length);) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + offset);
                const std::string_view name = event->len > 0 ? std::string_view(event->name) : std::string_view();
                if (event->wd == configurationWatch && name == options.configurationFile.filename().string())
                    configurationChanged = true;
                if (event->wd == folderWatch && folder) {
                    const auto container = folder->container();
                    if (folderWatched == container) {
                        if (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED))
                            folderMoved = true;
                        else if (name == QuillfortSharedContainer::ruleSnapshotFilename)
                            rulesChanged = true;
                    } else if ((event->mask & (IN_CREATE | IN_MOVED_TO | IN_IGNORED)) != 0) {
                        // Watching a folder above the shared one: only the
                        // next folder on the way appearing matters.
                        const auto below = container.lexically_relative(folderWatched);
                        if ((event->mask & IN_IGNORED) || (!below.empty() && name == below.begin()->string()))
                            folderMoved = true;
                    }
                }
                offset += sizeof(inotify_event) + event->len;
            }
        }
        if (configurationChanged) {
            loadConfiguration(false);
            rulesChanged = true;
        }
        if (folderMoved) {
            watchFolder();
            rulesChanged = true;
        }
        if (rulesChanged) loadRules(false);
        armWrite();
    }

    void setUpLoginMonitor() {
        if (options.home) return;  // the folder served is fixed
        if (sd_login_monitor_new("session", &loginMonitor) < 0) {
            loginMonitor = nullptr;
            return;
        }
        loginWatch.emplace(io, ::dup(sd_login_monitor_get_fd(loginMonitor)));
        armLoginMonitor();
    }

    void armLoginMonitor() {
        loginWatch->async_wait(asio::posix::stream_descriptor::wait_read, [this](const boost::system::error_code& e) {
            if (e) return;
            sd_login_monitor_flush(loginMonitor);
            auto home = servedHome();
            if (home.value_or("") != (folder ? folder->home() : std::filesystem::path())) {
                flowLog().log("The user at the console changed.");
                openFolder();
                watchFolder();
                loadRules(true);
                armWrite();
            }
            armLoginMonitor();
        });
    }

    // --- stopping ------------------------------------------------------------------

    void armSignals() {
        signals.async_wait([this](const boost::system::error_code& e, int signal) {
            if (e) return;
            if (signal != SIGHUP) {
                flowLog().log("Stopping on signal %{public}d.", signal);
                return stop();
            }
            flowLog().log("SIGHUP: reading the configuration and the rules again.");
            loadConfiguration(false);
            loadRules(false);
            armWrite();
            armSignals();
        });
    }

    void stop() {
        sd_notify(0, "STOPPING=1");
        // Nothing held may pass on the way out; programs retry, and their
        // retries meet the queue's fallback once the filter is gone.
        for (auto& prompt : pending.takeAll()) {
            prompt.cancelled->store(true);
            for (const auto& flow : prompt.flows) enforce(flow.packets, false);
        }
        for (auto& flow : parked) enforce(flow.packets, false);
        parked.clear();
        if (queue) (void)queue->flush();
        if (events.dirty() || statusDirty) writeRecords();
        if (eventWriter) eventWriter->drain();
        if (kernelRules) {
            if (auto removed = kernelRules->remove(); !removed)
                packetLog().error("Cannot remove the kernel rules: %{public}s", removed.error().description);
            else
                packetLog().log("Kernel rules removed.");
        }
        io.stop();
    }
};

FilterDaemon::FilterDaemon(FilterOptions options) : state_(std::make_unique<State>(std::move(options))) {}

FilterDaemon::~FilterDaemon() {
    if (state_->loginMonitor) sd_login_monitor_unref(state_->loginMonitor);
}

int FilterDaemon::run() {
    State& s = *state_;
    s.loadConfiguration(true);
    s.openFolder();
    s.loadRules(true);
    if (!s.setUpKernelSide()) {
        sd_notify(0, "STATUS=Could not start: see the journal");
        return 1;
    }
    // Capabilities belong to threads: they are dropped before any other thread starts.
    if (auto dropped = Privileges::keepOnly(Privileges::afterSetUp()); !dropped)
        flowLog().error("Cannot drop privileges: %{public}s", dropped.error().description);
    s.eventWriter = std::make_unique<FlowEventWriter>([](const Error& error) {
        flowLog().error("Cannot write the flow events: %{public}s", error.description);
    });
    s.worker = std::make_unique<IdentityWorker>(s.attribution.sharedIdentities(), [&s](ExecutableFileKey key, ExecutableCodeIdentity identity) {
        asio::post(s.io, [&s, key, identity] { s.identityComputed(key, identity); });
    });

    s.queueWatch.emplace(s.io, ::dup(s.queue->descriptor()));
    if (s.dnsLog) s.dnsWatch.emplace(s.io, ::dup(s.dnsLog->descriptor()));
    s.setUpWatches();
    s.setUpLoginMonitor();
    s.armSignals();
    s.armQueue();
    s.armDnsLog();
    s.writeStatus();
    sd_notify(0, "READY=1");
    flowLog().log("quillfort-filter is filtering new flows (%{public}s, unknown traffic %{public}s) on queue %{public}hu%{public}s.",
                  s.settings.mode, s.settings.unknownTrafficMode, s.options.queue,
                  s.options.includeLoopback ? ", loopback included" : "");
    s.io.run();
    return s.exitStatus;
}

}  // namespace quillfort
