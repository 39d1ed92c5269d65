// The flows that wait for the user, one prompt per kind of flow: flows of the
// same executable, user, host, port, protocol and direction that arrive while
// a prompt is open join it and share its answer, and a retransmitted packet
// joins the flow it belongs to. Bounded: past the limits a new flow is not
// held (the caller decides it without the user).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "contracts/FlowPromptMessages.hpp"
#include "model/FlowContext.hpp"
#include "platform/IpAddress.hpp"

namespace quillfort {

struct FlowTuple {
    std::uint8_t protocol = 0;
    IpEndpoint local;
    IpEndpoint remote;
    FlowDirection direction = FlowDirection::outbound;

    auto operator<=>(const FlowTuple&) const = default;
    bool operator==(const FlowTuple&) const = default;
};

struct PromptKey {
    std::string executable;
    std::uint32_t uid = 0;
    std::string host;
    std::uint16_t port = 0;
    TransportProtocol protocol = TransportProtocol::unknown;
    FlowDirection direction = FlowDirection::outbound;

    auto operator<=>(const PromptKey&) const = default;
    bool operator==(const PromptKey&) const = default;
};

struct HeldFlow {
    FlowTuple tuple;
    std::vector<std::uint32_t> packets;
    FlowContext context;
    std::chrono::steady_clock::time_point arrivedAt;
};

struct PendingPrompt {
    FlowPromptRequest request;
    PromptKey key;
    std::vector<HeldFlow> flows;
    std::chrono::steady_clock::time_point askedAt;
    std::shared_ptr<std::atomic<bool>> cancelled = std::make_shared<std::atomic<bool>>(false);
};

class PendingPrompts {
public:
    static constexpr std::size_t defaultMaximumPrompts = 256;
    static constexpr std::size_t defaultMaximumPackets = 16384;

    explicit PendingPrompts(std::size_t maximumPrompts = defaultMaximumPrompts,
                            std::size_t maximumPackets = defaultMaximumPackets)
        : maximumPrompts_(maximumPrompts), maximumPackets_(maximumPackets) {}

    // Adds a retransmission to the flow holding `tuple`; false when no held
    // flow has that tuple or the packet limit is reached (the caller drops it).
    enum class Join { joined, notHeld, full };
    [[nodiscard]] Join holdPacket(const FlowTuple& tuple, std::uint32_t packet);

    // The open prompt for `key`, if any.
    [[nodiscard]] PendingPrompt* find(const PromptKey& key);

    // Joins `flow` to the open prompt for `key`, or opens one with `request`.
    // Nothing when a limit is reached. The bool says whether a prompt was opened.
    [[nodiscard]] std::optional<std::pair<PendingPrompt*, bool>> hold(const PromptKey& key, HeldFlow flow,
                                                                      const FlowPromptRequest& request,
                                                                      std::chrono::steady_clock::time_point now);

    // Removes and returns the prompt `id`, with every flow it holds.
    [[nodiscard]] std::optional<PendingPrompt> take(const Uuid& id);
    // Removes every prompt (the agent went away, or the filter stops).
    [[nodiscard]] std::vector<PendingPrompt> takeAll();

    [[nodiscard]] std::size_t prompts() const noexcept { return byID_.size(); }
    [[nodiscard]] std::size_t packets() const noexcept { return packets_; }
    [[nodiscard]] bool empty() const noexcept { return byID_.empty(); }

private:
    std::size_t maximumPrompts_;
    std::size_t maximumPackets_;
    std::map<Uuid, PendingPrompt> byID_;
    std::map<PromptKey, Uuid> byKey_;
    std::map<FlowTuple, Uuid> byTuple_;
    std::size_t packets_ = 0;
};

}  // namespace quillfort
