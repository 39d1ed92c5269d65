#include "QuillfortFilter/flows/PendingPrompts.hpp"

#include <algorithm>

namespace quillfort {

PendingPrompts::Join PendingPrompts::holdPacket(const FlowTuple& tuple, std::uint32_t packet) {
    auto found = byTuple_.find(tuple);
    if (found == byTuple_.end()) return Join::notHeld;
    if (packets_ >= maximumPackets_) return Join::full;
    auto& prompt = byID_.at(found->second);
    auto flow = std::find_if(prompt.flows.begin(), prompt.flows.end(),
                             [&](const HeldFlow& held) { return held.tuple == tuple; });
    flow->packets.push_back(packet);
    ++packets_;
    return Join::joined;
}

PendingPrompt* PendingPrompts::find(const PromptKey& key) {
    auto found = byKey_.find(key);
    return found == byKey_.end() ? nullptr : &byID_.at(found->second);
}

std::optional<std::pair<PendingPrompt*, bool>> PendingPrompts::hold(const PromptKey& key, HeldFlow flow,
                                                                    const FlowPromptRequest& request,
                                                                    std::chrono::steady_clock::time_point now) {
    if (packets_ + flow.packets.size() > maximumPackets_) return std::nullopt;
    PendingPrompt* prompt = find(key);
    const bool opened = prompt == nullptr;
    if (opened) {
        if (byID_.size() >= maximumPrompts_) return std::nullopt;
        PendingPrompt fresh;
        fresh.request = request;
        fresh.key = key;
        fresh.askedAt = now;
        prompt = &byID_.emplace(request.id, std::move(fresh)).first->second;
        byKey_.emplace(key, request.id);
    }
    packets_ += flow.packets.size();
    byTuple_.emplace(flow.tuple, prompt->request.id);
    prompt->flows.push_back(std::move(flow));
    return std::pair{prompt, opened};
}

std::optional<PendingPrompt> PendingPrompts::take(const Uuid& id) {
    auto found = byID_.find(id);
    if (found == byID_.end()) return std::nullopt;
    PendingPrompt prompt = std::move(found->second);
    byID_.erase(found);
    byKey_.erase(prompt.key);
    for (const auto& flow : prompt.flows) {
        byTuple_.erase(flow.tuple);
        packets_ -= flow.packets.size();
    }
    return prompt;
}

std::vector<PendingPrompt> PendingPrompts::takeAll() {
    std::vector<PendingPrompt> all;
    std::vector<Uuid> ids;
    for (const auto& [id, prompt] : byID_) ids.push_back(id);
    for (const auto& id : ids) all.push_back(*take(id));
    return all;
}

}  // namespace quillfort
