#include "contracts/QuillfortFilterConfigurationFile.hpp"

#include <cmath>

#include <boost/json.hpp>
#include <fmt/format.h>

#include "model/Json.hpp"

namespace quillfort::QuillfortFilterConfigurationFile {

Result<PropertyListDictionary> decode(std::string_view text) {
    auto parsed = parseJson(text);
    if (!parsed) return std::unexpected(Error::withMessage(fmt::format("not JSON: {}", parsed.error().description())));
    const auto& value = *parsed;
    if (!value.is_object()) return std::unexpected(Error::withMessage("not a JSON object"));
    PropertyListDictionary dictionary;
    for (const auto& member : value.as_object()) {
        const std::string key(member.key());
        const auto& held = member.value();
        if (held.is_string()) {
            dictionary.emplace(key, std::string(held.as_string()));
        } else if (held.is_bool()) {
            dictionary.emplace(key, held.as_bool());
        } else if (held.is_int64()) {
            dictionary.emplace(key, held.as_int64());
        } else if (held.is_uint64()) {
            return std::unexpected(Error::withMessage(fmt::format("\"{}\": number out of range", key)));
        } else if (held.is_double()) {
            // JSON has no infinity to write back: 1e999 is refused, not kept.
            if (!std::isfinite(held.as_double()))
                return std::unexpected(Error::withMessage(fmt::format("\"{}\": number out of range", key)));
            dictionary.emplace(key, held.as_double());
        } else {
            return std::unexpected(
                Error::withMessage(fmt::format("\"{}\": only strings, booleans and numbers are allowed", key)));
        }
    }
    return dictionary;
}

std::string encode(const PropertyListDictionary& dictionary) {
    boost::json::object object;
    for (const auto& [key, value] : dictionary)
        std::visit([&, &key = key](const auto& held) { object[key] = held; }, value);
    return serializePretty(boost::json::value(std::move(object)));
}

}  // namespace quillfort::QuillfortFilterConfigurationFile
