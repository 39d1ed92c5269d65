#include "support/QuillfortRuntimeDiagnostics.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

TEST(QuillfortRuntimeDiagnostics, JsonRoundTripsWithModeAsRawString) {
    const QuillfortRuntimeDiagnostics diagnostics{UnknownTrafficMode::blocking, true, false, true};
    const auto text = encodeCompact(diagnostics);
    EXPECT_EQ(text, R"({"unknownTrafficMode":"blocking","promptAgentReady":true,)"
                    R"("shadowPromptDropEnabled":false,"bootstrapAllowlistEnabled":true})");
    EXPECT_EQ(decodeJson<QuillfortRuntimeDiagnostics>(text), diagnostics);
}

TEST(QuillfortRuntimeDiagnostics, ReadingRequiresAllFourKeys) {
    const std::string broken[] = {
        R"({"promptAgentReady":true,"shadowPromptDropEnabled":false,"bootstrapAllowlistEnabled":true})",
        R"({"unknownTrafficMode":"blocking","shadowPromptDropEnabled":false,"bootstrapAllowlistEnabled":true})",
        R"({"unknownTrafficMode":"strict","promptAgentReady":true,"shadowPromptDropEnabled":false,)"
        R"("bootstrapAllowlistEnabled":true})",
        R"({"unknownTrafficMode":"alerting","promptAgentReady":1,"shadowPromptDropEnabled":false,)"
        R"("bootstrapAllowlistEnabled":true})",
    };
    for (const auto& text : broken) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(decodeJson<QuillfortRuntimeDiagnostics>(text).has_value());
    }
}

}  // namespace
}  // namespace quillfort
