// The `quillfort` command-line tool; the commands live in QuillfortCommandLine.
#include <iostream>

#include "platform/Clock.hpp"
#include "platform/FileSystem.hpp"
#include "platform/ProcessInfo.hpp"
#include "tools/QuillfortCommandLine.hpp"

int main(int argc, char** argv) {
    using namespace quillfort;
    QuillfortCommandLine::Environment environment{defaultFileSystem(), systemClock(), randomUuidSource(),
                                                  ProcessLineage::ProcfsView::system()};
    environment.variables = ProcessInfo::current().environment;
    environment.userServices = LoginItem::systemctlUserServiceManager(environment.variables);
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) arguments.emplace_back(argv[i]);
    return QuillfortCommandLine::run(arguments, environment, std::cout, std::cerr);
}
