#include "tools/RuleFormatting.hpp"

#include <gtest/gtest.h>

#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

TEST(RuleFormatting, SubjectShortForms) {
    const std::pair<RuleSubject, std::string> cases[] = {
        {RuleSubject::exactExecutable("/usr/bin/curl"), "exec=/usr/bin/curl"},
        {RuleSubject::pathGlob("/opt/*/bin/*"), "exec-glob=/opt/*/bin/*"},
        {RuleSubject::bundleID("com.example.App"), "bundle=com.example.App"},
        {RuleSubject::signingID("com.apple.curl"), "signer=com.apple.curl"},
        {RuleSubject::teamID("ABCDE12345"), "team=ABCDE12345"},
        {RuleSubject::cdHash("f00d"), "cdhash=f00d"},
        {RuleSubject::processTag(ProcessTag::gradleDaemon), "tag=gradleDaemon"},
        {RuleSubject::ancestorBundleID("com.apple.Terminal"), "ancestor=com.apple.Terminal"},
        {RuleSubject::ancestorSigningID("com.apple.Terminal"), "ancestor-signer=com.apple.Terminal"},
        {RuleSubject::ancestorProcessTag(ProcessTag::shell), "ancestor-tag=shell"},
        {RuleSubject::cwdPrefix("/home/dev"), "cwd=/home/dev"},
        {RuleSubject::scriptPathSuffix("build.py"), "script=build.py"},
        {RuleSubject::ttyPresent(false), "tty=no"},
    };
    for (const auto& [subject, text] : cases) EXPECT_EQ(RuleFormatting::conditionText(subject), text);
}

TEST(RuleFormatting, DestinationShortForms) {
    const std::pair<RuleDestination, std::string> cases[] = {
        {RuleDestination::hostnameExact("api.example.com"), "host=api.example.com"},
        {RuleDestination::hostnameSuffix("example.com"), "domain=example.com"},
        {RuleDestination::hostnameGlob("*.example.*"), "glob=*.example.*"},
        {RuleDestination::ipCIDR("10.0.0.0/8"), "cidr=10.0.0.0/8"},
        {RuleDestination::portExact(443), "port=443"},
        {RuleDestination::portRange(PortRange{1000, 2000}), "ports=1000-2000"},
        {RuleDestination::transportProtocol(TransportProtocol::udp), "proto=udp"},
        {RuleDestination::direction(FlowDirection::inbound), "dir=inbound"},
    };
    for (const auto& [destination, text] : cases) EXPECT_EQ(RuleFormatting::conditionText(destination), text);
}

TEST(RuleFormatting, TableMarksDisabledRulesAndKeepsLinesIntact) {
    Rule disabled;
    disabled.id = testing::sampleUuid(2);
    disabled.enabled = false;
    disabled.name = "Block\tnode";  // a tab from a hand-edited file must not break the columns
    disabled.action = RuleAction::drop;
    disabled.scope = RuleScope::session;
    RuleSnapshotEnvelope snapshot{testing::sampleDate(), {testing::sampleRule(), disabled}};

    EXPECT_EQ(RuleFormatting::formatRuleTable(snapshot),
              "2 rules, snapshot of 2026-03-01T12:00:00Z\n"
              "\n"
              "ACTION  SCOPE       NAME                           CONDITIONS\n"
              "allow   persistent  Allow curl to api.example.com  exec=/usr/bin/curl signer=com.apple.curl "
              "host=api.example.com port=443 proto=tcp\n"
              "drop    session     Block?node [disabled]          (any)\n");
}

TEST(RuleFormatting, EmptySnapshotSaysSo) {
    EXPECT_EQ(RuleFormatting::formatRuleTable(RuleSnapshotEnvelope{testing::sampleDate(), {}}), "No rules yet.\n");
}

}  // namespace
}  // namespace quillfort
