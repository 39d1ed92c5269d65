#include "model/Rule.hpp"

namespace quillfort {
namespace {

constexpr std::string_view kValueKey = "_0";
constexpr std::string_view kKeyCountFailure = "Invalid number of keys found, expected one.";

json::value wrap(std::string_view name, json::value inner) {
    json::object holder;
    holder.emplace(kValueKey, std::move(inner));
    json::object outer;
    outer.emplace(name, std::move(holder));
    return outer;
}

// Finds the single alternative key among the object's keys (other keys are not
// seen) and the value under its "_0".
template <class Kind>
JsonResult<std::pair<Kind, const json::value*>> unwrap(const json::value& jv) {
    const json::object* object = jv.if_object();
    if (object == nullptr) return jsonFailure("expected an object, found " + jsonKindName(jv));
    std::optional<Kind> found;
    const json::value* inner = nullptr;
    int count = 0;
    for (const auto& entry : *object) {
        if (auto kind = fromRawValue<Kind>(std::string_view(entry.key().data(), entry.key().size()))) {
            ++count;
            found = kind;
            inner = &entry.value();
        }
    }
    if (count != 1) return jsonFailure(std::string(kKeyCountFailure));
    const std::string_view name = rawValue(*found);
    const json::object* holder = inner->if_object();
    if (holder == nullptr)
        return std::unexpected(JsonError{{}, "expected an object, found " + jsonKindName(*inner)}.under(name));
    const json::value* value = holder->if_contains(kValueKey);
    if (value == nullptr) return std::unexpected(JsonError{std::string(kValueKey), "missing required key"}.under(name));
    return std::pair{*found, value};
}

template <class T, class Out, class Kind>
JsonResult<Out> decodeAs(Kind kind, const json::value& value) {
    auto decoded = JsonCodec<T>::decode(value);
    if (!decoded) return std::unexpected(decoded.error().under(kValueKey).under(rawValue(kind)));
    return Out{kind, std::move(*decoded)};
}

}  // namespace

std::optional<ProcessTag> RuleSubject::tag() const noexcept {
    if (const auto* t = std::get_if<ProcessTag>(&value)) return *t;
    return std::nullopt;
}

std::optional<bool> RuleSubject::flag() const noexcept {
    if (const auto* b = std::get_if<bool>(&value)) return *b;
    return std::nullopt;
}

std::optional<std::uint16_t> RuleDestination::port() const noexcept {
    if (const auto* p = std::get_if<std::uint16_t>(&value)) return *p;
    return std::nullopt;
}

json::value JsonCodec<RuleSubject>::encode(const RuleSubject& subject) {
    json::value inner = std::visit([](const auto& v) { return JsonCodec<std::decay_t<decltype(v)>>::encode(v); },
                                   subject.value);
    return wrap(rawValue(subject.kind), std::move(inner));
}

JsonResult<RuleSubject> JsonCodec<RuleSubject>::decode(const json::value& jv) {
    auto unwrapped = unwrap<RuleSubject::Kind>(jv);
    if (!unwrapped) return std::unexpected(std::move(unwrapped.error()));
    auto [kind, value] = *unwrapped;
    using K = RuleSubject::Kind;
    switch (kind) {
        case K::processTag:
        case K::ancestorProcessTag: return decodeAs<ProcessTag, RuleSubject>(kind, *value);
        case K::ttyPresent: return decodeAs<bool, RuleSubject>(kind, *value);
        default: return decodeAs<std::string, RuleSubject>(kind, *value);
    }
}

json::value JsonCodec<RuleDestination>::encode(const RuleDestination& destination) {
    json::value inner = std::visit([](const auto& v) { return JsonCodec<std::decay_t<decltype(v)>>::encode(v); },
                                   destination.value);
    return wrap(rawValue(destination.kind), std::move(inner));
}

JsonResult<RuleDestination> JsonCodec<RuleDestination>::decode(const json::value& jv) {
    auto unwrapped = unwrap<RuleDestination::Kind>(jv);
    if (!unwrapped) return std::unexpected(std::move(unwrapped.error()));
    auto [kind, value] = *unwrapped;
    using K = RuleDestination::Kind;
    switch (kind) {
        case K::portExact: return decodeAs<std::uint16_t, RuleDestination>(kind, *value);
        case K::portRange: return decodeAs<PortRange, RuleDestination>(kind, *value);
        case K::transportProtocol: return decodeAs<TransportProtocol, RuleDestination>(kind, *value);
        case K::direction: return decodeAs<FlowDirection, RuleDestination>(kind, *value);
        default: return decodeAs<std::string, RuleDestination>(kind, *value);
    }
}

std::ostream& operator<<(std::ostream& out, const RuleSubject& subject) {
    return out << serializeCompact(JsonCodec<RuleSubject>::encode(subject));
}

std::ostream& operator<<(std::ostream& out, const RuleDestination& destination) {
    return out << serializeCompact(JsonCodec<RuleDestination>::encode(destination));
}

}  // namespace quillfort

std::size_t std::hash<quillfort::RuleSubject>::operator()(const quillfort::RuleSubject& s) const noexcept {
    std::size_t seed = static_cast<std::size_t>(s.kind);
    quillfort::hashCombine(seed, std::visit([](const auto& v) { return quillfort::hashValue(v); }, s.value));
    return seed;
}

std::size_t std::hash<quillfort::RuleDestination>::operator()(const quillfort::RuleDestination& d) const noexcept {
    std::size_t seed = static_cast<std::size_t>(d.kind);
    quillfort::hashCombine(seed, std::visit([](const auto& v) { return quillfort::hashValue(v); }, d.value));
    return seed;
}
