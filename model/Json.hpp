// The one JSON layer every format of the system goes through, so that no type
// hand-rolls the shared rules:
//  - keys are the field names; an absent optional is left out on writing, and a
//    missing or null optional reads as absent; a missing required key fails;
//  - enumerations are raw strings, an unknown string fails;
//  - dates are ISO 8601 UTC text, bytes standard base64, UUIDs canonical text;
//  - integers must fit their field's width;
//  - decode errors name the key path and the reason ("flow.port: value 70000 out of range").
//
// A struct takes part by listing its fields once, in order:
//
//   template <> struct JsonFields<NetworkEndpoint> {
//       static constexpr auto fields = std::tuple{
//           jsonField("host", &NetworkEndpoint::host),
//           jsonField("port", &NetworkEndpoint::port)};
//   };
//
// and then has encodeCompact / encodePretty / decodeJson, structural hashing
// (hashValue, std::hash) and a readable text form for test failures.
// Types with other shapes specialise JsonCodec<T> directly.
#pragma once

#include <cmath>
#include <concepts>
#include <cstdint>
#include <expected>
#include <functional>
#include <limits>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include <boost/json/value.hpp>

#include "model/Bytes.hpp"
#include "model/Date.hpp"
#include "model/EnumTraits.hpp"
#include "model/Uuid.hpp"

namespace quillfort {

namespace json = boost::json;

// ---------------------------------------------------------------------------
// Errors

struct JsonError {
    std::string path;    // "flow.transportProtocol", "ancestorChain[0].tags[1]"; empty at the top
    std::string reason;  // "missing required key", "unknown value \"quic\""

    // "path: reason", or the reason alone at the top level.
    [[nodiscard]] std::string description() const;
    // The same error seen from the enclosing object's key or array index.
    [[nodiscard]] JsonError under(std::string_view key) const;
    [[nodiscard]] JsonError atIndex(std::size_t index) const;

    bool operator==(const JsonError&) const = default;
};

std::ostream& operator<<(std::ostream& out, const JsonError& error);

template <class T>
using JsonResult = std::expected<T, JsonError>;

[[nodiscard]] inline std::unexpected<JsonError> jsonFailure(std::string reason) {
    return std::unexpected(JsonError{{}, std::move(reason)});
}

// ---------------------------------------------------------------------------
// Codecs: encode(const T&) -> json::value, decode(const json::value&) -> JsonResult<T>

template <class T, class Enable = void>
struct JsonCodec;

template <class T>
struct JsonFields;

template <class T>
concept JsonReflected = requires { JsonFields<T>::fields; };

template <class T>
concept JsonCodable = requires(const T& value, const json::value& jv) {
    { JsonCodec<T>::encode(value) } -> std::same_as<json::value>;
    { JsonCodec<T>::decode(jv) } -> std::same_as<JsonResult<T>>;
};

[[nodiscard]] std::string jsonKindName(const json::value& value);

template <>
struct JsonCodec<bool> {
    static json::value encode(bool value) { return json::value(value); }
    static JsonResult<bool> decode(const json::value& jv) {
        if (const bool* b = jv.if_bool()) return *b;
        return jsonFailure("expected a boolean, found " + jsonKindName(jv));
    }
};

namespace detail {
[[nodiscard]] std::unexpected<JsonError> integerOutOfRange(const json::value& jv);
}

// Integers of every width: a JSON number that holds an integral value within
// the field's range (an integral double such as 27839.0 is accepted).
template <class I>
struct JsonCodec<I, std::enable_if_t<std::is_integral_v<I> && !std::is_same_v<I, bool>>> {
    static json::value encode(I value) {
        if constexpr (std::is_signed_v<I>)
            return json::value(static_cast<std::int64_t>(value));
        else
            return json::value(static_cast<std::uint64_t>(value));
    }
    static JsonResult<I> decode(const json::value& jv) {
        using Limits = std::numeric_limits<I>;
        if (const std::int64_t* v = jv.if_int64()) {
            if (std::cmp_less(*v, Limits::min()) || std::cmp_greater(*v, Limits::max()))
                return detail::integerOutOfRange(jv);
            return static_cast<I>(*v);
        }
        if (const std::uint64_t* v = jv.if_uint64()) {
            if (std::cmp_greater(*v, Limits::max())) return detail::integerOutOfRange(jv);
            return static_cast<I>(*v);
        }
        if (const double* d = jv.if_double()) {
            // Only exactly integral values inside the range (27839.0 reads as 27839).
            if (!(*d >= -9.2e18 && *d <= 9.2e18) || std::trunc(*d) != *d) return detail::integerOutOfRange(jv);
            auto integral = static_cast<std::int64_t>(*d);
            if (std::cmp_less(integral, Limits::min()) || std::cmp_greater(integral, Limits::max()))
                return detail::integerOutOfRange(jv);
            return static_cast<I>(integral);
        }
        return jsonFailure("expected an integer, found " + jsonKindName(jv));
    }
};

template <>
struct JsonCodec<double> {
    static json::value encode(double value) { return json::value(value); }
    static JsonResult<double> decode(const json::value& jv) {
        if (const double* d = jv.if_double()) return *d;
        if (const std::int64_t* v = jv.if_int64()) return static_cast<double>(*v);
        if (const std::uint64_t* v = jv.if_uint64()) return static_cast<double>(*v);
        return jsonFailure("expected a number, found " + jsonKindName(jv));
    }
};

template <>
struct JsonCodec<std::string> {
    static json::value encode(const std::string& value) { return json::value(json::string_view(value)); }
    static JsonResult<std::string> decode(const json::value& jv) {
        if (const json::string* s = jv.if_string()) return std::string(s->data(), s->size());
        return jsonFailure("expected a string, found " + jsonKindName(jv));
    }
};

template <>
struct JsonCodec<Bytes> {
    static json::value encode(const Bytes& value);
    static JsonResult<Bytes> decode(const json::value& jv);
};

template <>
struct JsonCodec<Date> {
    static json::value encode(const Date& value);
    static JsonResult<Date> decode(const json::value& jv);
};

template <>
struct JsonCodec<Uuid> {
    static json::value encode(const Uuid& value);
    static JsonResult<Uuid> decode(const json::value& jv);
};

template <RawStringEnum E>
struct JsonCodec<E> {
    static json::value encode(E value) { return json::value(json::string_view(rawValue(value))); }
    static JsonResult<E> decode(const json::value& jv) {
        const json::string* s = jv.if_string();
        if (s == nullptr) return jsonFailure("expected a string, found " + jsonKindName(jv));
        if (auto value = fromRawValue<E>(std::string_view(s->data(), s->size()))) return *value;
        return jsonFailure("unknown value \"" + std::string(s->data(), s->size()) + "\"");
    }
};

template <class T>
struct JsonCodec<std::vector<T>> {
    static json::value encode(const std::vector<T>& values) {
        json::array array;
        array.reserve(values.size());
        for (const auto& v : values) array.push_back(JsonCodec<T>::encode(v));
        return array;
    }
    static JsonResult<std::vector<T>> decode(const json::value& jv) {
        const json::array* array = jv.if_array();
        if (array == nullptr) return jsonFailure("expected an array, found " + jsonKindName(jv));
        std::vector<T> values;
        values.reserve(array->size());
        for (std::size_t i = 0; i < array->size(); ++i) {
            auto element = JsonCodec<T>::decode((*array)[i]);
            if (!element) return std::unexpected(element.error().atIndex(i));
            values.push_back(std::move(*element));
        }
        return values;
    }
};

// Sets are arrays whose order on writing is unspecified; duplicates collapse on reading.
template <class T>
struct JsonCodec<std::set<T>> {
    static json::value encode(const std::set<T>& values) {
        json::array array;
        array.reserve(values.size());
        for (const auto& v : values) array.push_back(JsonCodec<T>::encode(v));
        return array;
    }
    static JsonResult<std::set<T>> decode(const json::value& jv) {
        const json::array* array = jv.if_array();
        if (array == nullptr) return jsonFailure("expected an array, found " + jsonKindName(jv));
        std::set<T> values;
        for (std::size_t i = 0; i < array->size(); ++i) {
            auto element = JsonCodec<T>::decode((*array)[i]);
            if (!element) return std::unexpected(element.error().atIndex(i));
            values.insert(std::move(*element));
        }
        return values;
    }
};

// ---------------------------------------------------------------------------
// Field descriptors for structs

enum class JsonFieldRule {
    required,            // missing key fails the decode (optional members are never required)
    defaultWhenMissing,  // missing key gives the member's value-initialised default
};

template <class Owner, class Member>
struct JsonField {
    std::string_view name;
    Member Owner::*member;
    JsonFieldRule rule;
};

template <class Owner, class Member>
constexpr JsonField<Owner, Member> jsonField(std::string_view name, Member Owner::*member,
                                             JsonFieldRule rule = JsonFieldRule::required) {
    return JsonField<Owner, Member>{name, member, rule};
}

namespace detail {

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {
    using Inner = T;
};

[[nodiscard]] inline const json::value* findKey(const json::object& object, std::string_view key) {
    return object.if_contains(json::string_view(key.data(), key.size()));
}

// Our writers put keys in field order, so while decoding a struct the entry
// after the last one found is almost always the next field: try it before
// searching. `cursor` is that entry's index.
[[nodiscard]] inline const json::value* findKey(const json::object& object, std::size_t& cursor,
                                                std::string_view key) {
    const json::string_view wanted(key.data(), key.size());
    if (cursor < object.size()) {
        const json::key_value_pair& next = object.begin()[cursor];
        if (next.key() == wanted) {
            ++cursor;
            return &next.value();
        }
    }
    auto found = object.find(wanted);
    if (found == object.end()) return nullptr;
    cursor = static_cast<std::size_t>(found - object.begin()) + 1;
    return &found->value();
}

template <class Owner, class Member>
void encodeField(json::object& out, const Owner& owner, const JsonField<Owner, Member>& field) {
    const Member& value = owner.*(field.member);
    json::string_view key(field.name.data(), field.name.size());
    if constexpr (IsOptional<Member>::value) {
        if (value) out.emplace(key, JsonCodec<typename IsOptional<Member>::Inner>::encode(*value));
    } else {
        out.emplace(key, JsonCodec<Member>::encode(value));
    }
}

template <class Owner, class Member>
bool decodeField(const json::object& in, std::size_t& cursor, Owner& owner, const JsonField<Owner, Member>& field,
                 std::optional<JsonError>& error) {
    const json::value* jv = findKey(in, cursor, field.name);
    Member& target = owner.*(field.member);
    if constexpr (IsOptional<Member>::value) {
        if (jv == nullptr || jv->is_null()) {
            target.reset();
            return true;
        }
        auto decoded = JsonCodec<typename IsOptional<Member>::Inner>::decode(*jv);
        if (!decoded) {
            error = decoded.error().under(field.name);
            return false;
        }
        target = std::move(*decoded);
    } else {
        if (jv == nullptr) {
            if (field.rule == JsonFieldRule::defaultWhenMissing) {
                target = Member{};
                return true;
            }
            error = JsonError{std::string(field.name), "missing required key"};
            return false;
        }
        auto decoded = JsonCodec<Member>::decode(*jv);
        if (!decoded) {
            error = decoded.error().under(field.name);
            return false;
        }
        target = std::move(*decoded);
    }
    return true;
}

}  // namespace detail

template <JsonReflected T>
struct JsonCodec<T> {
    static json::value encode(const T& value) {
        json::object object;
        object.reserve(std::tuple_size_v<std::decay_t<decltype(JsonFields<T>::fields)>>);
        std::apply([&](const auto&... field) { (detail::encodeField(object, value, field), ...); },
                   JsonFields<T>::fields);
        return object;
    }
    static JsonResult<T> decode(const json::value& jv) {
        const json::object* object = jv.if_object();
        if (object == nullptr) return jsonFailure("expected an object, found " + jsonKindName(jv));
        T value{};
        std::optional<JsonError> error;
        std::size_t cursor = 0;
        std::apply(
            [&](const auto&... field) { (detail::decodeField(*object, cursor, value, field, error) && ...); },
            JsonFields<T>::fields);
        if (error) return std::unexpected(std::move(*error));
        return value;
    }
};

// ---------------------------------------------------------------------------
// Text

// Compact, keys in the order written (manifest, envelopes, every wire message).
[[nodiscard]] std::string serializeCompact(const json::value& value);
// Indented by two spaces, keys sorted, "key" : value (the stores' files).
[[nodiscard]] std::string serializePretty(const json::value& value);
// Strict parse of one JSON text; the reason names the parser's complaint.
[[nodiscard]] JsonResult<json::value> parseJson(std::string_view text);

namespace detail {
// Parses `text` as parseJson does and hands the tree to `use`, building it in
// memory the calling thread keeps for the purpose (the heap only past it):
// a tree decoded at once and dropped then costs no allocation of its own.
// Nothing of the tree may outlive `use`. A parse inside `use` on the same
// thread gets a tree of its own on the heap.
[[nodiscard]] JsonResult<void> withParsedJson(std::string_view text,
                                              const std::function<void(const json::value&)>& use);
}  // namespace detail

template <JsonCodable T>
[[nodiscard]] json::value toJson(const T& value) {
    return JsonCodec<T>::encode(value);
}

template <JsonCodable T>
[[nodiscard]] JsonResult<T> fromJson(const json::value& jv) {
    return JsonCodec<T>::decode(jv);
}

template <JsonCodable T>
[[nodiscard]] std::string encodeCompact(const T& value) {
    return serializeCompact(JsonCodec<T>::encode(value));
}

template <JsonCodable T>
[[nodiscard]] std::string encodePretty(const T& value) {
    return serializePretty(JsonCodec<T>::encode(value));
}

template <JsonCodable T>
[[nodiscard]] JsonResult<T> decodeJson(std::string_view text) {
    std::optional<JsonResult<T>> decoded;
    auto parsed = detail::withParsedJson(text, [&](const json::value& jv) { decoded.emplace(JsonCodec<T>::decode(jv)); });
    if (!parsed) return std::unexpected(std::move(parsed.error()));
    return std::move(*decoded);
}

// ---------------------------------------------------------------------------
// Structural hashing and text form of reflected structs

inline void hashCombine(std::size_t& seed, std::size_t value) noexcept {
    seed ^= value + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2);
}

template <class T>
[[nodiscard]] std::size_t hashValue(const T& value);

namespace detail {
template <class T>
std::size_t hashOne(const T& value) {
    if constexpr (IsOptional<T>::value) {
        return value ? hashOne(*value) + 1 : 0;
    } else if constexpr (JsonReflected<T>) {
        return hashValue(value);
    } else if constexpr (std::is_enum_v<T>) {
        return std::hash<std::underlying_type_t<T>>{}(static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (std::is_same_v<T, Bytes>) {
        return std::hash<std::string_view>{}(
            std::string_view(reinterpret_cast<const char*>(value.value.data()), value.value.size()));
    } else if constexpr (std::is_same_v<T, Date>) {
        return std::hash<std::int64_t>{}(value.time_since_epoch().count());
    } else if constexpr (requires { value.begin(); value.end(); } && !std::is_same_v<T, std::string>) {
        std::size_t seed = 0;
        for (const auto& element : value) hashCombine(seed, hashOne(element));
        return seed;
    } else {
        return std::hash<T>{}(value);
    }
}
}  // namespace detail

template <class T>
std::size_t hashValue(const T& value) {
    if constexpr (JsonReflected<T>) {
        std::size_t seed = 0;
        std::apply([&](const auto&... field) { (hashCombine(seed, detail::hashOne(value.*(field.member))), ...); },
                   JsonFields<T>::fields);
        return seed;
    } else {
        return detail::hashOne(value);
    }
}

// Reflected structs print as their compact JSON in test failure messages.
template <JsonReflected T>
std::ostream& operator<<(std::ostream& out, const T& value) {
    return out << encodeCompact(value);
}

}  // namespace quillfort

template <quillfort::JsonReflected T>
struct std::hash<T> {
    std::size_t operator()(const T& value) const noexcept { return quillfort::hashValue(value); }
};
