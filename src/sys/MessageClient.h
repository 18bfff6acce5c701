#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace morvane::sys {

/// The client end of a MessageServer socket: requests with replies matched by id, calls
/// without reply, and the server's calls to us (upward calls) delivered to a handler on the
/// client's reader thread. Safe to use from several threads.
class MessageClient {
public:
    explicit MessageClient(std::filesystem::path socketPath);
    ~MessageClient();  // closes
    MessageClient(const MessageClient&) = delete;
    MessageClient& operator=(const MessageClient&) = delete;

    /// Connects if not connected. False with `error` when the socket does not answer.
    bool connect(std::chrono::milliseconds timeout, std::string& error);
    bool connected() const;
    void close();

    /// Sends a request and waits for its reply object. Nothing, with `error` set, when the
    /// connection fails, is closed by the server, or the reply takes longer than `timeout`.
    std::optional<nlohmann::json> call(const std::string& message, const nlohmann::json& arguments,
                                       std::chrono::milliseconds timeout, std::string& error);
    /// Sends a call without reply.
    bool post(const std::string& message, const nlohmann::json& arguments, std::string& error);

    /// Receives the server's calls (messages without id). Set before connecting.
    void setUpwardHandler(
        std::function<void(const std::string& message, const nlohmann::json& arguments)>);
    /// Told once when an established connection ends (closed by the server or broken).
    void setDisconnectHandler(std::function<void(const std::string& reason)>);

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace morvane::sys
