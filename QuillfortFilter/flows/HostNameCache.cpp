#include "QuillfortFilter/flows/HostNameCache.hpp"

#include <algorithm>

namespace quillfort {

HostNameCache::HostNameCache(std::size_t capacity) : capacity_(std::max<std::size_t>(capacity, 1)) {}

void HostNameCache::record(const DnsResponse& response, std::uint32_t receiverTgid, Clock::time_point now) {
    for (const auto& answer : response.addresses) {
        const IpAddress address = answer.address.unmapped();
        auto found = entries_.find(address);
        if (found == entries_.end()) {
            while (entries_.size() >= capacity_ && !recency_.empty()) {
                entries_.erase(recency_.back());
                recency_.pop_back();
            }
            recency_.push_front(address);
            found = entries_.emplace(address, Entry{{}, recency_.begin()}).first;
        } else {
            recency_.splice(recency_.begin(), recency_, found->second.position);
        }
        auto& answers = found->second.answers;
        // The same names again replace their older answer instead of crowding others out.
        std::erase_if(answers, [&](const Answer& kept) {
            return kept.names == answer.names && kept.receiverTgid == receiverTgid;
        });
        answers.insert(answers.begin(),
                       Answer{answer.names, now + std::chrono::seconds(answer.ttlSeconds), receiverTgid});
        if (answers.size() > answersPerAddress) answers.resize(answersPerAddress);
    }
}

std::optional<HostNameMatch> HostNameCache::lookup(const IpAddress& address, std::uint32_t tgid,
                                                   Clock::time_point now) const {
    auto found = entries_.find(address.unmapped());
    if (found == entries_.end() || found->second.answers.empty()) return std::nullopt;
    const auto& answers = found->second.answers;
    auto own = std::find_if(answers.begin(), answers.end(), [&](const Answer& answer) {
        return tgid != 0 && answer.receiverTgid == tgid;
    });
    const Answer& chosen = own != answers.end() ? *own : answers.front();
    DNSConfidence confidence = own != answers.end() ? DNSConfidence::exact : DNSConfidence::correlated;
    if (now >= chosen.expires) confidence = DNSConfidence::guessed;
    return HostNameMatch{chosen.names, confidence};
}

}  // namespace quillfort
