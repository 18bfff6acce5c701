#include "sys/MessageClient.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "sys/MessageFrame.h"
#include "sys/UnixSocket.h"

namespace morvane::sys {

struct MessageClient::State {
    std::filesystem::path path;
    std::function<void(const std::string&, const nlohmann::json&)> upward;
    std::function<void(const std::string&)> disconnectHandler;

    std::mutex mutex;
    std::condition_variable changed;
    FileDescriptor fd;
    bool open = false;
    std::uint64_t generation = 0;  // which connection a waiting call belongs to
    std::thread reader;
    std::int64_t nextId = 1;
    std::map<std::int64_t, std::optional<nlohmann::json>> pending;
    std::mutex writeMutex;  // one frame at a time on the wire

    void readLoop(int socket, std::uint64_t connection);
    void ended(std::uint64_t connection, const std::string& reason);
};

MessageClient::MessageClient(std::filesystem::path socketPath) : state_(std::make_shared<State>()) {
    state_->path = std::move(socketPath);
}

MessageClient::~MessageClient() {
    close();
}

void MessageClient::setUpwardHandler(
    std::function<void(const std::string&, const nlohmann::json&)> handler) {
    std::lock_guard lock(state_->mutex);
    state_->upward = std::move(handler);
}

void MessageClient::setDisconnectHandler(std::function<void(const std::string&)> handler) {
    std::lock_guard lock(state_->mutex);
    state_->disconnectHandler = std::move(handler);
}

bool MessageClient::connected() const {
    std::lock_guard lock(state_->mutex);
    return state_->open;
}

bool MessageClient::connect(std::chrono::milliseconds timeout, std::string& error) {
    std::unique_lock lock(state_->mutex);
    if (state_->open) {
        return true;
    }
    // A reader of an earlier, ended connection may still be finishing.
    if (state_->reader.joinable()) {
        auto old = std::move(state_->reader);
        lock.unlock();
        if (old.get_id() != std::this_thread::get_id()) {
            old.join();
        } else {
            old.detach();
        }
        lock.lock();
        if (state_->open) {
            return true;
        }
    }
    FileDescriptor fd = connectUnix(state_->path, timeout, error);
    if (!fd.valid()) {
        return false;
    }
    state_->fd = std::move(fd);
    state_->open = true;
    const std::uint64_t connection = ++state_->generation;
    const int socket = state_->fd.get();
    state_->reader =
        std::thread([state = state_, socket, connection] { state->readLoop(socket, connection); });
    return true;
}

void MessageClient::close() {
    std::thread reader;
    {
        std::lock_guard lock(state_->mutex);
        // Closed by us: not an end the disconnect handler hears of.
        state_->open = false;
        state_->changed.notify_all();
        if (state_->fd.valid()) {
            ::shutdown(state_->fd.get(), SHUT_RDWR);
        }
        reader = std::move(state_->reader);
    }
    if (reader.joinable()) {
        if (reader.get_id() == std::this_thread::get_id()) {
            reader.detach();
        } else {
            reader.join();
        }
    }
    std::lock_guard lock(state_->mutex);
    state_->fd.reset();
    state_->open = false;
}

std::optional<nlohmann::json> MessageClient::call(const std::string& message,
                                                  const nlohmann::json& arguments,
                                                  std::chrono::milliseconds timeout,
                                                  std::string& error) {
    if (!connect(timeout, error)) {
        return std::nullopt;
    }
    Message request;
    request.message = message;
    request.arguments = arguments;
    std::uint64_t connection = 0;
    int socket = -1;
    {
        std::lock_guard lock(state_->mutex);
        request.id = state_->nextId++;
        state_->pending.emplace(*request.id, std::nullopt);
        connection = state_->generation;
        socket = state_->fd.get();
    }
    auto forget = [&] {
        std::lock_guard lock(state_->mutex);
        state_->pending.erase(*request.id);
    };
    auto frame = encodeFrame(request.toJson());
    if (!frame) {
        forget();
        error = "message \"" + message + "\" is over the limit";
        return std::nullopt;
    }
    {
        std::lock_guard write(state_->writeMutex);
        if (!writeAll(socket, *frame, timeout)) {
            forget();
            error = "cannot send \"" + message + "\": " + std::strerror(errno);
            return std::nullopt;
        }
    }
    std::unique_lock lock(state_->mutex);
    const bool answered = state_->changed.wait_for(lock, timeout, [&] {
        auto found = state_->pending.find(*request.id);
        return (found != state_->pending.end() && found->second.has_value()) || !state_->open ||
               state_->generation != connection;
    });
    auto found = state_->pending.find(*request.id);
    std::optional<nlohmann::json> reply;
    if (found != state_->pending.end()) {
        reply = std::move(found->second);
        state_->pending.erase(found);
    }
    if (!reply) {
        error = answered ? "the connection ended before \"" + message + "\" was answered"
                         : "no answer to \"" + message + "\" in time";
    }
    return reply;
}

bool MessageClient::post(const std::string& message, const nlohmann::json& arguments,
                         std::string& error) {
    if (!connect(std::chrono::milliseconds(2000), error)) {
        return false;
    }
    Message call;
    call.message = message;
    call.arguments = arguments;
    auto frame = encodeFrame(call.toJson());
    if (!frame) {
        error = "message \"" + message + "\" is over the limit";
        return false;
    }
    int socket = -1;
    {
        std::lock_guard lock(state_->mutex);
        socket = state_->fd.get();
    }
    std::lock_guard write(state_->writeMutex);
    if (!writeAll(socket, *frame, std::chrono::milliseconds(2000))) {
        error = "cannot send \"" + message + "\": " + std::strerror(errno);
        return false;
    }
    return true;
}

void MessageClient::State::readLoop(int socket, std::uint64_t connection) {
    FrameDecoder decoder;
    char buffer[64 * 1024];
    std::string reason = "closed by the server";
    for (;;) {
        pollfd waiting{socket, POLLIN, 0};
        if (::poll(&waiting, 1, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            reason = std::string("poll failed: ") + std::strerror(errno);
            break;
        }
        const ssize_t got = ::recv(socket, buffer, sizeof buffer, 0);
        if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) {
            continue;
        }
        if (got <= 0) {
            if (got < 0) {
                reason = std::string("read failed: ") + std::strerror(errno);
            }
            break;
        }
        decoder.feed(std::string_view(buffer, static_cast<std::size_t>(got)));
        nlohmann::json object;
        FrameDecoder::Status status;
        bool broken = false;
        while ((status = decoder.next(object)) == FrameDecoder::Status::Message) {
            std::string error;
            auto message = Message::fromJson(object, error);
            if (!message) {
                reason = "bad message from the server: " + error;
                broken = true;
                break;
            }
            if (message->isReply) {
                std::lock_guard lock(mutex);
                if (auto found = pending.find(*message->id); found != pending.end()) {
                    found->second = std::move(message->arguments);
                    changed.notify_all();
                }
                continue;
            }
            std::function<void(const std::string&, const nlohmann::json&)> handler;
            {
                std::lock_guard lock(mutex);
                handler = upward;
            }
            if (handler) {
                handler(message->message, message->arguments);
            }
        }
        if (broken || status == FrameDecoder::Status::Failed) {
            if (!broken) {
                reason = "bad message from the server: " + decoder.error();
            }
            ::shutdown(socket, SHUT_RDWR);
            break;
        }
    }
    ended(connection, reason);
}

void MessageClient::State::ended(std::uint64_t connection, const std::string& reason) {
    std::function<void(const std::string&)> handler;
    {
        std::lock_guard lock(mutex);
        if (generation != connection || !open) {
            return;
        }
        open = false;
        handler = disconnectHandler;
        changed.notify_all();
    }
    if (handler) {
        handler(reason);
    }
}

}  // namespace morvane::sys
