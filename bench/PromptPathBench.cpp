// The functions every prompt runs, one by one: the bridge envelopes on the
// wire, the rule builder, the signer-change analyzer and the resolution over a
// 10,000-rule snapshot, and the coordinator making a session with a cached
// snapshot of that size.
#include <filesystem>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/coordinator/CachedRuleSnapshotReader.hpp"
#include "bench/BenchSamples.hpp"
#include "contracts/FlowPromptAutomation.hpp"
#include "contracts/FlowPromptExistingRuleAnalyzer.hpp"
#include "contracts/FlowPromptResolution.hpp"
#include "contracts/FlowPromptRuleBuilder.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/RuleSnapshotStore.hpp"
#include "platform/InMemoryUserDefaults.hpp"

namespace quillfort {
namespace {

using namespace quillfort::bench;

FlowPromptRequest request() {
    return FlowPromptRequest{.id = Uuid::random(), .context = typicalFlowContext(), .suggestedRule = {}};
}

const RuleSnapshotEnvelope& snapshot10k() {
    static const auto snapshot = ruleSnapshot(10'000);
    return snapshot;
}

void RequestEnvelopeDecode(benchmark::State& state) {
    const auto text = encodeCompact(QuillfortPromptBridgeRequestEnvelope{request(), benchDate()});
    for (auto _ : state) {
        auto decoded = decodeJson<QuillfortPromptBridgeRequestEnvelope>(text);
        benchmark::DoNotOptimize(decoded);
    }
}

void ResponseEnvelopeEncode(benchmark::State& state) {
    const auto prompt = request();
    const QuillfortPromptBridgeResponseEnvelope envelope{
        .promptID = prompt.id,
        .response = makeResponse(FlowPromptAutomationPreset::allowPermanent, prompt),
        .errorMessage = std::nullopt,
        .createdAt = benchDate(),
    };
    for (auto _ : state) {
        auto text = encodeCompact(envelope);
        benchmark::DoNotOptimize(text);
    }
}

void BuildSuggestedRule(benchmark::State& state) {
    const auto prompt = request();
    const auto selection = FlowPromptRuleBuilder::defaultSelection(prompt);
    for (auto _ : state) {
        auto rule = FlowPromptRuleBuilder::buildSuggestedRule(prompt, RuleAction::allow, RuleScope::persistent,
                                                              selection);
        benchmark::DoNotOptimize(rule);
    }
}

void SignerChangeCandidate10k(benchmark::State& state) {
    const auto prompt = request();
    for (auto _ : state) {
        auto candidate = FlowPromptExistingRuleAnalyzer::signerChangeCandidate(prompt, snapshot10k().rules);
        benchmark::DoNotOptimize(candidate);
    }
}

// What the agent does per lasting answer besides the file itself.
void ResolveAndMerge10k(benchmark::State& state) {
    const auto prompt = request();
    const auto response = makeResponse(FlowPromptAutomationPreset::allowPermanent, prompt);
    for (auto _ : state) {
        auto outcome = FlowPromptResolution::resolve(prompt, response, snapshot10k(), true,
                                                     RuleOrigin::promptResolved, benchDate());
        benchmark::DoNotOptimize(outcome);
    }
}

// Receiving a prompt (session made against the cached snapshot) and answering it.
void SessionCreation10kCached(benchmark::State& state) {
    auto fileSystem = defaultFileSystem();
    const auto path = std::filesystem::temp_directory_path() / ("quillfort-bench-rules-" + std::to_string(::getpid()));
    (void)RuleSnapshotStore(*fileSystem, path).save(snapshot10k());
    AgentPromptCoordinator coordinator(AgentPromptCoordinator::Dependencies{
        .processInfo = {},
        .userDefaults = std::make_shared<InMemoryUserDefaults>(),
        .rules = std::make_shared<CachedRuleSnapshotReader>(fileSystem, path),
        .fileSystem = fileSystem,
        .clock = systemClock(),
        .uuids = randomUuidSource(),
        .formatTime = [](auto) { return std::string("12:00:00"); },
    });
    auto prompt = request();
    for (auto _ : state) {
        prompt.id = Uuid::random();
        coordinator.receivePrompt(prompt, [](auto, auto) {});
        coordinator.resolvePrompt(prompt.id, AgentPromptDecisionPreset::allowOnce);
    }
    std::filesystem::remove(path);
}

BENCHMARK(RequestEnvelopeDecode);
BENCHMARK(ResponseEnvelopeEncode);
BENCHMARK(BuildSuggestedRule);
BENCHMARK(SignerChangeCandidate10k)->Unit(benchmark::kMicrosecond);
BENCHMARK(ResolveAndMerge10k)->Unit(benchmark::kMicrosecond);
BENCHMARK(SessionCreation10kCached)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quillfort
