// Whether this session can show windows at all, asked before anything loads a
// window toolkit: a headless agent must not map one, and a toolkit started on
// an X display that does not answer ends the process instead of failing.
#pragma once

#include <optional>
#include <string>

#include "platform/ProcessInfo.hpp"

namespace quillfort::DisplayProbe {

// Why this session cannot show windows ("no display found (...)", "cannot
// open the X display :3"), or nothing when it can. An X display is tried
// once, through libxcb loaded for the try and let go of afterwards, so that
// an unreachable one means headless and the agent keeps no X library mapped.
// A Wayland display is taken at its word.
[[nodiscard]] std::optional<std::string> problem(const ProcessInfo& processInfo);

}  // namespace quillfort::DisplayProbe
