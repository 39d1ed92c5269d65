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

}  // namespace
}  // namespace quillfort
