#include "support/QuillfortLogCategory.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

TEST(QuillfortLogCategory, NineCasesAppFirstTestsLastReadOnlyFromExactRawValues) {
    const auto cases = allCases<QuillfortLogCategory>();
    ASSERT_EQ(cases.size(), 9u);
    EXPECT_EQ(cases.front(), QuillfortLogCategory::app);
    EXPECT_EQ(cases.back(), QuillfortLogCategory::tests);
    for (auto category : cases) EXPECT_EQ(fromRawValue<QuillfortLogCategory>(rawValue(category)), category);
    EXPECT_EQ(fromRawValue<QuillfortLogCategory>("Agent"), std::nullopt);
}

}  // namespace
}  // namespace quillfort
