// Sample data shared by the benchmarks and the load tool: a typical prompted
// flow (a Gradle daemon with its ancestors) and rule snapshots of any size.
#pragma once

#include <cstddef>

#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/FlowContext.hpp"
#include "model/Rule.hpp"

namespace quillfort::bench {

[[nodiscard]] Date benchDate();
// A Gradle daemon's flow: the process, three ancestors, tags and tokens.
[[nodiscard]] FlowContext typicalFlowContext();
// Rule `i` of a snapshot: varied subjects and destinations, host<i>.example.com.
[[nodiscard]] Rule snapshotRule(std::size_t i);
[[nodiscard]] RuleSnapshotEnvelope ruleSnapshot(std::size_t count);

}  // namespace quillfort::bench
