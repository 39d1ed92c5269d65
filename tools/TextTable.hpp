// Plain-text tables for the command-line tool: columns padded to their widest
// cell, two blanks apart, with cell text made safe for one terminal line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quillfort::TextTable {

// Control characters (line breaks, tabs, escapes) become "?", so text that came
// from a file cannot break the layout or drive the terminal.
[[nodiscard]] std::string printable(std::string_view text);

// Columns in order of `header`; rows shorter than the header get empty cells.
// The last column is not padded. Widths count UTF-8 characters, not bytes.
[[nodiscard]] std::string render(const std::vector<std::string>& header,
                                 const std::vector<std::vector<std::string>>& rows);

}  // namespace quillfort::TextTable
