// Representative model values for tests: a curl flow to api.example.com:443
// started from a shell in a terminal, and the rule a prompt would make for it.
// Every field is fixed, so tests can write the expected JSON by hand.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "model/FlowContext.hpp"
#include "model/ProcessIdentity.hpp"
#include "model/Rule.hpp"
#include "platform/Clock.hpp"

namespace quillfort::testing {

// 2026-03-01T12:00:00Z.
[[nodiscard]] Date sampleDate();

// A clock that stands at sampleDate() until the test moves it.
class SampleClock final : public Clock {
public:
    [[nodiscard]] std::chrono::system_clock::time_point now() const override { return at; }
    std::atomic<std::chrono::system_clock::time_point> at{sampleDate()};
};

// 00000000-0000-4000-8000-<n as 12 upper-case hex digits>.
[[nodiscard]] Uuid sampleUuid(std::uint64_t n);

// Outbound TCP flow "flow-0001" to 93.184.216.34:443, hostText and
// matchedHostname "api.example.com" (DNS confidence exact), port 443, default
// network profile, seen at sampleDate(). The matched node is /usr/bin/curl
// (pid 4242, signingID "com.apple.curl", teamID "APPLE", uid 501, tty
// /dev/ttys003, cwd /Users/dev/project, argv curl -s https://api.example.com/v1,
// launched at sampleDate() - 5s), running, tagged {terminal}. Three ancestors,
// nearest first: zsh {shell, terminal}, login {terminal}, Terminal.app
// (bundleID and signingID "com.apple.Terminal") {terminal}. Audit tokens are
// 32 bytes: seed, seed+1, ... modulo 256.
[[nodiscard]] FlowContext sampleFlowContext();

// Persistent, enabled, prompt-made allow rule "Allow curl to api.example.com"
// (id sampleUuid(1), priority 10000, no notes): subject exactExecutable
// /usr/bin/curl and signingID com.apple.curl; destination hostnameExact
// api.example.com, portExact 443, transportProtocol tcp.
[[nodiscard]] Rule sampleRule();

// sampleRule() as rule number `n`: id sampleUuid(n), name "rule N", `scope`.
[[nodiscard]] Rule numberedRule(std::uint64_t n, RuleScope scope = RuleScope::persistent);

}  // namespace quillfort::testing
