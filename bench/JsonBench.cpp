// Typed decode and encode against a bare parse of the same bytes, so the cost
// the model layer adds on top of the parser can be read off directly.
#include <chrono>
#include <string>

#include <benchmark/benchmark.h>
#include <boost/json/parse.hpp>

#include "bench/BenchSamples.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/FlowContext.hpp"
#include "model/Json.hpp"
#include "model/Rule.hpp"

namespace quillfort {
namespace {

using namespace quillfort::bench;

const std::string& flowContextText() {
    static const std::string text = encodeCompact(typicalFlowContext());
    return text;
}

// The snapshot file is kept indented with sorted keys.
const std::string& snapshotText() {
    static const std::string text = encodePretty(ruleSnapshot(10'000));
    return text;
}

template <class T>
void decodeTyped(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        auto decoded = decodeJson<T>(text);
        if (!decoded) state.SkipWithError(decoded.error().description().c_str());
        benchmark::DoNotOptimize(decoded);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["bytes"] = static_cast<double>(text.size());
}

void parseBare(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        auto value = boost::json::parse(text);
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

template <class T, std::string (*Encode)(const T&)>
void encode(benchmark::State& state, const T& value) {
    std::size_t size = 0;
    for (auto _ : state) {
        std::string text = Encode(value);
        size = text.size();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

void FlowContextDecode(benchmark::State& state) { decodeTyped<FlowContext>(state, flowContextText()); }
void FlowContextBareParse(benchmark::State& state) { parseBare(state, flowContextText()); }
void FlowContextEncodeCompact(benchmark::State& state) {
    encode<FlowContext, encodeCompact<FlowContext>>(state, typicalFlowContext());
}
void FlowContextEncodePretty(benchmark::State& state) {
    encode<FlowContext, encodePretty<FlowContext>>(state, typicalFlowContext());
}

void RuleSnapshotDecode(benchmark::State& state) { decodeTyped<RuleSnapshotEnvelope>(state, snapshotText()); }
void RuleSnapshotBareParse(benchmark::State& state) { parseBare(state, snapshotText()); }
void RuleSnapshotEncodePretty(benchmark::State& state) {
    static const auto snapshot = ruleSnapshot(10'000);
    encode<RuleSnapshotEnvelope, encodePretty<RuleSnapshotEnvelope>>(state, snapshot);
}
void RuleSnapshotEncodeCompact(benchmark::State& state) {
    static const auto snapshot = ruleSnapshot(10'000);
    encode<RuleSnapshotEnvelope, encodeCompact<RuleSnapshotEnvelope>>(state, snapshot);
}

BENCHMARK(FlowContextDecode);
BENCHMARK(FlowContextBareParse);
BENCHMARK(FlowContextEncodeCompact);
BENCHMARK(FlowContextEncodePretty);
BENCHMARK(RuleSnapshotDecode)->Unit(benchmark::kMillisecond);
BENCHMARK(RuleSnapshotBareParse)->Unit(benchmark::kMillisecond);
BENCHMARK(RuleSnapshotEncodePretty)->Unit(benchmark::kMillisecond);
BENCHMARK(RuleSnapshotEncodeCompact)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillfort
