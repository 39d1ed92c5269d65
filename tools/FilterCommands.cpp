#include "tools/FilterCommands.hpp"

#include <signal.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "contracts/QuillfortFilterConfigurationFile.hpp"
#include "contracts/QuillfortFilterVendorConfiguration.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "model/Json.hpp"

namespace quillfort::FilterCommands {

namespace {

constexpr int exitSuccess = 0, exitFailure = 1, exitUsage = 2;

int failure(std::ostream& err, std::string_view message, int status = exitFailure) {
    err << "quillfort: " << message << '\n';
    return status;
}

bool processRuns(std::uint32_t pid) { return pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM); }

int runStatus(const Options& options, FileSystem& fileSystem, std::ostream& out, std::ostream& err) {
    auto bytes = fileSystem.readFile(options.statusFile);
    if (!bytes) {
        if (bytes.error().isNoSuchFile())
            return failure(err, fmt::format("quillfort-filter is not running (no status at {}).", options.statusFile.string()));
        return failure(err, bytes.error().description);
    }
    auto status = decodeJson<QuillfortFilterStatus>(*bytes);
    if (!status) return failure(err, fmt::format("{} is not a filter status: {}", options.statusFile.string(),
                                                 status.error().description()));
    if (options.json) {
        out << *bytes;
        return exitSuccess;
    }
    std::vector<FlowFilterEvent> events;
    auto container = QuillfortSharedContainer::containerURL(fileSystem, options.home);
    if (status->sharedFolder && !options.home) container = std::filesystem::path(*status->sharedFolder);
    if (container) {
        auto snapshot = fileSystem.readFile(*container / QuillfortSharedContainer::flowFilterMonitorSnapshotFilename);
        if (snapshot)
            if (auto decoded = decodeJson<FlowFilterEventSnapshot>(*snapshot)) events = decoded->events;
    }
    const bool running = processRuns(status->pid);
    out << formatStatus(*status, running, events, options.recent);
    return running ? exitSuccess : exitFailure;
}

int runChange(const Options& options, FileSystem& fileSystem, std::ostream& out, std::ostream& err) {
    namespace C = QuillfortFilterVendorConfiguration;
    const bool mode = options.action == "mode";
    if (mode ? !fromRawValue<FlowFilterMode>(options.value) : !fromRawValue<UnknownTrafficMode>(options.value))
        return failure(err,
                       fmt::format("\"{}\" is not {}", options.value,
                                   mode ? "monitor or enforce" : "alerting, permissive or blocking"),
                       exitUsage);
    PropertyListDictionary dictionary;
    auto bytes = fileSystem.readFile(options.configurationFile);
    if (bytes) {
        auto decoded = QuillfortFilterConfigurationFile::decode(*bytes);
        if (!decoded) return failure(err, fmt::format("{} cannot be read: {}; it was left as it is.",
                                                      options.configurationFile.string(), decoded.error().description));
        dictionary = std::move(*decoded);
    } else if (!bytes.error().isNoSuchFile()) {
        return failure(err, bytes.error().description);
    }
    dictionary.insert_or_assign(std::string(mode ? C::modeKey : C::unknownTrafficModeKey), options.value);
    if (auto made = fileSystem.createDirectories(options.configurationFile.parent_path()); !made)
        return failure(err, made.error().description);
    if (auto written = fileSystem.writeFileAtomically(options.configurationFile,
                                                      QuillfortFilterConfigurationFile::encode(dictionary));
        !written) {
        const bool denied = written.error().code == std::errc::permission_denied ||
                            written.error().code == std::errc::operation_not_permitted;
        return failure(err, denied ? fmt::format("{}: changing the filter's configuration needs root (try sudo).",
                                                 written.error().description)
                                   : written.error().description);
    }
    out << fmt::format("{} is now {} in {}; a running filter follows at once.\n",
                       mode ? "The filter mode" : "Unknown traffic", options.value, options.configurationFile.string());
    return exitSuccess;
}

}  // namespace

CLI::App* describe(CLI::App& app, Options& options) {
    auto* command = app.add_subcommand(
        "filter", "Show the filter's state and recent decisions (status), or change its mode or unknown-traffic mode.");
    command->add_option("ACTION", options.action, "status, mode or unknown-traffic")
        ->check(CLI::IsMember({"status", "mode", "unknown-traffic"}))
        ->required();
    command->add_option("VALUE", options.value,
                        "For mode: monitor or enforce; for unknown-traffic: alerting, permissive or blocking");
    command->add_flag("--json", options.json, "status: print the status file as it is");
    command->add_option("--status-file", options.statusFile, "The filter's status file")->capture_default_str();
    command->add_option("--config", options.configurationFile, "The filter's configuration file")
        ->capture_default_str();
    command->add_option("--recent", options.recent, "status: how many recent decisions to show")->capture_default_str();
    command->add_option("--home", options.home, "Read the flow events of this home's shared folder");
    return command;
}

int run(const Options& options, FileSystem& fileSystem, std::ostream& out, std::ostream& err) {
    if (options.action == "status") {
        if (!options.value.empty()) return failure(err, "filter status takes no value", exitUsage);
        return runStatus(options, fileSystem, out, err);
    }
    if (options.value.empty()) return failure(err, fmt::format("filter {} needs a value", options.action), exitUsage);
    return runChange(options, fileSystem, out, err);
}

std::string formatStatus(const QuillfortFilterStatus& status, bool running, const std::vector<FlowFilterEvent>& events,
                         std::size_t recent) {
    std::string text;
    text += running ? "quillfort-filter runs" : "quillfort-filter is not running; its last status follows";
    text += fmt::format(" (pid {}, status of {}).\n\n", status.pid, iso8601String(status.updatedAt));
    for (const auto& component : status.activation.components)
        text += fmt::format("{:<18} {:<12} {}\n", std::string(title(component.component)) + ":",
                            title(component.state), component.summary);
    const auto& c = status.counters;
    text += fmt::format("\nMode:              {}\nUnknown traffic:   {}\nQueue:             {} ({}{}{})\n",
                        rawValue(status.mode), rawValue(status.unknownTrafficMode), status.queue, status.queueMechanism,
                        status.failClosed ? ", fail-closed" : ", fail-open",
                        status.includeLoopback ? ", loopback included" : "");
    text += fmt::format("Attribution:       {}\nRules:             {} from the {} snapshot\n", status.attribution,
                        status.ruleCount, status.ruleSource);
    if (status.ruleProblem) text += fmt::format("Rule problem:      {}\n", *status.ruleProblem);
    if (status.sharedFolder) text += fmt::format("Shared folder:     {}\n", *status.sharedFolder);
    text += fmt::format("Flows decided:     {} ({} allowed, {} dropped); prompts asked {}, waiting {}\n",
                        c.flowsDecided, c.flowsAllowed, c.flowsDropped, c.promptsAsked, c.promptsWaiting);
    text += fmt::format("Caches:            {} processes ({} hits, {} misses), {} addresses named, {} executables\n",
                        c.processCacheEntries, c.processCacheHits, c.processCacheMisses, c.hostNameCacheEntries,
                        c.executableIdentities);
    text += "\nRecent decisions:\n";
    if (events.empty()) text += "  none recorded\n";
    const std::size_t first = events.size() > recent ? events.size() - recent : 0;
    for (std::size_t index = first; index < events.size(); ++index)
        text += fmt::format("  {}  {}\n", iso8601String(events[index].recordedAt), events[index].summary);
    return text;
}

}  // namespace quillfort::FilterCommands
