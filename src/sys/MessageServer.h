#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sys/MessageFrame.h"
#include "sys/PeerCredentials.h"

namespace morvane::sys {

/// A server of length-prefixed JSON messages on a Unix socket, on a thread of its own.
/// Every connection's peer credentials are read when it is accepted; a message over the limit,
/// bad JSON or a selector the handler does not know closes that connection with a log line and
/// the server goes on with the others.
class MessageServer {
public:
    struct Connection {
        std::uint64_t id = 0;
        PeerCredentials peer;
    };

    /// What the handler makes of one request or call.
    struct Outcome {
        /// The reply object for a request with an id; ignored for calls without one.
        nlohmann::json reply = nlohmann::json::object();
        /// False: the selector is unknown or the peer may not send it; the connection closes.
        bool accepted = true;

        static Outcome replyWith(nlohmann::json object) { return {std::move(object), true}; }
        static Outcome refuse() { return {nlohmann::json::object(), false}; }
    };

    struct Options {
        std::filesystem::path path;
        mode_t mode = 0600;
        /// Asked once per connection, before anything is read; false closes it.
        std::function<bool(const PeerCredentials&)> acceptPeer;
        /// Runs on the server's thread, one message at a time, in arrival order per connection.
        std::function<Outcome(const Connection&, const Message&)> handler;
        std::function<void(const Connection&)> connected;
        std::function<void(const Connection&)> disconnected;
        /// Where the server's own log lines go (refused peers, bad frames, closed connections).
        std::function<void(const std::string&)> log;
    };

    explicit MessageServer(Options options);
    ~MessageServer();  // stops
    MessageServer(const MessageServer&) = delete;
    MessageServer& operator=(const MessageServer&) = delete;

    /// Binds and starts serving; false with `error` set when the socket cannot be had.
    bool start(std::string& error);
    void stop();

    /// Sends a call without id (an upward call) to one connection, from any thread.
    /// False when the connection is gone.
    bool send(std::uint64_t connectionId, const std::string& message,
              const nlohmann::json& arguments);
    std::vector<Connection> connections() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace morvane::sys
