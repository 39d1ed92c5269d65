// What the agent resolves first at launch: its feature flags and the logger
// that writes the launch line.
#pragma once

#include "platform/ProcessInfo.hpp"
#include "support/QuillfortFeatureFlags.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

struct QuillfortAgentBootstrap {
    QuillfortFeatureFlags featureFlags;
    Logger logger{QuillfortLogCategory::agent};

    [[nodiscard]] static QuillfortAgentBootstrap make(const ProcessInfo& processInfo);

    // "Launching Quillfort agent login-item helper. verboseLogging=<bool>", written
    // by every launch, also one that is about to give way to a running agent.
    void logLaunch() const;

    bool operator==(const QuillfortAgentBootstrap&) const = default;
};

}  // namespace quillfort
