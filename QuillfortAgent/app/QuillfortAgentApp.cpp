#include "QuillfortAgent/app/QuillfortAgentApp.hpp"

#include <sys/stat.h>

#include <csignal>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include "QuillfortAgent/app/QuillfortAgentBootstrap.hpp"
#include "QuillfortAgent/app/QuillfortAgentSingleInstanceGuard.hpp"
#include "QuillfortAgent/automation/AgentPreviewPrompts.hpp"
#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/coordinator/CachedRuleSnapshotReader.hpp"
#include "QuillfortAgent/host/AgentRuleBook.hpp"
#include "QuillfortAgent/host/AsioMainThreadExecutor.hpp"
#include "QuillfortAgent/host/QuillfortAgentPromptServiceHost.hpp"
#include "QuillfortAgent/publishing/AgentSessionBusService.hpp"
#include "QuillfortAgent/transports/LoopbackPeerCheck.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "platform/Clock.hpp"
#include "platform/FileSystem.hpp"
#include "platform/FileUserDefaults.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "platform/UserDatabase.hpp"
#include "support/LogSink.hpp"

namespace quillfort::QuillfortAgentApp {

namespace {

void describeOptions(CLI::App& app, Options& options) {
    app.add_flag("--headless", options.headless,
                 "Run without a window even when a display is available (prompts are answered through "
                 "automation directives and command files)");
    app.add_option("--loopback-port", options.loopbackPort,
                   "TCP port of the loopback listener on 127.0.0.1 (0: any free port)")
        ->check(CLI::Range(0, 65535));
    app.add_option("--trusted-group", options.trustedGroup,
                   "Also take loopback prompts from the members of this group (a filter running as a "
                   "dedicated user); by default only root and the agent's own user may submit")
        ->check(CLI::Validator(
            [](std::string& name) {
                return UserDatabase::groupID(name) ? std::string() : "no group is named " + name;
            },
            "GROUP"));
    // The coordinator reads the preview flags from the whole command line itself
    // (a flag given last has no value and is no error), so they are taken out
    // before parsing and only described here.
    app.footer(
        "Preview prompts (read by the agent itself; --name value or --name=value):\n"
        "  --automation-preview-prompt          Queue synthetic preview prompts at start\n"
        "  --automation-preview-queue-count N   How many preview prompts to queue\n"
        "  --automation-preview-host H          Remote host of the preview prompts\n"
        "  --automation-preview-port P          Remote port of the preview prompts\n"
        "  --automation-preview-protocol tcp|udp  Transport protocol of the preview prompts");
}

// Bad arguments end the agent with this status, as they end the tool.
constexpr int badArgumentsStatus = 2;

// Parses what is left once the preview flags are out. A launch that ends on a
// bad argument still writes its launch line first, as every launch does.
// Nothing when the agent is to run, else the exit status.
std::optional<int> parseOptions(CLI::App& app, const ProcessInfo& processInfo) {
    auto arguments = AgentPreviewPrompts::withoutAutomationArguments(processInfo.arguments);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    try {
        app.parse(static_cast<int>(argv.size()), argv.data());
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // --help
        QuillfortAgentBootstrap::make(processInfo).logLaunch();
        (void)app.exit(error);  // says what was wrong
        return badArgumentsStatus;
    }
    return std::nullopt;
}

std::shared_ptr<UserDefaults> agentUserDefaults(const ProcessInfo& processInfo,
                                                const std::shared_ptr<FileSystem>& fileSystem) {
    if (auto location = FileUserDefaults::standardLocation(processInfo, *fileSystem)) {
        return std::make_shared<FileUserDefaults>(fileSystem, *location);
    }
    return std::make_shared<InMemoryUserDefaults>();
}

std::optional<LoopbackPeerCheck::TrustedGroup> trustedGroup(const Options& options) {
    if (options.trustedGroup.empty()) return std::nullopt;
    const auto gid = UserDatabase::groupID(options.trustedGroup);
    if (!gid) return std::nullopt;  // checked when the options were parsed
    return LoopbackPeerCheck::TrustedGroup{.name = options.trustedGroup, .gid = *gid};
}

int runAgent(std::unique_ptr<AgentFrontEnd> frontEnd, const ProcessInfo& processInfo, const Options& options) {
    // With a front end its event loop is the main thread and watches the signals itself.
    boost::asio::io_context mainContext(1);
    std::shared_ptr<MainThreadExecutor> mainThread =
        frontEnd ? frontEnd->mainThread() : std::make_shared<AsioMainThreadExecutor>(mainContext);
    // Registered first, so a signal during start-up ends the agent cleanly too.
    boost::asio::signal_set signals(mainContext);
    if (!frontEnd) {
        signals.add(SIGINT);
        signals.add(SIGTERM);
    }
    auto fileSystem = defaultFileSystem();

    const auto bootstrap = QuillfortAgentBootstrap::make(processInfo);
    // Before anything is made in the shared folder (the lock first).
    if (auto closed = QuillfortSharedContainer::keepParentsPrivate(*fileSystem, std::nullopt); !closed) {
        bootstrap.logger.error("Failed to keep the shared folder's parent folders private: %{public}s",
                               closed.error());
    }

    auto coordinator = std::make_shared<AgentPromptCoordinator>(AgentPromptCoordinator::Dependencies{
        .processInfo = processInfo,
        .userDefaults = agentUserDefaults(processInfo, fileSystem),
        .rules = CachedRuleSnapshotReader::inSharedContainer(fileSystem),
        .fileSystem = fileSystem,
        .clock = systemClock(),
        .uuids = randomUuidSource(),
        .formatTime = {},
    });

    // Taken before anything else is built on top of the coordinator.
    const QuillfortAgentSingleInstanceGuard singleInstanceGuard(*fileSystem, std::nullopt,
                                                                processInfo.processIdentifier);

    if (frontEnd) frontEnd->buildPresenter(coordinator);

    auto serviceHost = QuillfortAgentPromptServiceHost::make({
        .coordinator = coordinator,
        .mainThread = mainThread,
        .fileSystem = fileSystem,
        .homeDirectory = std::nullopt,
        .processInfo = processInfo,
        .clock = systemClock(),
        .uuids = randomUuidSource(),
        .loopbackPort = options.loopbackPort,
        .trustedGroup = trustedGroup(options),
    });

    const bool shouldActivate = singleInstanceGuard.shouldActivateCurrentInstance();
    bootstrap.logLaunch();
    if (!shouldActivate) return 0;  // the running agent is left alone

    // Session rules of an earlier run go before any prompt is served.
    const auto ruleBook = AgentRuleBook::make(AgentRuleBook::standardDependencies(fileSystem, processInfo, mainThread));
    ruleBook->start();
    serviceHost->start();
    // The queue on the user's session bus, for `quillfort watch` and busctl;
    // without a session bus the agent runs as before (one log line says so).
    AgentSessionBusService::Extras busExtras{.rules = ruleBook, .showStatusWindow = {}};
    if (frontEnd) busExtras.showStatusWindow = [&frontEnd] { frontEnd->showStatusWindow(); };
    const auto sessionBus = AgentSessionBusService::start(coordinator, mainThread, std::move(busExtras));
    if (frontEnd) frontEnd->start(ruleBook);
    coordinator->seedPreviewPromptIfRequested(processInfo);

    if (frontEnd) {
        frontEnd->run();
    } else {
        auto work = boost::asio::make_work_guard(mainContext);
        signals.async_wait([&](const boost::system::error_code& code, int) {
            if (!code) mainContext.stop();
        });
        mainContext.run();
    }

    // The agent keeps its host for the life of the process: manifest, status
    // file and session directory stay for the next launch to replace.
    serviceHost->stopForProcessExit();
    return 0;
}

}  // namespace

int main(int argc, char** argv, const FrontEndChooser& chooseFrontEnd) {
    // A peer that hangs up before its answer is sent must not end the agent.
    std::signal(SIGPIPE, SIG_IGN);
    // What the agent writes is its user's alone (the status file, the rule
    // snapshot, the lock): only the bridge's entries are opened to others, on
    // purpose and by their own mode.
    ::umask(077);
    const auto processInfo = ProcessInfo::current(argc, argv);
    setLogSink(defaultLogSink(processInfo));

    CLI::App app("Quillfort Agent: answers the firewall's flow prompts for this user session.", "quillfort-agent");
    Options options;
    describeOptions(app, options);
    if (const auto status = parseOptions(app, processInfo)) return *status;

    try {
        return runAgent(chooseFrontEnd(argc, argv, processInfo, options), processInfo, options);
    } catch (const std::exception& error) {
        QuillfortLogger::logger(QuillfortLogCategory::agent)
            .error("The Quillfort agent stopped on an unexpected error: %{public}s", error.what());
        return 1;
    }
}

}  // namespace quillfort::QuillfortAgentApp
