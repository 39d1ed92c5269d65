// The filter's configuration dictionary as a file: one JSON object whose
// members are the dictionary's keys, holding strings, booleans and numbers
// (/etc/quillfort/filter.json). Written indented with keys sorted, like the
// other files the system keeps; read strictly (a member of any other type is
// an error naming it).
#pragma once

#include <string>
#include <string_view>

#include "contracts/QuillfortFilterVendorConfiguration.hpp"
#include "platform/Error.hpp"

namespace quillfort::QuillfortFilterConfigurationFile {

inline constexpr std::string_view defaultPath = "/etc/quillfort/filter.json";

[[nodiscard]] Result<PropertyListDictionary> decode(std::string_view text);
[[nodiscard]] std::string encode(const PropertyListDictionary& dictionary);

}  // namespace quillfort::QuillfortFilterConfigurationFile
