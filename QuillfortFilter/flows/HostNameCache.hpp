// Which names an address was given in the DNS answers this machine received,
// so a flow to an address carries the name the program asked for. Each
// address keeps its few most recent answers; the cache as a whole keeps a
// bounded number of addresses and forgets the oldest first. Answers past
// their time to live are kept (programs keep them too) but trusted less.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "QuillfortFilter/packet/DnsMessage.hpp"
#include "model/FlowContext.hpp"
#include "platform/IpAddress.hpp"

namespace quillfort {

struct HostNameMatch {
    // The asked name first, then the CNAMEs that led to the address.
    std::vector<std::string> names;
    // exact: the answer reached the very process that opens the flow;
    // correlated: another process received it (a resolver, say); guessed: its
    // time to live has passed.
    DNSConfidence confidence = DNSConfidence::unknown;

    bool operator==(const HostNameMatch&) const = default;
};

class HostNameCache {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t defaultCapacity = 16384;
    static constexpr std::size_t answersPerAddress = 4;

    explicit HostNameCache(std::size_t capacity = defaultCapacity);

    // Keeps every address of `response`; `receiverTgid` is the process the
    // answer was delivered to (0 when unknown).
    void record(const DnsResponse& response, std::uint32_t receiverTgid, Clock::time_point now);

    // The best answer for `address` as seen by the process `tgid`: its own
    // answer when it has one, else the most recent.
    [[nodiscard]] std::optional<HostNameMatch> lookup(const IpAddress& address, std::uint32_t tgid,
                                                      Clock::time_point now) const;

    [[nodiscard]] std::size_t size() const noexcept { return entries_.size(); }

private:
    struct Answer {
        std::vector<std::string> names;
        Clock::time_point expires;
        std::uint32_t receiverTgid = 0;
    };
    struct Entry {
        std::vector<Answer> answers;  // newest first
        std::list<IpAddress>::iterator position;
    };

    std::size_t capacity_;
    std::list<IpAddress> recency_;  // most recently answered at the front
    std::unordered_map<IpAddress, Entry> entries_;
};

}  // namespace quillfort
