#include "sys/MessageServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "sys/UnixSocket.h"

namespace morvane::sys {

namespace {

// A peer that does not read its replies is cut off rather than let the server hold an ever
// longer queue for it.
constexpr std::size_t kMaxQueuedBytes = 4 * kMaxMessageBytes;

}  // namespace

struct MessageServer::State {
    Options options;
    FileDescriptor listener;
    FileDescriptor wake;
    std::thread thread;
    std::atomic<bool> running{false};

    struct Peer {
        Connection connection;
        FileDescriptor fd;
        FrameDecoder decoder;
        std::string outbox;
    };

    mutable std::mutex mutex;  // guards peers' outboxes and the map itself
    std::map<std::uint64_t, std::unique_ptr<Peer>> peers;
    std::uint64_t nextId = 1;

    void log(const std::string& line) const {
        if (options.log) {
            options.log(line);
        }
    }

    void poke() const {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t ignored = ::write(wake.get(), &one, sizeof one);
    }

    void loop();
    void accept();
    void readFrom(Peer& peer);
    void flush(Peer& peer);
    void drop(std::uint64_t id, const std::string& reason);
};

MessageServer::MessageServer(Options options) : state_(std::make_unique<State>()) {
    state_->options = std::move(options);
}

MessageServer::~MessageServer() {
    stop();
}

bool MessageServer::start(std::string& error) {
    if (state_->running) {
        return true;
    }
    state_->listener = listenUnix(state_->options.path, state_->options.mode, error);
    if (!state_->listener.valid()) {
        return false;
    }
    state_->wake = FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!state_->wake.valid()) {
        error = std::string("eventfd: ") + std::strerror(errno);
        state_->listener.reset();
        ::unlink(state_->options.path.c_str());
        return false;
    }
    state_->running = true;
    state_->thread = std::thread([state = state_.get()] { state->loop(); });
    return true;
}

void MessageServer::stop() {
    if (!state_ || !state_->running.exchange(false)) {
        return;
    }
    state_->poke();
    if (state_->thread.joinable()) {
        state_->thread.join();
    }
    std::vector<Connection> closed;
    {
        std::lock_guard lock(state_->mutex);
        for (auto& [id, peer] : state_->peers) {
            closed.push_back(peer->connection);
        }
        state_->peers.clear();
    }
    if (state_->options.disconnected) {
        for (const auto& connection : closed) {
            state_->options.disconnected(connection);
        }
    }
    state_->listener.reset();
    ::unlink(state_->options.path.c_str());
}

bool MessageServer::send(std::uint64_t connectionId, const std::string& message,
                         const nlohmann::json& arguments) {
    Message call;
    call.message = message;
    call.arguments = arguments;
    auto frame = encodeFrame(call.toJson());
    if (!frame) {
        return false;
    }
    {
        std::lock_guard lock(state_->mutex);
        auto found = state_->peers.find(connectionId);
        if (found == state_->peers.end()) {
            return false;
        }
        found->second->outbox += *frame;
    }
    state_->poke();
    return true;
}

std::vector<MessageServer::Connection> MessageServer::connections() const {
    std::lock_guard lock(state_->mutex);
    std::vector<Connection> result;
    for (const auto& [id, peer] : state_->peers) {
        result.push_back(peer->connection);
    }
    return result;
}

void MessageServer::State::loop() {
    std::vector<pollfd> fds;
    std::vector<std::uint64_t> ids;
    while (running) {
        fds.clear();
        ids.clear();
        fds.push_back({listener.get(), POLLIN, 0});
        fds.push_back({wake.get(), POLLIN, 0});
        {
            std::lock_guard lock(mutex);
            for (auto& [id, peer] : peers) {
                short events = POLLIN;
                if (!peer->outbox.empty()) {
                    events |= POLLOUT;
                }
                fds.push_back({peer->fd.get(), events, 0});
                ids.push_back(id);
            }
        }
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) {
            log(std::string("message server: poll failed: ") + std::strerror(errno));
            break;
        }
        if (!running) {
            break;
        }
        if (fds[1].revents & POLLIN) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t ignored = ::read(wake.get(), &count, sizeof count);
        }
        if (fds[0].revents & POLLIN) {
            accept();
        }
        for (std::size_t i = 0; i < ids.size(); ++i) {
            const short revents = fds[i + 2].revents;
            if (revents == 0) {
                continue;
            }
            Peer* peer = nullptr;
            {
                std::lock_guard lock(mutex);
                auto found = peers.find(ids[i]);
                if (found != peers.end()) {
                    peer = found->second.get();
                }
            }
            if (peer == nullptr) {
                continue;
            }
            if (revents & (POLLIN | POLLHUP | POLLERR)) {
                readFrom(*peer);  // may drop the peer
                std::lock_guard lock(mutex);
                if (peers.find(ids[i]) == peers.end()) {
                    continue;
                }
            }
            flush(*peer);
        }
        // Anything queued from other threads is picked up by the next pass through poll.
    }
}

void MessageServer::State::accept() {
    for (;;) {
        FileDescriptor fd(
            ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd.valid()) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                log(std::string("message server: accept failed: ") + std::strerror(errno));
            }
            return;
        }
        auto credentials = peerCredentials(fd.get());
        if (!credentials) {
            log("message server: refused a connection whose credentials cannot be read");
            continue;
        }
        if (options.acceptPeer && !options.acceptPeer(*credentials)) {
            log("message server: refused a connection from uid " +
                std::to_string(credentials->uid) + " pid " + std::to_string(credentials->pid));
            continue;
        }
        auto peer = std::make_unique<Peer>();
        peer->fd = std::move(fd);
        Connection connection;
        {
            std::lock_guard lock(mutex);
            connection = Connection{nextId++, *credentials};
            peer->connection = connection;
            peers.emplace(connection.id, std::move(peer));
        }
        if (options.connected) {
            options.connected(connection);
        }
    }
}

void MessageServer::State::readFrom(Peer& peer) {
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t got = ::recv(peer.fd.get(), buffer, sizeof buffer, 0);
        if (got > 0) {
            peer.decoder.feed(std::string_view(buffer, static_cast<std::size_t>(got)));
            if (static_cast<std::size_t>(got) < sizeof buffer) {
                break;
            }
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        drop(peer.connection.id,
             got == 0 ? "closed by the peer" : std::string("read failed: ") + std::strerror(errno));
        return;
    }
    nlohmann::json object;
    for (;;) {
        const auto status = peer.decoder.next(object);
        if (status == FrameDecoder::Status::NeedMore) {
            return;
        }
        if (status == FrameDecoder::Status::Failed) {
            drop(peer.connection.id, peer.decoder.error());
            return;
        }
        std::string error;
        auto message = Message::fromJson(object, error);
        if (!message || message->isReply) {
            drop(peer.connection.id, message ? "a reply where a request was expected" : error);
            return;
        }
        Outcome outcome;
        if (options.handler) {
            outcome = options.handler(peer.connection, *message);
        } else {
            outcome = Outcome::refuse();
        }
        if (!outcome.accepted) {
            drop(peer.connection.id, "message \"" + message->message + "\" refused");
            return;
        }
        if (message->id) {
            Message reply;
            reply.id = message->id;
            reply.isReply = true;
            reply.arguments = std::move(outcome.reply);
            auto frame = encodeFrame(reply.toJson());
            if (!frame) {
                drop(peer.connection.id, "reply to \"" + message->message + "\" is over the limit");
                return;
            }
            std::lock_guard lock(mutex);
            peer.outbox += *frame;
        }
    }
}

void MessageServer::State::flush(Peer& peer) {
    std::unique_lock lock(mutex);
    while (!peer.outbox.empty()) {
        const ssize_t written =
            ::send(peer.fd.get(), peer.outbox.data(), peer.outbox.size(), MSG_NOSIGNAL);
        if (written > 0) {
            peer.outbox.erase(0, static_cast<std::size_t>(written));
            continue;
        }
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (peer.outbox.size() > kMaxQueuedBytes) {
                lock.unlock();
                drop(peer.connection.id, "the peer does not read its messages");
            }
            return;
        }
        lock.unlock();
        drop(peer.connection.id, std::string("write failed: ") + std::strerror(errno));
        return;
    }
}

void MessageServer::State::drop(std::uint64_t id, const std::string& reason) {
    std::unique_ptr<Peer> gone;
    {
        std::lock_guard lock(mutex);
        auto found = peers.find(id);
        if (found == peers.end()) {
            return;
        }
        gone = std::move(found->second);
        peers.erase(found);
    }
    if (reason != "closed by the peer") {
        log("message server: closing connection " + std::to_string(id) + " (uid " +
            std::to_string(gone->connection.peer.uid) + "): " + reason);
    }
    if (options.disconnected) {
        options.disconnected(gone->connection);
    }
}

}  // namespace morvane::sys
