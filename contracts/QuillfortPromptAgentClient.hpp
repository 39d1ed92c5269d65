// The filter side's way to put a flow prompt before the user: finds the agent
// through its listener manifest, talks over the file bridge (or the service the
// manifest names), falls back to the loopback listener, and reports every
// failure as one of seven fixed errors. It never throws.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "contracts/FlowPromptMessages.hpp"
#include "contracts/QuillfortPromptListenerRecord.hpp"
#include "platform/Clock.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort {

struct QuillfortPromptAgentClientError {
    enum class Kind {
        remoteFailure,            // the agent answered with an error text
        transportFailure,         // the exchange itself failed
        missingEndpoint,          // no manifest and no loopback endpoint
        invalidEndpointData,      // a manifest or loopback endpoint that cannot be used
        invalidRequestEncoding,   // the request could not be encoded
        invalidResponseDecoding,  // a bridge answer that is not a response envelope
        missingResponse,          // the agent answered without a response
    };

    Kind kind = Kind::missingResponse;
    std::string message;  // remoteFailure and transportFailure only; empty otherwise

    [[nodiscard]] static QuillfortPromptAgentClientError remoteFailure(std::string message);
    [[nodiscard]] static QuillfortPromptAgentClientError transportFailure(std::string message);
    [[nodiscard]] static QuillfortPromptAgentClientError missingEndpoint();
    [[nodiscard]] static QuillfortPromptAgentClientError invalidEndpointData();
    [[nodiscard]] static QuillfortPromptAgentClientError invalidRequestEncoding();
    [[nodiscard]] static QuillfortPromptAgentClientError invalidResponseDecoding();
    [[nodiscard]] static QuillfortPromptAgentClientError missingResponse();

    // The text shown to people: the carried message for the two failures that
    // have one, a fixed sentence for the others.
    [[nodiscard]] std::string description() const;

    bool operator==(const QuillfortPromptAgentClientError&) const = default;
};

std::ostream& operator<<(std::ostream& out, const QuillfortPromptAgentClientError& error);

using QuillfortPromptAgentClientResult = std::expected<FlowPromptResponse, QuillfortPromptAgentClientError>;

// Fixed texts of the transport failures the client produces itself.
namespace QuillfortPromptAgentClientMessages {
inline constexpr std::string_view loopbackClosedEarly =
    "The Quillfort prompt loopback connection closed before the full payload arrived.";
inline constexpr std::string_view bridgeWriteFailed = "Failed to write the Quillfort prompt bridge request.";
inline constexpr std::string_view timedOut = "Timed out waiting for the Quillfort prompt agent response.";
// The last copy of a client went away while a submission still waited.
inline constexpr std::string_view clientStopped =
    "The Quillfort prompt client stopped before the agent answered.";
// Linux has no Mach services, so a manifest naming one cannot be served here;
// the loopback fallback still applies.
inline constexpr std::string_view machServiceUnavailable =
    "Mach service transport is not available on this platform.";
inline constexpr std::string_view createSocketPrefix = "Failed to create the Quillfort prompt loopback socket";
inline constexpr std::string_view configureSocketPrefix =
    "Failed to configure the Quillfort prompt loopback socket timeout";
inline constexpr std::string_view connectPrefix = "Failed to connect to the Quillfort prompt loopback listener";
inline constexpr std::string_view writePrefix = "Failed to write the Quillfort prompt loopback request";
inline constexpr std::string_view readPrefix = "Failed to read the Quillfort prompt loopback response";
}  // namespace QuillfortPromptAgentClientMessages

namespace detail {
class PromptAgentClientRuntime;
}

// Holds no state between calls: every submission loads the manifest afresh.
// Copies share one small runtime: a single thread running the sockets, the
// bridge polls and the time limits of every submission as asynchronous
// operations, so any number of prompts can wait at once without holding a
// thread each. The thread starts with the first submission that needs it.
//
// Completions run on that thread, unless a failure is known before any work is
// scheduled, in which case the completion runs before `submit` returns. A
// completion that blocks holds up every other submission of the client, and
// `submitSync` called from a completion cannot be answered before it gives up.
// When the last copy goes away, submissions still waiting end with
// `transportFailure(clientStopped)` and their bridge files are removed.
class QuillfortPromptAgentClient {
public:
    using Completion = std::function<void(QuillfortPromptAgentClientResult)>;

    // The bridge polls for the answer at this fixed interval, without back-off.
    static constexpr double responsePollInterval = 0.1;

    // The loopback endpoint is used only when the host is present and not empty
    // and the port is present; no default is substituted. `clock` stamps the
    // envelopes; waiting uses the monotonic clock so that wall-clock changes do
    // not stretch or cut a time limit.
    QuillfortPromptAgentClient(std::shared_ptr<FileSystem> fileManager,
                               std::optional<std::filesystem::path> homeDirectoryURL,
                               std::optional<std::string> preferredLoopbackHost,
                               std::optional<std::uint16_t> preferredLoopbackPort,
                               std::shared_ptr<const Clock> clock = systemClock());

    // Asynchronous, with no time limit: a file-bridge submission waits for the
    // answer as long as it takes.
    void submit(const FlowPromptRequest& request, Completion completion) const;

    // Like submit, for a caller that may stop waiting: once `cancelled` is set,
    // a request not yet sent never is, a file-bridge wait ends and removes its
    // files, and the completion receives transportFailure(timedOut).
    void submit(const FlowPromptRequest& request, Completion completion,
                std::shared_ptr<const std::atomic<bool>> cancelled) const;

    // Waits at most `timeoutSeconds` (the bridge and every step of the loopback
    // exchange get the same limit). On time-out the work goes on in the
    // background and its late result is dropped; a request not yet sent by then
    // never is.
    [[nodiscard]] QuillfortPromptAgentClientResult submitSync(const FlowPromptRequest& request,
                                                              double timeoutSeconds) const;

    [[nodiscard]] bool hasUsableLoopbackEndpoint() const noexcept;
    [[nodiscard]] const std::optional<std::filesystem::path>& homeDirectoryURL() const noexcept {
        return homeDirectoryURL_;
    }

    // --- Building blocks, public for tests -----------------------------------

    // The limit of each loopback step (connect, send, every receive) for a
    // submission's limit: whole seconds and the truncated microseconds (1.25
    // gives 1 s and 250000 µs), as a blocking socket's time-outs would be set.
    // Nothing when there is no limit or it is not positive: the step then waits.
    [[nodiscard]] static std::optional<timeval> loopbackSocketTimeout(std::optional<double> timeoutSeconds) noexcept;

    // prefix + ": " + the system's text for `errorNumber`, or prefix + ". errno="
    // + the number when the system has no text for it.
    [[nodiscard]] static std::string posixSocketErrorDescription(std::string_view prefix, int errorNumber);

private:
    // Set by submitSync when its caller stops waiting; work not yet sent by then never is.
    using GivenUp = std::shared_ptr<const std::atomic<bool>>;

    void submit(const FlowPromptRequest& request, std::optional<double> timeout, Completion completion,
                GivenUp givenUp = {}) const;
    void submitUsingFileBridge(const FlowPromptRequest& request, const QuillfortPromptListenerRecord& record,
                               std::optional<double> timeout, Completion completion, GivenUp givenUp) const;
    void submitUsingMachService(const FlowPromptRequest& request, const QuillfortPromptListenerRecord& record,
                                Completion completion) const;
    void submitUsingLoopbackTCP(const FlowPromptRequest& request, const std::string& host, std::uint16_t port,
                                std::optional<double> timeout, Completion completion, GivenUp givenUp = {}) const;

    std::shared_ptr<FileSystem> fileManager_;
    std::optional<std::filesystem::path> homeDirectoryURL_;
    std::optional<std::string> preferredLoopbackHost_;
    std::optional<std::uint16_t> preferredLoopbackPort_;
    std::shared_ptr<const Clock> clock_;
    std::shared_ptr<detail::PromptAgentClientRuntime> runtime_;
};

}  // namespace quillfort
