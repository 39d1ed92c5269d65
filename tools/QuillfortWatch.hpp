// `quillfort watch`: a terminal front end for the running agent, for SSH
// sessions and desktops without a tray. Over the session bus it shows the queue
// live and answers prompts with the texts the decision window shows, as the
// agent sends them; without a bus it falls back to the status file and the
// automation command file.
#pragma once

#include <ostream>
#include <string>

#include "tools/QuillfortCommandLine.hpp"

namespace quillfort::QuillfortWatch {

// Runs until q, Ctrl-C or the end of the terminal; the terminal is restored on
// every way out. `home` is the --home text of the tool ("" for the default).
[[nodiscard]] int run(const std::string& home, const QuillfortCommandLine::Environment& environment,
                      std::ostream& err);

}  // namespace quillfort::QuillfortWatch
