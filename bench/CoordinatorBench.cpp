// One lasting answer with 1,000 prompts queued: the rule it makes is checked
// against every other queued prompt once, and those it decides are answered
// with it. Half of the queue goes to the answered host, half elsewhere.
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "support/LogSink.hpp"

namespace quillfort {
namespace {

// The bench measures the coordinator, not the terminal its log lines would reach.
class DiscardingSink final : public LogSink {
public:
    void write(const LogRecord&) noexcept override {}
};

class NoRules final : public RuleSnapshotReader {
public:
    [[nodiscard]] Rules currentRules() override { return std::make_shared<const std::vector<Rule>>(); }
};

FlowPromptRequest requestTo(const std::string& host) {
    FlowPromptRequest request;
    request.id = Uuid::random();
    auto& context = request.context;
    context.matchedHostname = host;
    context.flow.hostText = host;
    context.flow.port = 443;
    ProcessNode node;
    node.identity.executablePath = "/usr/bin/curl";
    node.identity.signingID = "curl";
    context.matchedProcessNode = node;
    return request;
}

void LastingAnswerWithAThousandQueued(benchmark::State& state) {
    setLogSink(std::make_shared<DiscardingSink>());
    const auto queued = static_cast<std::uint64_t>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        AgentPromptCoordinator coordinator({.processInfo = {},
                                            .userDefaults = std::make_shared<InMemoryUserDefaults>(),
                                            .rules = std::make_shared<NoRules>(),
                                            .fileSystem = {},
                                            .clock = {},
                                            .uuids = {},
                                            .formatTime = [](auto) { return std::string("12:00:00"); }});
        Uuid first;
        for (std::uint64_t n = 0; n < queued; ++n) {
            auto request = requestTo(n % 2 == 0 ? "api.example.com" : "host" + std::to_string(n) + ".example.org");
            if (n == 0) first = request.id;
            coordinator.receivePrompt(std::move(request), [](auto, auto) {});
        }
        state.ResumeTiming();
        coordinator.resolvePrompt(first, AgentPromptDecisionPreset::allowPermanent);
        benchmark::DoNotOptimize(coordinator.activePrompts().value().size());
    }
}
BENCHMARK(LastingAnswerWithAThousandQueued)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillfort
