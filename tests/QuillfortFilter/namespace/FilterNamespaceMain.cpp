// Every test of this binary runs in a network namespace the process makes
// for itself before the first test starts.
#include <gtest/gtest.h>

#include "tests/QuillfortFilter/namespace/FilterSandbox.hpp"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    quillfort::testing::enterNetworkNamespace();
    return RUN_ALL_TESTS();
}
