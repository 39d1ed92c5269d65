#include "QuillfortAgent/app/QuillfortAgentBootstrap.hpp"

namespace quillfort {

QuillfortAgentBootstrap QuillfortAgentBootstrap::make(const ProcessInfo& processInfo) {
    return QuillfortAgentBootstrap{
        .featureFlags = QuillfortFeatureFlags::resolve(processInfo),
        .logger = QuillfortLogger::logger(QuillfortLogCategory::agent),
    };
}

void QuillfortAgentBootstrap::logLaunch() const {
    logger.log("Launching Quillfort agent login-item helper. verboseLogging=%{bool,public}d",
               featureFlags.verboseLoggingEnabled);
}

}  // namespace quillfort
