#include "platform/ProcessInfo.hpp"

#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace quillfort {
namespace {

TEST(ProcessInfo, CurrentReadsArgumentsEnvironmentAndIdentifier) {
    ASSERT_EQ(::setenv("QUILLFORT_PROCESS_INFO_TEST", "a=b", 1), 0);
    char first[] = "quillfort-agent";
    char second[] = "--headless";
    char* argv[] = {first, second};

    const auto info = ProcessInfo::current(2, argv);
    EXPECT_EQ(info.arguments, (std::vector<std::string>{"quillfort-agent", "--headless"}));
    // Split at the first '=' only.
    EXPECT_EQ(info.environmentValue("QUILLFORT_PROCESS_INFO_TEST"), "a=b");
    EXPECT_EQ(info.environmentValue("QUILLFORT_NOT_SET_ANYWHERE"), std::nullopt);
    EXPECT_EQ(info.processIdentifier, ::getpid());
    ::unsetenv("QUILLFORT_PROCESS_INFO_TEST");
}

}  // namespace
}  // namespace quillfort
