#include "support/QuillfortRingBuffer.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

TEST(QuillfortRingBuffer, CapacityBelowOneKeepsOnlyLastElement) {
    for (std::int64_t requested : {0, -5}) {
        QuillfortRingBuffer<int> buffer(requested, {1, 2});
        EXPECT_EQ(buffer.capacity, 1);
        EXPECT_EQ(buffer.elements(), std::vector<int>{2});
        buffer.append(3);
        EXPECT_EQ(buffer.elements(), std::vector<int>{3});
    }
}

TEST(QuillfortRingBuffer, GrowsToCapacityThenKeepsNewestElementsOldestFirst) {
    QuillfortRingBuffer<std::string> buffer(3);
    EXPECT_EQ(buffer.count(), 0);
    for (auto element : {"a", "b"}) buffer.append(element);
    EXPECT_EQ(buffer.elements(), (std::vector<std::string>{"a", "b"}));
    for (auto element : {"c", "d"}) buffer.append(element);
    EXPECT_EQ(buffer.elements(), (std::vector<std::string>{"b", "c", "d"}));
    EXPECT_EQ(buffer.count(), 3);
    EXPECT_EQ(QuillfortRingBuffer<int>(3, {1, 2, 3, 4, 5}).elements(), (std::vector<int>{3, 4, 5}));
}

}  // namespace
}  // namespace quillfort
