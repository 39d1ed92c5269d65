#include "QuillfortAgent/transports/LoopbackPromptError.hpp"

#include <string>

namespace quillfort::LoopbackPromptError {

namespace {

class Category final : public std::error_category {
public:
    [[nodiscard]] const char* name() const noexcept override { return "QuillfortPromptLoopback"; }

    [[nodiscard]] std::string message(int code) const override {
        switch (static_cast<LoopbackPromptErrorCode>(code)) {
            case LoopbackPromptErrorCode::headerIncomplete:
                return "The loopback prompt length header was incomplete.";
            case LoopbackPromptErrorCode::closedBeforePayload:
                return "The loopback prompt connection closed before the full payload arrived.";
            case LoopbackPromptErrorCode::payloadTooLarge:
                return "The loopback prompt request is larger than the agent accepts.";
            case LoopbackPromptErrorCode::requestTimedOut:
                return "The loopback prompt request did not arrive in time.";
            case LoopbackPromptErrorCode::frameBudgetExceeded:
                return "The loopback prompt requests being received together exceed the bytes the agent holds for them.";
        }
        return "Unknown loopback prompt error " + std::to_string(code) + ".";
    }
};

}  // namespace

const std::error_category& category() noexcept {
    static const Category instance;
    return instance;
}

Error make(LoopbackPromptErrorCode code) {
    const std::error_code errorCode(static_cast<int>(code), category());
    return Error{errorCode, errorCode.message()};
}

}  // namespace quillfort::LoopbackPromptError

namespace quillfort {

Error errorFromNetwork(int value, bool isSystemError, std::string description) {
    // Built from the number rather than by converting Boost's category to the
    // standard one, whose bridge object sanitizers cannot see through.
    return Error{isSystemError ? std::error_code(value, std::system_category()) : std::error_code{},
                 std::move(description)};
}

}  // namespace quillfort
