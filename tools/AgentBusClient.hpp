// The tool's side of the agent's session-bus interface: one connection, calls
// with string arguments, and a flag raised by the agent's QueueChanged signal.
#pragma once

#include <expected>
#include <memory>
#include <string>
#include <vector>

struct sd_bus;
struct sd_bus_slot;

namespace quillfort {

struct AgentBusError {
    std::string name;     // the D-Bus error name, or "" for a local failure
    std::string message;  // readable text

    // No agent has the name on this bus.
    [[nodiscard]] bool agentMissing() const;
};

class AgentBusClient {
public:
    // Connects to the user's session bus; the error says why there is none.
    [[nodiscard]] static std::expected<std::unique_ptr<AgentBusClient>, std::string> connect();
    ~AgentBusClient();
    AgentBusClient(const AgentBusClient&) = delete;
    AgentBusClient& operator=(const AgentBusClient&) = delete;

    // Calls a method of the agent with string arguments: its string result, or
    // "" for methods without one.
    [[nodiscard]] std::expected<std::string, AgentBusError> call(const char* method,
                                                                 const std::vector<std::string>& arguments = {});

    // For a poll loop: the connection's descriptor and the events it waits for.
    [[nodiscard]] int descriptor() const;
    [[nodiscard]] short events() const;
    // Handles whatever arrived; true when the agent signalled a change since the last call.
    [[nodiscard]] bool processChanged();

private:
    AgentBusClient() = default;
    sd_bus* bus_ = nullptr;
    sd_bus_slot* match_ = nullptr;
    bool changed_ = false;
};

}  // namespace quillfort
