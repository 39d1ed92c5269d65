// How a Linux process is classified with the firewall's process tags: by the
// name of its executable and, for the JVM, by the Gradle entry point on its
// command line. Rules and the prompt's default scope both read these tags.
#pragma once

#include <optional>
#include <set>
#include <string>

#include <vector>

#include "model/ProcessIdentity.hpp"

namespace quillfort::ProcessTags {

// The tags of what the program itself is.
[[nodiscard]] std::set<ProcessTag> classify(const ProcessIdentity& identity);

// A process carries the tags of what it is and of every process it was
// started from: curl run from bash in a terminal carries shell and terminal.
// So a rule for "curl from a shell" holds for that curl, and not for the
// curl a timer or a desktop launcher starts. `ancestors` is nearest first;
// each node receives what the nodes above it carry.
void inherit(ProcessNode& process, std::vector<ProcessNode>& ancestors);

// The script an interpreter runs: for python, node, the shells, perl and ruby,
// the first argument that is not an option (or the file after "-m"-less
// interpreter flags), made absolute against the working directory. Nothing for
// other programs, inline code (-c, -e) or an interactive interpreter.
[[nodiscard]] std::optional<std::string> scriptPath(const ProcessIdentity& identity);

}  // namespace quillfort::ProcessTags
