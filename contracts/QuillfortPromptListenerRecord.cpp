#include "contracts/QuillfortPromptListenerRecord.hpp"

#include <ostream>

#include "contracts/QuillfortPromptEndpointStore.hpp"

namespace quillfort {

namespace {

std::string_view orNil(const std::optional<std::string>& value) {
    return value ? std::string_view(*value) : std::string_view("<nil>");
}

// A missing or null key reads as absent; any other non-string is an error.
JsonResult<std::optional<std::string>> optionalString(const json::object& object, std::string_view key) {
    const json::value* jv = object.if_contains(json::string_view(key.data(), key.size()));
    if (jv == nullptr || jv->is_null()) return std::optional<std::string>{};
    auto decoded = JsonCodec<std::string>::decode(*jv);
    if (!decoded) return std::unexpected(decoded.error().under(key));
    return std::optional<std::string>(std::move(*decoded));
}

}  // namespace

std::optional<std::filesystem::path> QuillfortPromptListenerRecord::requestsDirectoryURL() const {
    if (!requestsDirectoryPath) return std::nullopt;
    return std::filesystem::path(*requestsDirectoryPath);
}

std::optional<std::filesystem::path> QuillfortPromptListenerRecord::responsesDirectoryURL() const {
    if (!responsesDirectoryPath) return std::nullopt;
    return std::filesystem::path(*responsesDirectoryPath);
}

std::string QuillfortPromptListenerRecord::summary() const {
    std::string text = "transport=";
    text += rawValue(transport);
    if (transport == QuillfortPromptBridgeTransportKind::machServiceXPC) {
        text += " machService=";
        text += orNil(machServiceName);
    } else {
        text += " requests=";
        text += orNil(requestsDirectoryPath);
        text += " responses=";
        text += orNil(responsesDirectoryPath);
        text += " session=";
        text += orNil(sessionIdentifier);
    }
    return text;
}

std::ostream& operator<<(std::ostream& out, const QuillfortPromptListenerRecord& record) {
    return out << encodeCompact(record);
}

json::value JsonCodec<QuillfortPromptListenerRecord>::encode(const QuillfortPromptListenerRecord& record) {
    json::object object;
    object.emplace("transport", JsonCodec<QuillfortPromptBridgeTransportKind>::encode(record.transport));
    auto put = [&](std::string_view key, const std::optional<std::string>& value) {
        if (value) object.emplace(json::string_view(key.data(), key.size()), json::string_view(*value));
    };
    put("machServiceName", record.machServiceName);
    put("requestsDirectoryPath", record.requestsDirectoryPath);
    put("responsesDirectoryPath", record.responsesDirectoryPath);
    put("sessionIdentifier", record.sessionIdentifier);
    return object;
}

JsonResult<QuillfortPromptListenerRecord> JsonCodec<QuillfortPromptListenerRecord>::decode(const json::value& jv) {
    using Kind = QuillfortPromptBridgeTransportKind;
    QuillfortPromptListenerRecord record;

    if (const json::string* name = jv.if_string()) {
        record.transport = Kind::machServiceXPC;
        record.machServiceName = std::string(name->data(), name->size());
        return record;
    }
    const json::object* object = jv.if_object();
    if (object == nullptr) return jsonFailure("expected an object or a string, found " + jsonKindName(jv));

    auto machServiceName = optionalString(*object, "machServiceName");
    if (!machServiceName) return std::unexpected(machServiceName.error());
    auto requests = optionalString(*object, "requestsDirectoryPath");
    if (!requests) return std::unexpected(requests.error());
    auto responses = optionalString(*object, "responsesDirectoryPath");
    if (!responses) return std::unexpected(responses.error());
    auto session = optionalString(*object, "sessionIdentifier");
    if (!session) return std::unexpected(session.error());

    const json::value* transport = object->if_contains("transport");
    if (transport != nullptr && !transport->is_null()) {
        auto kind = JsonCodec<Kind>::decode(*transport);
        if (!kind) return std::unexpected(kind.error().under("transport"));
        record.transport = *kind;
    } else {
        record.transport = (*requests || *responses) ? Kind::fileRequestResponse : Kind::machServiceXPC;
    }

    record.machServiceName = std::move(*machServiceName);
    record.requestsDirectoryPath = std::move(*requests);
    record.responsesDirectoryPath = std::move(*responses);
    record.sessionIdentifier = std::move(*session);

    if (record.transport == Kind::machServiceXPC) {
        if (!record.machServiceName)
            record.machServiceName = std::string(QuillfortPromptEndpointStore::defaultMachServiceName);
    } else {
        if (!record.requestsDirectoryPath) record.requestsDirectoryPath = std::string();
        if (!record.responsesDirectoryPath) record.responsesDirectoryPath = std::string();
    }
    return record;
}

}  // namespace quillfort
