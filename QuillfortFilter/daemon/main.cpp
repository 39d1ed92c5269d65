// quillfort-filter: the firewall's filter on Linux, a root daemon serving the
// NFQUEUE its own nftables table feeds. A thin entry point: options, the
// log sink, and the daemon.
#include <malloc.h>

#include <cstdio>
#include <exception>
#include <map>
#include <string>

#include <CLI/CLI.hpp>

#include "QuillfortFilter/daemon/FilterDaemon.hpp"
#include "QuillfortFilter/kernel/FilterKernelRules.hpp"
#include "platform/ProcessInfo.hpp"
#include "support/LogSink.hpp"

namespace {

using namespace quillfort;

constexpr int exitUsage = 2;

template <class Enum>
std::map<std::string, Enum> choices() {
    std::map<std::string, Enum> map;
    for (auto value : allCases<Enum>()) map.emplace(std::string(rawValue(value)), value);
    return map;
}

}  // namespace

int main(int argc, char** argv) {
    // The daemon runs for the machine's whole uptime: large transient buffers
    // (a snapshot's text and tree, a burst's event records) are mapped and
    // handed back when freed, and a freed heap top goes back early, instead
    // of the allocator raising both limits after the first large free and
    // keeping tens of megabytes it will not need again.
    ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    ::mallopt(M_TRIM_THRESHOLD, 256 * 1024);
    try {
        const auto processInfo = ProcessInfo::current(argc, argv);
        setLogSink(defaultLogSink(processInfo));

        FilterOptions options;
        bool removeRules = false;
        CLI::App app{"Quillfort's filter: decides every new TCP and UDP flow by the rules, asks the prompt agent "
                     "when none decides, and enforces the answer.",
                     "quillfort-filter"};
        app.add_option("--queue", options.queue, "NFQUEUE number (also the DNS log group)")->check(CLI::Range(0, 65535));
        app.add_flag("--include-loopback", options.includeLoopback,
                     "Decide loopback flows too (a connection between two local processes, as the client's)");
        app.add_flag("--fail-closed", options.failClosed,
                     "While no filter serves the queue (crash, restart), drop new flows instead of passing them");
        app.add_option("--home", options.home, "Serve this home's shared folder instead of the console user's");
        app.add_option("--config", options.configurationFile, "Configuration file")->capture_default_str();
        app.add_option("--mode", options.mode, "Override the configured mode: monitor or enforce")
            ->transform(CLI::CheckedTransformer(choices<FlowFilterMode>(), CLI::ignore_case));
        app.add_option("--unknown-traffic", options.unknownTrafficMode,
                       "Override the unknown-traffic mode: alerting, permissive or blocking")
            ->transform(CLI::CheckedTransformer(choices<UnknownTrafficMode>(), CLI::ignore_case));
        app.add_option("--state-dir", options.stateDirectory, "Where the copy of the last good rules is kept")
            ->capture_default_str();
        app.add_option("--status-file", options.statusFile, "Where the filter's status is written")
            ->capture_default_str();
        app.add_option("--agent-port", options.agentLoopbackPort, "The agent's loopback port")
            ->check(CLI::Range(1, 65535));
        app.add_flag("--no-socket-owner-programs", [&options](std::int64_t) { options.useSocketOwnerPrograms = false; },
                     "Find flows' processes through sock_diag and /proc only, without kernel programs");
        app.add_flag("--remove-rules", removeRules,
                     "Remove the filter's kernel table left by a stopped filter (fail-closed) and exit");
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            const int status = app.exit(error);
            return status == 0 ? 0 : exitUsage;
        }

        if (removeRules) {
            if (auto removed = FilterKernelRules::removeStale(); !removed) {
                std::fprintf(stderr, "quillfort-filter: %s\n", removed.error().description.c_str());
                return 1;
            }
            return 0;
        }
        FilterDaemon daemon(std::move(options));
        return daemon.run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "quillfort-filter: %s\n", error.what());
        return 1;
    }
}
