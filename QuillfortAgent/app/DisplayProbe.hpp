// Whether this session can show windows at all, asked before anything loads a
// window toolkit: a headless agent must not map one, and a toolkit started on
// a display that does not answer ends the process instead of failing.
#pragma once

#include <optional>
#include <string>

#include "platform/ProcessInfo.hpp"

namespace quillfort::DisplayProbe {

// Whether a Wayland compositor answers on WAYLAND_DISPLAY (a name under
// XDG_RUNTIME_DIR, or an absolute socket path).
[[nodiscard]] bool waylandAnswers(const ProcessInfo& processInfo);

// Whether the X server of DISPLAY answers, tried once through libxcb loaded
// for the try and let go of afterwards, so that the agent keeps no X library
// mapped when it is not going to show a window.
[[nodiscard]] bool xDisplayAnswers(const ProcessInfo& processInfo);

// Why this session cannot show windows ("no display found (...)", "cannot
// open the X display :3", "no Wayland compositor answers on wayland-0"), or
// nothing when a compositor or an X server answers, or when QT_QPA_PLATFORM
// names the platform (the user's choice stands).
[[nodiscard]] std::optional<std::string> problem(const ProcessInfo& processInfo);

}  // namespace quillfort::DisplayProbe
