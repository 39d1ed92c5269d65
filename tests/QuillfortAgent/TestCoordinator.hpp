// A coordinator as the widget and coordinator tests build it: the sample
// clock, ids from 1000, answer times shown as 12:00:00, and rules and a file
// system the test controls.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort::testing {

class FakeRules final : public RuleSnapshotReader {
public:
    [[nodiscard]] Rules currentRules() override { return std::make_shared<const std::vector<Rule>>(rules); }
    std::vector<Rule> rules;
};

// The container is /srv/group, so the endpoint is /srv/group/QuillfortPromptAgent.endpoint.
inline std::shared_ptr<AgentPromptCoordinator> makeTestCoordinator(
    std::shared_ptr<RuleSnapshotReader> rules, std::shared_ptr<FakeFileSystem> fileSystem,
    std::shared_ptr<UserDefaults> defaults = std::make_shared<InMemoryUserDefaults>(), ProcessInfo process = {}) {
    fileSystem->setAppGroupContainer("/srv/group");
    return std::make_shared<AgentPromptCoordinator>(AgentPromptCoordinator::Dependencies{
        .processInfo = std::move(process),
        .userDefaults = std::move(defaults),
        .rules = std::move(rules),
        .fileSystem = std::move(fileSystem),
        .clock = std::make_shared<SampleClock>(),
        .uuids = std::make_shared<SequentialUuidSource>(1000),
        .formatTime = [](auto) { return std::string("12:00:00"); },
    });
}

}  // namespace quillfort::testing
