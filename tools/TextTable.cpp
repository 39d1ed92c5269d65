#include "tools/TextTable.hpp"

#include <algorithm>

namespace quillfort::TextTable {

namespace {

std::size_t displayWidth(std::string_view text) {
    // Every byte that does not continue a UTF-8 sequence starts a character.
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        result.push_back(byte < 0x20 || byte == 0x7F ? '?' : c);
    }
    return result;
}

std::string render(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::vector<std::string>> lines;
    lines.reserve(rows.size() + 1);
    lines.push_back(header);
    for (const auto& row : rows) lines.push_back(row);
    for (auto& line : lines) {
        line.resize(header.size());
        for (auto& cell : line) cell = printable(cell);
    }

    std::vector<std::size_t> widths(header.size(), 0);
    for (const auto& line : lines)
        for (std::size_t column = 0; column < line.size(); ++column)
            widths[column] = std::max(widths[column], displayWidth(line[column]));

    std::string out;
    for (const auto& line : lines) {
        std::string text;
        for (std::size_t column = 0; column < line.size(); ++column) {
            text += line[column];
            if (column + 1 == line.size()) break;
            text.append(widths[column] - displayWidth(line[column]) + 2, ' ');
        }
        // A trailing empty cell would leave blanks at the end of the line.
        while (!text.empty() && text.back() == ' ') text.pop_back();
        out += text;
        out += '\n';
    }
    return out;
}

}  // namespace quillfort::TextTable
