#include "tools/AgentBusClient.hpp"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstring>
#include <utility>

#include "contracts/QuillfortAgentBusInterface.hpp"

namespace quillfort {

namespace bus = QuillfortAgentBusInterface;

namespace {
constexpr std::uint64_t callTimeoutUs = 5'000'000;  // the agent answers from its main thread at once
}

bool AgentBusError::agentMissing() const {
    return name == "org.freedesktop.DBus.Error.ServiceUnknown" || name == "org.freedesktop.DBus.Error.NameHasNoOwner";
}

std::expected<std::unique_ptr<AgentBusClient>, std::string> AgentBusClient::connect() {
    std::unique_ptr<AgentBusClient> client(new AgentBusClient());
    if (const int r = sd_bus_open_user(&client->bus_); r < 0) {
        client->bus_ = nullptr;
        return std::unexpected(std::string(std::strerror(-r)));
    }
    const auto onSignal = [](sd_bus_message*, void* userdata, sd_bus_error*) -> int {
        static_cast<AgentBusClient*>(userdata)->changed_ = true;
        return 0;
    };
    if (const int r = sd_bus_match_signal(client->bus_, &client->match_, nullptr, bus::objectPath, bus::interfaceName,
                                          bus::queueChanged, onSignal, client.get());
        r < 0) {
        return std::unexpected(std::string(std::strerror(-r)));
    }
    return client;
}

AgentBusClient::~AgentBusClient() {
    if (match_ != nullptr) sd_bus_slot_unref(match_);
    if (bus_ != nullptr) sd_bus_flush_close_unref(bus_);
}

std::expected<std::string, AgentBusError> AgentBusClient::call(const char* method,
                                                               const std::vector<std::string>& arguments) {
    sd_bus_message* message = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &message, bus::busName, bus::objectPath, bus::interfaceName, method);
    for (const auto& argument : arguments) {
        if (r >= 0) r = sd_bus_message_append_basic(message, 's', argument.c_str());
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (r >= 0) r = sd_bus_call(bus_, message, callTimeoutUs, &error, &reply);
    sd_bus_message_unref(message);
    if (r < 0) {
        AgentBusError failure{error.name != nullptr ? error.name : "",
                              error.message != nullptr ? error.message : std::strerror(-r)};
        sd_bus_error_free(&error);
        return std::unexpected(std::move(failure));
    }
    std::string result;
    const char* text = nullptr;
    if (sd_bus_message_read_basic(reply, 's', &text) > 0) result = text;
    sd_bus_message_unref(reply);
    return result;
}

int AgentBusClient::descriptor() const { return sd_bus_get_fd(bus_); }

short AgentBusClient::events() const { return static_cast<short>(sd_bus_get_events(bus_)); }

bool AgentBusClient::processChanged() {
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
    return std::exchange(changed_, false);
}

}  // namespace quillfort
