// The whole rule set shared between the filter and the agent, stamped with the
// time it was produced; this is the content of the shared rule snapshot file.
#pragma once

#include <vector>

#include "model/Date.hpp"
#include "model/Json.hpp"
#include "model/Rule.hpp"

namespace quillfort {

struct RuleSnapshotEnvelope {
    Date generatedAt{};
    std::vector<Rule> rules;

    bool operator==(const RuleSnapshotEnvelope&) const = default;
};

template <>
struct JsonFields<RuleSnapshotEnvelope> {
    using T = RuleSnapshotEnvelope;
    static constexpr auto fields = std::tuple{
        jsonField("generatedAt", &T::generatedAt),
        jsonField("rules", &T::rules),
    };
};

}  // namespace quillfort
