#include "model/Json.hpp"

#include <algorithm>
#include <charconv>
#include <memory>

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value_stack.hpp>
#include <boost/json/serialize.hpp>
#include <fmt/format.h>

#include "model/Text.hpp"

namespace quillfort {

std::string JsonError::description() const { return path.empty() ? reason : path + ": " + reason; }

JsonError JsonError::under(std::string_view key) const {
    std::string prefixed(key);
    if (!path.empty()) {
        if (path.front() != '[') prefixed.push_back('.');
        prefixed += path;
    }
    return JsonError{std::move(prefixed), reason};
}

JsonError JsonError::atIndex(std::size_t index) const {
    std::string prefixed = fmt::format("[{}]", index);
    if (!path.empty()) {
        if (path.front() != '[') prefixed.push_back('.');
        prefixed += path;
    }
    return JsonError{std::move(prefixed), reason};
}

std::ostream& operator<<(std::ostream& out, const JsonError& error) { return out << error.description(); }

std::string jsonKindName(const json::value& value) {
    switch (value.kind()) {
        case json::kind::null: return "null";
        case json::kind::bool_: return "a boolean";
        case json::kind::int64:
        case json::kind::uint64:
        case json::kind::double_: return "a number";
        case json::kind::string: return "a string";
        case json::kind::array: return "an array";
        case json::kind::object: return "an object";
    }
    return "a value";
}

namespace detail {
std::unexpected<JsonError> integerOutOfRange(const json::value& jv) {
    return jsonFailure("value " + json::serialize(jv) + " out of range");
}
}  // namespace detail

json::value JsonCodec<Bytes>::encode(const Bytes& value) { return json::value(json::string_view(value.base64())); }

JsonResult<Bytes> JsonCodec<Bytes>::decode(const json::value& jv) {
    const json::string* s = jv.if_string();
    if (s == nullptr) return jsonFailure("expected base64 text, found " + jsonKindName(jv));
    if (auto bytes = Bytes::fromBase64(std::string_view(s->data(), s->size()))) return std::move(*bytes);
    return jsonFailure("invalid base64 data");
}

json::value JsonCodec<Date>::encode(const Date& value) { return json::value(json::string_view(iso8601String(value))); }

JsonResult<Date> JsonCodec<Date>::decode(const json::value& jv) {
    const json::string* s = jv.if_string();
    if (s == nullptr) return jsonFailure("expected an ISO 8601 date, found " + jsonKindName(jv));
    if (auto date = parseIso8601(std::string_view(s->data(), s->size()))) return *date;
    return jsonFailure("invalid ISO 8601 date \"" + std::string(s->data(), s->size()) + "\"");
}

json::value JsonCodec<Uuid>::encode(const Uuid& value) { return json::value(json::string_view(value.uppercaseString())); }

JsonResult<Uuid> JsonCodec<Uuid>::decode(const json::value& jv) {
    const json::string* s = jv.if_string();
    if (s == nullptr) return jsonFailure("expected a UUID string, found " + jsonKindName(jv));
    if (auto uuid = Uuid::parse(std::string_view(s->data(), s->size()))) return *uuid;
    return jsonFailure("invalid UUID \"" + std::string(s->data(), s->size()) + "\"");
}

namespace {

bool needsEscape(char c) noexcept { return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20; }

void appendEscaped(std::string& out, std::string_view text) {
    // JSON is UTF-8 only, and every reader of ours refuses anything else: bytes
    // that are not UTF-8 leave as U+FFFD rather than as a document nobody reads.
    if (!text::isValidUtf8(text)) {
        const std::string repaired = text::validUtf8(text);
        appendEscaped(out, repaired);
        return;
    }
    out.push_back('"');
    std::size_t runStart = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (!needsEscape(c)) continue;
        out.append(text.data() + runStart, i - runStart);
        runStart = i + 1;
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default: fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(c));
        }
    }
    out.append(text.data() + runStart, text.size() - runStart);
    out.push_back('"');
}

void appendScalar(std::string& out, const json::value& value) {
    switch (value.kind()) {
        case json::kind::null: out += "null"; break;
        case json::kind::bool_: out += value.get_bool() ? "true" : "false"; break;
        case json::kind::int64: {
            fmt::format_int digits(value.get_int64());
            out.append(digits.data(), digits.size());
            break;
        }
        case json::kind::uint64: {
            fmt::format_int digits(value.get_uint64());
            out.append(digits.data(), digits.size());
            break;
        }
        case json::kind::double_: {
            double d = value.get_double();
            if (!std::isfinite(d))
                out += "null";  // JSON has no spelling for these
            else
                fmt::format_to(std::back_inserter(out), "{}", d);
            break;
        }
        case json::kind::string: {
            const auto& s = value.get_string();
            appendEscaped(out, std::string_view(s.data(), s.size()));
            break;
        }
        default: break;
    }
}

void writeCompact(std::string& out, const json::value& value) {
    if (const json::object* object = value.if_object()) {
        out.push_back('{');
        bool first = true;
        for (const auto& entry : *object) {
            if (!first) out.push_back(',');
            first = false;
            appendEscaped(out, std::string_view(entry.key().data(), entry.key().size()));
            out.push_back(':');
            writeCompact(out, entry.value());
        }
        out.push_back('}');
    } else if (const json::array* array = value.if_array()) {
        out.push_back('[');
        bool first = true;
        for (const auto& element : *array) {
            if (!first) out.push_back(',');
            first = false;
            writeCompact(out, element);
        }
        out.push_back(']');
    } else {
        appendScalar(out, value);
    }
}

void writePretty(std::string& out, const json::value& value, std::size_t depth) {
    auto newline = [&](std::size_t level) {
        out.push_back('\n');
        out.append(level * 2, ' ');
    };
    if (const json::object* object = value.if_object()) {
        if (object->empty()) {
            out += "{}";
            return;
        }
        std::vector<const json::key_value_pair*> entries;
        entries.reserve(object->size());
        for (const auto& entry : *object) entries.push_back(&entry);
        std::sort(entries.begin(), entries.end(),
                  [](const auto* a, const auto* b) { return a->key() < b->key(); });
        out.push_back('{');
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (i > 0) out.push_back(',');
            newline(depth + 1);
            appendEscaped(out, std::string_view(entries[i]->key().data(), entries[i]->key().size()));
            out += " : ";
            writePretty(out, entries[i]->value(), depth + 1);
        }
        newline(depth);
        out.push_back('}');
    } else if (const json::array* array = value.if_array()) {
        if (array->empty()) {
            out += "[]";
            return;
        }
        out.push_back('[');
        for (std::size_t i = 0; i < array->size(); ++i) {
            if (i > 0) out.push_back(',');
            newline(depth + 1);
            writePretty(out, (*array)[i], depth + 1);
        }
        newline(depth);
        out.push_back(']');
    } else {
        appendScalar(out, value);
    }
}

}  // namespace

std::string serializeCompact(const json::value& value) {
    std::string out;
    out.reserve(256);
    writeCompact(out, value);
    return out;
}

std::string serializePretty(const json::value& value) {
    std::string out;
    out.reserve(512);
    writePretty(out, value, 0);
    return out;
}

namespace {

// Builds the value tree like boost::json::parse, but reads every non-integral
// number again with std::from_chars: the parser's own conversion can be one
// unit in the last place off, and a double we wrote must read back unchanged.
class ValueBuilder {
public:
    static constexpr std::size_t max_object_size = json::object::max_size();
    static constexpr std::size_t max_array_size = json::array::max_size();
    static constexpr std::size_t max_key_size = json::string::max_size();
    static constexpr std::size_t max_string_size = json::string::max_size();

    ValueBuilder(unsigned char* scratch, std::size_t scratchSize) : stack_({}, scratch, scratchSize) {}

    json::value_stack& stack() noexcept { return stack_; }

    bool on_document_begin(json::error_code&) { return true; }
    bool on_document_end(json::error_code&) { return true; }
    bool on_object_begin(json::error_code&) { return true; }
    bool on_object_end(std::size_t n, json::error_code&) {
        stack_.push_object(n);
        return true;
    }
    bool on_array_begin(json::error_code&) { return true; }
    bool on_array_end(std::size_t n, json::error_code&) {
        stack_.push_array(n);
        return true;
    }
    bool on_key_part(json::string_view s, std::size_t, json::error_code&) {
        stack_.push_chars(s);
        return true;
    }
    bool on_key(json::string_view s, std::size_t, json::error_code&) {
        stack_.push_key(s);
        return true;
    }
    bool on_string_part(json::string_view s, std::size_t, json::error_code&) {
        stack_.push_chars(s);
        return true;
    }
    bool on_string(json::string_view s, std::size_t, json::error_code&) {
        stack_.push_string(s);
        return true;
    }
    bool on_number_part(json::string_view s, json::error_code&) {
        number_.append(s.data(), s.size());
        return true;
    }
    bool on_int64(std::int64_t i, json::string_view, json::error_code&) {
        number_.clear();
        stack_.push_int64(i);
        return true;
    }
    bool on_uint64(std::uint64_t u, json::string_view, json::error_code&) {
        number_.clear();
        stack_.push_uint64(u);
        return true;
    }
    bool on_double(double parsed, json::string_view s, json::error_code&) {
        const char* begin = s.data();
        const char* end = s.data() + s.size();
        if (!number_.empty()) {
            number_.append(s.data(), s.size());
            begin = number_.data();
            end = number_.data() + number_.size();
        }
        double exact = 0;
        auto [stop, ec] = std::from_chars(begin, end, exact);
        // Out of range (1e999) keeps whatever the parser made of it.
        stack_.push_double(ec == std::errc{} && stop == end ? exact : parsed);
        number_.clear();
        return true;
    }
    bool on_bool(bool b, json::error_code&) {
        stack_.push_bool(b);
        return true;
    }
    bool on_null(json::error_code&) {
        stack_.push_null();
        return true;
    }
    bool on_comment_part(json::string_view, json::error_code&) { return true; }
    bool on_comment(json::string_view, json::error_code&) { return true; }

private:
    json::value_stack stack_;
    std::string number_;  // a number split across writes; ours come whole
};

}  // namespace

namespace {

JsonResult<json::value> parseInto(std::string_view text, json::storage_ptr storage) {
    // The parser's working stack; deeper or wider documents spill to the heap.
    unsigned char scratch[16 * 1024];
    json::basic_parser<ValueBuilder> parser(json::parse_options{}, scratch, sizeof scratch);
    parser.handler().stack().reset(std::move(storage));
    boost::system::error_code ec;
    std::size_t used = parser.write_some(false, text.data(), text.size(), ec);
    if (!ec && used < text.size()) ec = json::error::extra_data;
    if (ec) return jsonFailure("invalid JSON: " + ec.message());
    return parser.handler().stack().release();
}

// The memory a thread keeps for trees that are decoded at once: a prompt
// request's tree (a few kilobytes of text) fits many times over.
struct ScratchArena {
    static constexpr std::size_t size = 64 * 1024;
    std::unique_ptr<unsigned char[]> buffer;
    bool inUse = false;
};

}  // namespace

JsonResult<json::value> parseJson(std::string_view text) {
    // The tree lives in one arena that it owns (shared, so copies of any part
    // keep it alive): building and freeing it costs a fraction of one
    // allocation per node.
    return parseInto(text, json::make_shared_resource<json::monotonic_resource>(text.size() + 1024));
}

namespace detail {

JsonResult<void> withParsedJson(std::string_view text, const std::function<void(const json::value&)>& use) {
    thread_local ScratchArena scratch;
    if (scratch.inUse) {
        auto parsed = parseJson(text);
        if (!parsed) return std::unexpected(std::move(parsed.error()));
        use(*parsed);
        return {};
    }
    if (!scratch.buffer) scratch.buffer = std::make_unique_for_overwrite<unsigned char[]>(ScratchArena::size);
    scratch.inUse = true;
    struct Release {
        ScratchArena& arena;
        ~Release() { arena.inUse = false; }
    } release{scratch};
    // Declared before the tree, so the tree goes first; whatever the arena
    // took from the heap beyond the buffer goes with it.
    json::monotonic_resource arena(scratch.buffer.get(), ScratchArena::size);
    auto parsed = parseInto(text, json::storage_ptr(&arena));
    if (!parsed) return std::unexpected(std::move(parsed.error()));
    use(*parsed);
    return {};
}

}  // namespace detail

}  // namespace quillfort
