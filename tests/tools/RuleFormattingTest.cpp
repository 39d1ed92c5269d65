#include "tools/RuleFormatting.hpp"

#include <gtest/gtest.h>

#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

TEST(RuleFormatting, TableMarksDisabledRulesKeepsLinesIntactAndSaysWhenEmpty) {
    Rule disabled;
    disabled.id = testing::sampleUuid(2);
    disabled.enabled = false;
    disabled.name = "Block\tnode";  // a tab from a hand-edited file must not break the columns
    disabled.action = RuleAction::drop;
    disabled.scope = RuleScope::session;
    disabled.subject = {RuleSubject::ttyPresent(true), RuleSubject::ancestorProcessTag(ProcessTag::shell)};
    disabled.destination = {RuleDestination::hostnameSuffix(".example.com"), RuleDestination::portRange({1000, 2000}),
                            RuleDestination::direction(FlowDirection::inbound)};
    RuleSnapshotEnvelope snapshot{testing::sampleDate(), {testing::sampleRule(), disabled}};

    EXPECT_EQ(RuleFormatting::formatRuleTable(snapshot),
              "2 rules, snapshot of 2026-03-01T12:00:00Z\n"
              "\n"
              "ID        ACTION  SCOPE       NAME                           CONDITIONS\n"
              "00000000  allow   persistent  Allow curl to api.example.com  exec=/usr/bin/curl signer=com.apple.curl "
              "host=api.example.com port=443 proto=tcp\n"
              "00000000  drop    session     Block?node [disabled]          tty=yes ancestor-tag=shell "
              "domain=.example.com ports=1000-2000 dir=inbound\n");
    // A timed rule adds the column of ends.
    const auto timed = RuleFormatting::formatRuleTable(snapshot, {{disabled.id, testing::sampleDate() + std::chrono::minutes(90)}},
                                                       testing::sampleDate());
    for (const char* end : {"  ENDS\n", "proto=tcp  never\n", "dir=inbound        in 1 h 30 min\n"})
        EXPECT_NE(timed.find(end), std::string::npos) << timed;
    EXPECT_EQ(RuleFormatting::formatRuleTable(RuleSnapshotEnvelope{testing::sampleDate(), {}}), "No rules yet.\n");
}

}  // namespace
}  // namespace quillfort
