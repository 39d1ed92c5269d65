#include "support/QuillfortFeatureFlags.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

// One variable per row, compared with the whole result: a variable read for
// another's field, or a field left at its default, shows as well.
TEST(QuillfortFeatureFlags, EachVariableSetsOnlyItsOwnField) {
    struct Case {
        std::string variable, value;
        QuillfortFeatureFlags expected;
    };
    // Expected: bridge, canned answer, shadow drop, verbose logging, stub extensions.
    const Case cases[] = {
        // The on/off switches take exactly "1" and nothing that merely looks like it.
        {"QUILLFORT_AUTOMATION_BRIDGE", "1", {true, {}, true, false, false}},
        {"QUILLFORT_AUTOMATION_BRIDGE", " 1", {false, {}, true, false, false}},
        {"QUILLFORT_VERBOSE_LOGGING", "1", {false, {}, true, true, false}},
        {"QUILLFORT_VERBOSE_LOGGING", "true", {false, {}, true, false, false}},
        {"QUILLFORT_STUB_EXTENSIONS", "1", {false, {}, true, false, true}},
        {"QUILLFORT_STUB_EXTENSIONS", "01", {false, {}, true, false, false}},
        // Shadow drop is off only for "0", "false" and "no", trimmed and in any case.
        {"QUILLFORT_SHADOW_PROMPT_DROP", "0", {false, {}, false, false, false}},
        {"QUILLFORT_SHADOW_PROMPT_DROP", "\tFALSE  ", {false, {}, false, false, false}},
        {"QUILLFORT_SHADOW_PROMPT_DROP", "no\xC2\xA0", {false, {}, false, false, false}},
        {"QUILLFORT_SHADOW_PROMPT_DROP", "off", {false, {}, true, false, false}},
        {"QUILLFORT_SHADOW_PROMPT_DROP", "nope", {false, {}, true, false, false}},
        // The canned answer is kept trimmed (presets are checked later) and is absent when blank.
        {"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "\n not a preset\r\n", {false, "not a preset", true, false, false}},
        {"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "   ", {false, {}, true, false, false}},
    };
    for (const auto& c : cases) {
        ProcessInfo info;
        info.environment = {{c.variable, c.value}};
        EXPECT_EQ(QuillfortFeatureFlags::resolve(info), c.expected) << c.variable << "='" << c.value << "'";
    }
}

}  // namespace
}  // namespace quillfort
