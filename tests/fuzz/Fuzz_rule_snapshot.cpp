// Any bytes found in the shared rule snapshot: decoded, written back, and used
// the way the agent uses it for a new prompt and for an answer.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contracts/FlowPromptExistingRuleAnalyzer.hpp"
#include "contracts/FlowPromptResolution.hpp"
#include "contracts/FlowPromptRuleBuilder.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "tests/contracts/FlowPromptSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillfort;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    auto snapshot = decodeJson<RuleSnapshotEnvelope>(text);
    if (!snapshot) return 0;
    auto again = decodeJson<RuleSnapshotEnvelope>(encodePretty(*snapshot));
    if (!again || !(*again == *snapshot)) __builtin_trap();

    const auto request = quillfort::testing::sampleRequest();
    (void)FlowPromptExistingRuleAnalyzer::signerChangeCandidate(request, snapshot->rules);
    FlowPromptResponse response;
    response.promptID = request.id;
    response.scope = RuleScope::persistent;
    response.persist = true;
    response.ruleSelection = FlowPromptRuleBuilder::defaultSelection(request);
    quillfort::testing::SequentialUuidSource ids;
    const auto outcome = FlowPromptResolution::resolve(request, response, *snapshot, true, RuleOrigin::promptResolved,
                                                       snapshot->generatedAt, ids);
    // The answer's rule, when there is one, always ends the updated snapshot.
    if (outcome.persistedRule &&
        (!outcome.updatedSnapshot || outcome.updatedSnapshot->rules.back() != *outcome.persistedRule)) {
        __builtin_trap();
    }
    return 0;
}
