// Writes the seed corpus of every fuzz target from the same sample values the
// unit tests use, so the fuzzers start from documents that decode:
//   fuzz_seeds <directory>   ->   <directory>/<target>/seed-<n>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "QuillfortAgent/coordinator/StoredPromptPreference.hpp"
#include "contracts/PromptAgentAutomationCommand.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/PromptFrame.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/QuillfortPromptListenerRecord.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "tests/QuillfortFilter/FilterSamples.hpp"
#include "tests/contracts/FlowPromptSamples.hpp"
#include "tests/testsupport/ModelSamples.hpp"

namespace {

using namespace quillfort;
namespace samples = quillfort::testing;

// The frame reader's input: each piece of at most 16 bytes led by its length - 1.
std::string inPieces(const std::string& bytes) {
    std::string out;
    for (std::size_t at = 0; at < bytes.size(); at += 16) {
        const auto piece = bytes.substr(at, 16);
        out.push_back(static_cast<char>(piece.size() - 1));
        out += piece;
    }
    return out;
}

std::map<std::string, std::vector<std::string>> seeds() {
    FlowPromptRequest plain = samples::sampleRequest();
    FlowPromptRequest rich = plain;
    rich.context = samples::sampleFlowContext();
    rich.suggestedRule = samples::sampleRule();
    const std::vector<FlowPromptRequest> requests{plain, rich};

    FlowPromptResponse response{.promptID = plain.id,
                                .action = RuleAction::drop,
                                .scope = RuleScope::persistent,
                                .persist = true,
                                .ruleSelection = FlowPromptRuleSelection{.includeExactProcess = true,
                                                                         .hostMatchMode = FlowPromptHostMatchMode::suffix,
                                                                         .hostPatternOverride = "example.com"},
                                .suggestedRule = samples::sampleRule()};
    const QuillfortPromptBridgeResponseEnvelope answered{plain.id, response, std::nullopt, samples::sampleDate()};
    const QuillfortPromptBridgeResponseEnvelope failed{plain.id, std::nullopt, "Failed to decode the Quillfort prompt request.",
                                                       samples::sampleDate()};

    PromptAgentStatusSnapshot status;
    status.updatedAt = samples::sampleDate();
    status.statusText = "Prompt bridge ready.";
    status.activePrompt = PromptAgentActivePromptSnapshot{plain.id, "api.example.com", 443, 1, "curl", "allow"};
    status.queuedPrompts.push_back({plain.id, "api.example.com", 443, "curl", "allow"});

    InMemoryUserDefaults defaults;
    (void)StoredPromptPreference{.hostPatternOverride = "example.com", .includePortExact = true}.save(defaults);

    std::map<std::string, std::vector<std::string>> out;
    auto& shared = out["shared_documents"];
    for (const auto& request : requests) {
        const auto envelope = encodeCompact(QuillfortPromptBridgeRequestEnvelope{request, samples::sampleDate()});
        shared.insert(shared.end(), {envelope, encodeCompact(request)});
        out["frame_reader"].push_back(inPieces(encodeFrame(envelope).value_or("")));
    }
    shared.insert(shared.end(), {encodeCompact(answered), encodeCompact(failed), encodeCompact(response),
                                 encodePretty(status),
                                 encodePretty(PromptAgentAutomationCommand{
                                     plain.id, FlowPromptAutomationPreset::blockSession, samples::sampleDate()}),
                                 encodeCompact(QuillfortPromptListenerRecord{
                                     QuillfortPromptBridgeTransportKind::fileRequestResponse, std::nullopt,
                                     "/home/u/QuillfortPromptBridge/S/Requests",
                                     "/home/u/QuillfortPromptBridge/S/Responses", "S"})});
    out["rule_snapshot"] = {encodePretty(RuleSnapshotEnvelope{samples::sampleDate(), {samples::sampleRule()}})};
    out["stored_preference"] = {defaults.data(StoredPromptPreference::userDefaultsKey).value_or("{}")};
    out["filter_configuration"] = {std::string(64, '\x01')};

    // The filter's inputs, from the packets and messages its tests build.
    auto text = [](const samples::Bytes8& bytes) { return std::string(bytes.begin(), bytes.end()); };
    const auto dns = samples::DnsBuilder()
                         .question("www.example.com")
                         .cname("www.example.com", "edge.cdn.example.net")
                         .address("edge.cdn.example.net", {93, 184, 216, 34})
                         .build();
    out["filter_packets"] = {text(samples::ipv4Packet(6, samples::tcpSyn(40000, 443), 2)),
                             text(samples::ipv4Packet(17, samples::udpSegment(53, 5353, dns))), text(dns)};
    // Replies as the reader after the first byte sees them; one seed per reader.
    out["filter_netlink"] = {std::string(1, '\0') + std::string(40, '\0'), std::string(1, '\1') + std::string(40, '\0'),
                             std::string(1, '\2') + std::string(16, '\0')};
    out["filter_proc_text"] = {"4242 (we (ird) name) S 1 4242 4242 34819 -1 4194560 1 0 0 0 0 0 0 0 20 0 1 0 12345 1 9\n",
                               "40 30 0:37 / /sys/fs/cgroup/unified rw,relatime - cgroup2 cgroup2 rw\n", "socket:[12345]"};
    out["filter_configuration_file"] = {
        R"({"mode": "enforce", "unknownTrafficMode": "blocking", "shadowPromptDropEnabled": false, "promptAutomationPort": 443})",
        R"({"promptAutomationHost": "example.org", "promptAutomationPort": 8.0})"};
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seeds <corpus directory>\n");
        return 2;
    }
    const std::filesystem::path root(argv[1]);
    for (const auto& [target, documents] : seeds()) {
        std::filesystem::create_directories(root / target);
        for (std::size_t n = 0; n < documents.size(); ++n) {
            std::ofstream(root / target / ("seed-" + std::to_string(n)), std::ios::binary) << documents[n];
        }
    }
    return 0;
}
