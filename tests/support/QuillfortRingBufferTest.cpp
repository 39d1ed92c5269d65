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

TEST(QuillfortRingBuffer, KeepsNewestElementsOldestFirst) {
    QuillfortRingBuffer<int> buffer(3, {1, 2, 3, 4, 5});
    EXPECT_EQ(buffer.elements(), (std::vector<int>{3, 4, 5}));
    buffer.append(6);
    EXPECT_EQ(buffer.elements(), (std::vector<int>{4, 5, 6}));
    EXPECT_EQ(buffer.count(), 3);
}

TEST(QuillfortRingBuffer, GrowsUpToCapacity) {
    QuillfortRingBuffer<std::string> buffer(3);
    EXPECT_EQ(buffer.count(), 0);
    buffer.append("a");
    buffer.append("b");
    EXPECT_EQ(buffer.elements(), (std::vector<std::string>{"a", "b"}));
}

}  // namespace
}  // namespace quillfort
