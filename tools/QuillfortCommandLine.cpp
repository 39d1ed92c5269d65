#include "tools/QuillfortCommandLine.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <future>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "contracts/PromptAgentAutomationCommandStore.hpp"
#include "contracts/PromptAgentStatusStore.hpp"
#include "contracts/QuillfortPromptAgentClient.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "contracts/QuillfortAgentBusInterface.hpp"
#include "contracts/RuleExpiryStore.hpp"
#include "contracts/RuleSnapshotEditor.hpp"
#include "contracts/RuleSnapshotStore.hpp"
#include "tools/AgentBusClient.hpp"
#include "model/Text.hpp"
#include "tools/FilterCommands.hpp"
#include "tools/QuillfortWatch.hpp"
#include "tools/RuleFormatting.hpp"
#include "tools/StatusFormatting.hpp"

namespace quillfort::QuillfortCommandLine {

namespace {

using namespace std::chrono_literals;

constexpr auto pickupPollInterval = 50ms;

// What the flags of each command hold after parsing.
struct PromptCommand {
    PromptFlowOptions flow;
    std::string protocolText = "tcp";
    std::vector<std::string> tagTexts;
    std::int32_t pid = 0;
    std::string port;
    std::string requestFile;
    double timeout = 0;
    std::string loopback{fmt::format("{}:{}", QuillfortPromptEndpointStore::defaultLoopbackHost,
                                     QuillfortPromptEndpointStore::defaultLoopbackPort)};
    bool noLoopback = false;
};

struct Options {
    std::string home;
    std::string ruleID;
    std::string duration;
    bool json = false;
    std::string promptID;
    std::string preset;
};

std::optional<std::filesystem::path> homeFrom(const std::string& home) {
    if (home.empty()) return std::nullopt;
    std::error_code error;
    auto absolute = std::filesystem::absolute(home, error);
    return error ? std::filesystem::path(home) : absolute;
}

int failure(std::ostream& err, std::string_view message, int status = exitFailure) {
    err << "quillfort: " << message << '\n';
    return status;
}

// --- prompt -------------------------------------------------------------------------

std::expected<FlowPromptRequest, std::string> readRequestFile(const std::string& path, FileSystem& fileSystem) {
    auto bytes = fileSystem.readFile(path);
    if (!bytes) return std::unexpected(fmt::format("cannot read the request file: {}", bytes.error().description));
    auto request = decodeJson<FlowPromptRequest>(*bytes);
    if (!request) return std::unexpected(fmt::format("{} is not a prompt request: {}", path,
                                                     request.error().description()));
    return *request;
}

QuillfortPromptAgentClientResult waitForAnswer(const QuillfortPromptAgentClient& client,
                                               const FlowPromptRequest& request) {
    auto answer = std::make_shared<std::promise<QuillfortPromptAgentClientResult>>();
    auto future = answer->get_future();
    client.submit(request, [answer](QuillfortPromptAgentClientResult result) { answer->set_value(std::move(result)); });
    return future.get();
}

int runPrompt(const PromptCommand& command, bool requestGiven, const Options& options,
              const Environment& environment, std::ostream& out, std::ostream& err) {
    std::expected<FlowPromptRequest, std::string> request;
    if (requestGiven) {
        request = readRequestFile(command.requestFile, *environment.fileSystem);
    } else {
        request = buildPromptRequest(command.flow, environment.uuids->next(), dateFrom(environment.clock->now()),
                                     environment.procfs);
    }
    if (!request) return failure(err, request.error(), exitUsage);

    std::optional<std::string> loopbackHost;
    std::optional<std::uint16_t> loopbackPort;
    if (!command.noLoopback) {
        auto endpoint = parseLoopbackEndpoint(command.loopback);
        if (!endpoint)
            return failure(err,
                           fmt::format("--loopback needs a dotted IPv4 address and a port, such as 127.0.0.1:27839; "
                                       "got \"{}\"",
                                       command.loopback),
                           exitUsage);
        loopbackHost = endpoint->first;
        loopbackPort = endpoint->second;
    }

    QuillfortPromptAgentClient client(environment.fileSystem, homeFrom(options.home), loopbackHost, loopbackPort,
                                      environment.clock);
    auto result = command.timeout > 0 ? client.submitSync(*request, command.timeout) : waitForAnswer(client, *request);
    if (!result) return failure(err, result.error().description());
    out << encodePretty(*result) << '\n';
    return exitSuccess;
}

// --- status -------------------------------------------------------------------------

int runStatus(const Options& options, const Environment& environment, std::ostream& out, std::ostream& err) {
    FileSystem& fileSystem = *environment.fileSystem;
    auto location = QuillfortSharedContainer::promptAgentStatusURL(fileSystem, homeFrom(options.home));
    if (!location) return failure(err, "cannot tell where the shared container is: no home directory is known");
    const std::string notRunning =
        fmt::format("The Quillfort agent has not published a status file at {}; is it running?", location->string());

    if (options.json) {
        auto bytes = fileSystem.readFile(*location);
        if (!bytes && bytes.error().isNoSuchFile()) return failure(err, notRunning);
        if (!bytes) return failure(err, bytes.error().description);
        out << *bytes;
        return exitSuccess;
    }
    auto status = PromptAgentStatusStore(fileSystem, location).loadIfPresent();
    if (!status) return failure(err, fmt::format("cannot read {}: {}", location->string(), status.error().description));
    if (!*status) return failure(err, notRunning);
    out << StatusFormatting::formatStatus(**status, dateFrom(environment.clock->now()));
    return exitSuccess;
}

// --- rules --------------------------------------------------------------------------

int runRules(const Options& options, const Environment& environment, std::ostream& out, std::ostream& err) {
    constexpr std::string_view noRules = "No rules yet.";
    FileSystem& fileSystem = *environment.fileSystem;
    auto location = QuillfortSharedContainer::ruleSnapshotURL(fileSystem, homeFrom(options.home));
    if (!location) return failure(err, "cannot tell where the shared container is: no home directory is known");

    if (options.json) {
        auto bytes = fileSystem.readFile(*location);
        if (!bytes && bytes.error().isNoSuchFile()) {
            // Standard output stays clean for whatever parses it.
            err << noRules << '\n';
            return exitSuccess;
        }
        if (!bytes) return failure(err, bytes.error().description);
        out << *bytes;
        return exitSuccess;
    }
    auto snapshot = RuleSnapshotStore(fileSystem, location).loadIfPresent();
    if (!snapshot)
        return failure(err, fmt::format("cannot read {}: {}", location->string(), snapshot.error().description));
    if (!*snapshot) {
        out << noRules << '\n';
        return exitSuccess;
    }
    std::map<Uuid, Date> expiries;
    const auto home = homeFrom(options.home) ? homeFrom(options.home) : fileSystem.currentHomeDirectory();
    const auto xdg = options.home.empty() && environment.variables.contains("XDG_CONFIG_HOME")
                         ? std::optional(environment.variables.at("XDG_CONFIG_HOME"))
                         : std::nullopt;
    if (auto stored = RuleExpiryStore(fileSystem, RuleExpiryStore::standardLocation(xdg, home)).loadMap())
        expiries = std::move(*stored);
    else
        err << "quillfort: the ends of timed rules cannot be read: " << stored.error().description << '\n';
    out << RuleFormatting::formatRuleTable(**snapshot, expiries, dateFrom(environment.clock->now()));
    return exitSuccess;
}

// The running agent on the session bus, or why there is none. With --home the
// tool works on another user's folder, which this session's agent does not keep.
std::expected<std::unique_ptr<AgentBusClient>, std::string> sessionAgent(const Options& options) {
    if (!options.home.empty()) return std::unexpected("--home names a folder the session's agent does not keep");
    return AgentBusClient::connect();
}

int runRuleChange(const std::string& change, const Options& options, const Environment& environment,
                  std::ostream& out, std::ostream& err) {
    namespace bus = QuillfortAgentBusInterface;
    std::optional<std::chrono::seconds> after;
    if (change == "expire" && options.duration != "never") {
        after = RuleExpiryDuration::parse(options.duration);
        if (!after)
            return failure(err, fmt::format("\"{}\" is not a duration: use 90s, 15m, 2h, 1d or never", options.duration),
                           exitUsage);
    }
    const std::string done = change == "enable"    ? "Enabled"
                             : change == "disable" ? "Disabled"
                             : change == "delete"  ? "Deleted"
                                                   : "Set the end of";

    // The running agent does the change, so its views and timers know at once.
    if (auto agent = sessionAgent(options)) {
        const char* method = change == "enable"    ? bus::enableRule
                             : change == "disable" ? bus::disableRule
                             : change == "delete"  ? bus::deleteRule
                                                   : bus::expireRule;
        std::vector<std::string> arguments{options.ruleID};
        if (change == "expire") arguments.push_back(options.duration);
        auto called = (*agent)->call(method, arguments);
        if (called) {
            out << fmt::format("{} rule {}.\n", done, options.ruleID);
            return exitSuccess;
        }
        if (!called.error().agentMissing()) return failure(err, called.error().message);
    }
    if (change == "expire")
        return failure(err, "a rule's end is kept by the running agent, which removes the rule at its time; start "
                            "quillfort-agent first");

    // No agent: the file itself, under the same lock the agent takes.
    FileSystem& fileSystem = *environment.fileSystem;
    auto location = QuillfortSharedContainer::ruleSnapshotURL(fileSystem, homeFrom(options.home));
    if (!location) return failure(err, "cannot tell where the shared container is: no home directory is known");
    auto snapshot = RuleSnapshotStore(fileSystem, location).loadIfPresent();
    if (!snapshot)
        return failure(err, fmt::format("cannot read {}: {}", location->string(), snapshot.error().description));
    auto rule = findRuleByIDPrefix(*snapshot ? (**snapshot).rules : std::vector<Rule>{}, options.ruleID);
    if (!rule) return failure(err, rule.error());
    const RuleChange edit = change == "delete" ? RuleChanges::remove(rule->id)
                                               : RuleChanges::setEnabled(rule->id, change == "enable");
    auto edited = RuleSnapshotEditor(fileSystem, location).edit(edit, dateFrom(environment.clock->now()));
    if (!edited) return failure(err, edited.error().description);
    out << fmt::format("{} rule {} \"{}\".\n", done, RuleFormatting::shortID(rule->id), rule->name);
    return exitSuccess;
}

// --- show ---------------------------------------------------------------------------

int runShow(const Options& options, std::ostream& out, std::ostream& err) {
    auto agent = sessionAgent(options);
    if (!agent) return failure(err, fmt::format("no session bus to reach the agent on: {}", agent.error()));
    auto called = (*agent)->call(QuillfortAgentBusInterface::showStatusWindow);
    if (!called) {
        if (called.error().agentMissing()) return failure(err, "no Quillfort agent runs in this session");
        return failure(err, called.error().message);
    }
    out << "Brought the agent's status window forward.\n";
    return exitSuccess;
}

// --- answer -------------------------------------------------------------------------

template <class Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(pickupPollInterval);
    }
    return true;
}

int runAnswer(const Options& options, const Environment& environment, std::ostream& out, std::ostream& err) {
    auto promptID = Uuid::parse(text::trimmed(options.promptID));
    if (!promptID)
        return failure(err, fmt::format("\"{}\" is not a prompt id; use the id shown by `quillfort status`.",
                                        options.promptID),
                       exitUsage);
    auto preset = fromRawValue<FlowPromptAutomationPreset>(options.preset);
    if (!preset)
        return failure(err, fmt::format("unknown preset \"{}\"; valid presets: {}", options.preset, presetList()),
                       exitUsage);

    FileSystem& fileSystem = *environment.fileSystem;
    const auto home = homeFrom(options.home);
    auto manifest = QuillfortPromptEndpointStore::load(fileSystem, home);
    if (!manifest) return failure(err, manifest.error().description);
    if (!*manifest) return failure(err, QuillfortPromptAgentClientError::missingEndpoint().description());
    auto requests = (*manifest)->requestsDirectoryURL();
    if ((*manifest)->transport != QuillfortPromptBridgeTransportKind::fileRequestResponse || !requests)
        return failure(err, "the published agent has no bridge session to send the answer to");
    // The command goes into the agent run's own session directory, the parent
    // of its requests directory, so it cannot reach another run.
    const auto session = QuillfortPromptEndpointStore::standardized(*requests).parent_path();
    if (!fileSystem.isDirectory(session))
        return failure(err, fmt::format("the agent's session directory {} does not exist; is the agent running?",
                                        session.string()));

    if (auto status = PromptAgentStatusStore::inSharedContainer(fileSystem, home).loadIfPresent();
        status && *status) {
        const auto& queue = (**status).queuedPrompts;
        if (std::none_of(queue.begin(), queue.end(), [&](const auto& entry) { return entry.promptID == *promptID; }))
            err << "quillfort: prompt " << promptID->uppercaseString()
                << " is not in the agent's queue; the agent will ignore the answer.\n";
    }

    const auto commandFile = session / QuillfortSharedContainer::promptAgentAutomationCommandFilename;
    // One command file serves one answer at a time: never overwrite one the
    // agent has not taken yet.
    if (!waitUntil([&] { return !fileSystem.exists(commandFile); }, environment.commandPickupLimit))
        return failure(err, fmt::format("another answer is still waiting for the agent at {}; try again once it "
                                        "has been taken",
                                        commandFile.string()));
    PromptAgentAutomationCommand command{*promptID, *preset, dateFrom(environment.clock->now())};
    if (auto saved = PromptAgentAutomationCommandStore(fileSystem, commandFile).save(command); !saved)
        return failure(err, fmt::format("cannot write {}: {}", commandFile.string(), saved.error().description));
    if (!waitUntil([&] { return !fileSystem.exists(commandFile); }, environment.commandPickupLimit))
        return failure(err, fmt::format("the agent has not taken the answer at {} yet; it applies it when it next "
                                        "looks, if it is running",
                                        commandFile.string()));
    out << fmt::format("Answered prompt {} with {}.\n", promptID->uppercaseString(), rawValue(*preset));
    return exitSuccess;
}

// --- login-item ---------------------------------------------------------------------

int runLoginItem(const std::string& action, const Environment& environment, std::ostream& out, std::ostream& err) {
    FileSystem& fileSystem = *environment.fileSystem;
    auto locations = LoginItem::autostartLocations(environment.variables, fileSystem.currentHomeDirectory());
    if (!locations) return failure(err, "cannot tell where your autostart folder is: no home directory is known");
    const LoginItem::Context context{fileSystem, environment.userServices.get(), std::move(*locations)};
    auto state = action == "status" ? LoginItem::status(context) : LoginItem::setEnabled(context, action == "enable");
    if (!state) return failure(err, state.error());
    out << LoginItem::describe(*state);
    return exitSuccess;
}

// --- the command line -------------------------------------------------------------------

void addHomeOption(CLI::App& command, Options& options) {
    command.add_option("--home", options.home,
                       "Home directory whose shared Quillfort folder to use (default: the console user's, else "
                       "your own)")
        ->type_name("DIR");
}

std::vector<std::string> tagNames() {
    std::vector<std::string> names;
    for (auto tag : allCases<ProcessTag>()) names.emplace_back(rawValue(tag));
    return names;
}

std::vector<std::string> presetNames() {
    std::vector<std::string> names;
    for (auto preset : allCases<FlowPromptAutomationPreset>()) names.emplace_back(rawValue(preset));
    return names;
}

}  // namespace

std::string presetList() {
    std::string list;
    for (const auto& name : presetNames()) list += (list.empty() ? "" : ", ") + name;
    return list;
}

std::optional<std::pair<std::string, std::uint16_t>> parseLoopbackEndpoint(std::string_view text) {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string host(text.substr(0, colon));
    auto port = text::parseUInt16(text.substr(colon + 1));
    in_addr address{};
    if (!port || host.empty() || ::inet_pton(AF_INET, host.c_str(), &address) != 1) return std::nullopt;
    return std::pair{std::move(host), *port};
}

std::expected<FlowPromptRequest, std::string> buildPromptRequest(const PromptFlowOptions& options, const Uuid& id,
                                                                 Date now,
                                                                 const ProcessLineage::ProcfsView& procfs) {
    if (text::trimmed(options.host).empty()) return std::unexpected("--host is needed unless --request names a file");
    const bool processFlags = options.executablePath || options.signingID || options.bundleID || options.teamID ||
                              !options.tags.empty();
    if (processFlags && !options.pid && (!options.executablePath || options.executablePath->empty()))
        return std::unexpected("--signing-id, --bundle-id, --team-id and --tag describe a process: give --exe or --pid");

    FlowPromptRequest request;
    request.id = id;
    FlowContext& context = request.context;
    FlowIdentity& flow = context.flow;
    flow.extensionGeneratedID = "quillfort-cli-" + id.uppercaseString();
    flow.direction = FlowDirection::outbound;
    flow.transportProtocol = options.protocol;
    flow.hostText = options.host;
    flow.port = options.port;
    if (options.port) flow.remoteEndpoint = NetworkEndpoint{options.host, *options.port};
    flow.timestamp = now;

    if (options.pid) {
        auto lineage = ProcessLineage::inspectLineage(*options.pid, procfs);
        if (!lineage) return std::unexpected(lineage.error().description);
        context.matchedProcessNode = std::move(lineage->process);
        context.ancestorChain = std::move(lineage->ancestors);
    } else if (processFlags) {
        context.matchedProcessNode = ProcessNode{};
        context.matchedProcessNode->identity.launchTime = now;
    }
    if (context.matchedProcessNode) {
        ProcessIdentity& identity = context.matchedProcessNode->identity;
        if (options.executablePath) identity.executablePath = *options.executablePath;
        if (options.signingID) identity.signingID = options.signingID;
        if (options.bundleID) identity.bundleID = options.bundleID;
        if (options.teamID) identity.teamID = options.teamID;
        context.matchedProcessNode->tags.insert(options.tags.begin(), options.tags.end());
        if (!identity.auditToken.empty()) flow.sourceProcessAuditToken = identity.auditToken;
    }
    return request;
}

int run(const std::vector<std::string>& arguments, const Environment& environment, std::ostream& out,
        std::ostream& err) {
    try {
        CLI::App app{"Talks to the Quillfort prompt agent and filter: submit a prompt, show the agent's status and "
                     "the shared rules, change a rule, answer a queued prompt, switch its start at login, show or "
                     "set up the filter.",
                     "quillfort"};
        app.require_subcommand(1);
        Options options;

        PromptCommand prompt;
        auto* promptCommand = app.add_subcommand(
            "prompt", "Put one flow before the user and print the agent's answer (a FlowPromptResponse) as JSON.");
        addHomeOption(*promptCommand, options);
        auto* request = promptCommand->add_option("--request", prompt.requestFile,
                                                  "JSON file holding a whole FlowPromptRequest")
                            ->type_name("FILE");
        auto* host = promptCommand->add_option("--host", prompt.flow.host, "Far host of the flow (name or address)")
                         ->type_name("HOST");
        auto* port = promptCommand->add_option("--port", prompt.port, "Far port of the flow (0-65535)")
                         ->type_name("PORT");
        auto* protocol = promptCommand->add_option("--protocol", prompt.protocolText, "Transport protocol")
                             ->check(CLI::IsMember({"tcp", "udp", "unknown"}))
                             ->capture_default_str();
        auto* pid = promptCommand->add_option("--pid", prompt.pid,
                                              "Attribute the flow to this live process and its ancestors")
                        ->check(CLI::PositiveNumber)
                        ->type_name("PID");
        auto* exe = promptCommand->add_option("--exe", prompt.flow.executablePath.emplace(),
                                              "Executable path of the process")
                        ->type_name("PATH");
        auto* signingID = promptCommand->add_option("--signing-id", prompt.flow.signingID.emplace(),
                                                    "Signing identifier of the process")
                              ->type_name("ID");
        auto* bundleID = promptCommand->add_option("--bundle-id", prompt.flow.bundleID.emplace(),
                                                   "Bundle identifier of the process")
                             ->type_name("ID");
        auto* teamID = promptCommand->add_option("--team-id", prompt.flow.teamID.emplace(),
                                                 "Team identifier of the process")
                           ->type_name("ID");
        auto* tags = promptCommand->add_option("--tag", prompt.tagTexts, "Process tag (repeatable)")
                         ->check(CLI::IsMember(tagNames()))
                         ->type_name("TAG")
                         ->take_all()
                         ->allow_extra_args(false);
        for (auto* flowOption : {host, port, protocol, pid, exe, signingID, bundleID, teamID, tags})
            request->excludes(flowOption);
        promptCommand->add_option("--timeout", prompt.timeout,
                                  "Give up after this many seconds (default: wait for the answer)")
            ->check(CLI::PositiveNumber)
            ->type_name("SECONDS");
        auto* loopback = promptCommand->add_option("--loopback", prompt.loopback,
                                                   "Loopback listener to fall back to")
                             ->type_name("IPV4:PORT")
                             ->capture_default_str();
        promptCommand->add_flag("--no-loopback", prompt.noLoopback, "Never fall back to the loopback listener")
            ->excludes(loopback);

        auto* statusCommand = app.add_subcommand("status", "Show what the agent says about itself and its queue.");
        addHomeOption(*statusCommand, options);
        statusCommand->add_flag("--json", options.json, "Print the status file as it is");

        auto* rulesCommand = app.add_subcommand(
            "rules", "List the rules in the shared rule snapshot, or change one (enable, disable, delete, expire).");
        addHomeOption(*rulesCommand, options);
        rulesCommand->add_flag("--json", options.json,
                               "Print the snapshot file as it is (\"No rules yet.\" goes to standard error)");
        rulesCommand->require_subcommand(0, 1);
        std::vector<std::pair<std::string, CLI::App*>> ruleChanges;
        for (const auto& [name, what] : {std::pair{"enable", "Switch a rule on"}, std::pair{"disable", "Switch a rule off"},
                                         std::pair{"delete", "Delete a rule"},
                                         std::pair{"expire", "End a rule after a time (the running agent removes it)"}}) {
            auto* change = rulesCommand->add_subcommand(name, what);
            addHomeOption(*change, options);
            change->add_option("ID", options.ruleID, "The rule's id or its first characters, as `quillfort rules` shows")
                ->required();
            if (std::string_view(name) == "expire")
                change->add_option("DURATION", options.duration, "90s, 15m, 2h, 1d, ... or never")->required();
            ruleChanges.emplace_back(name, change);
        }

        auto* showCommand = app.add_subcommand("show", "Bring the running agent's status window forward.");

        auto* answerCommand = app.add_subcommand("answer", "Answer a queued prompt with a preset.");
        addHomeOption(*answerCommand, options);
        answerCommand->add_option("PROMPT_ID", options.promptID, "Prompt id, as shown by `quillfort status`")
            ->required();
        answerCommand->add_option("PRESET", options.preset, "One of: " + presetList())->required();

        auto* watchCommand = app.add_subcommand(
            "watch", "Watch the agent's queue live in this terminal and answer prompts with keys.");
        addHomeOption(*watchCommand, options);

        std::string loginItemAction;
        auto* loginItemCommand = app.add_subcommand(
            "login-item", "Switch the agent's start at login on or off for you, or show which way it starts.");
        loginItemCommand->add_option("ACTION", loginItemAction, "enable, disable or status")
            ->check(CLI::IsMember({"enable", "disable", "status"}))
            ->required();

        FilterCommands::Options filter;
        auto* filterCommand = FilterCommands::describe(app, filter);

        try {
            std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
            app.parse(reversed);
        } catch (const CLI::ParseError& error) {
            const int status = app.exit(error, out, err);
            return status == 0 ? exitSuccess : exitUsage;
        }

        if (promptCommand->parsed()) {
            if (!exe->count()) prompt.flow.executablePath.reset();
            if (!signingID->count()) prompt.flow.signingID.reset();
            if (!bundleID->count()) prompt.flow.bundleID.reset();
            if (!teamID->count()) prompt.flow.teamID.reset();
            if (pid->count()) prompt.flow.pid = prompt.pid;
            if (port->count()) {
                auto parsed = text::parseUInt16(prompt.port);
                if (!parsed) return failure(err, fmt::format("--port {} is not a port", prompt.port), exitUsage);
                prompt.flow.port = *parsed;
            }
            prompt.flow.protocol = fromRawValue<TransportProtocol>(prompt.protocolText).value_or(TransportProtocol::tcp);
            for (const auto& tag : prompt.tagTexts)
                if (auto value = fromRawValue<ProcessTag>(tag)) prompt.flow.tags.push_back(*value);
            return runPrompt(prompt, request->count() > 0, options, environment, out, err);
        }
        if (statusCommand->parsed()) return runStatus(options, environment, out, err);
        for (const auto& [name, change] : ruleChanges)
            if (change->parsed()) return runRuleChange(name, options, environment, out, err);
        if (rulesCommand->parsed()) return runRules(options, environment, out, err);
        if (showCommand->parsed()) return runShow(options, out, err);
        if (answerCommand->parsed()) return runAnswer(options, environment, out, err);
        if (loginItemCommand->parsed()) return runLoginItem(loginItemAction, environment, out, err);
        if (watchCommand->parsed()) return QuillfortWatch::run(options.home, environment, err);
        if (filterCommand->parsed()) return FilterCommands::run(filter, *environment.fileSystem, out, err);
        return failure(err, "no command given", exitUsage);
    } catch (const std::exception& error) {
        return failure(err, error.what());
    }
}

}  // namespace quillfort::QuillfortCommandLine
