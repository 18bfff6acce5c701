#include "provider/Forwarder.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>

#include "provider/AnswerCache.h"
#include "provider/AnswerReader.h"
#include "provider/Endpoint.h"
#include "provider/FreeSlots.h"
#include "provider/MessageWriter.h"
#include "provider/QueryReader.h"
#include "provider/RandomPool.h"
#include "provider/Router.h"

namespace morvane::provider {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBatch = 64;
constexpr std::size_t kReceiveBuffer = 4096;
constexpr std::size_t kMaxAttempts = 16;
constexpr std::size_t kMaxQueries = 50000;
constexpr std::uint32_t kQueriesPerSocket = 2048;
constexpr std::size_t kMaxTcpMessage = 65535;
constexpr std::uint8_t kNoError = 0;
constexpr std::uint8_t kFormErr = 1;
constexpr std::uint8_t kNxDomain = 3;
constexpr std::uint8_t kNotImp = 4;
constexpr std::uint8_t kBadVers = 16;

enum class Kind : std::uint8_t {
    wake = 1,
    udpListen,
    tcpListen,
    upstreamUdp,
    tcpClient,
    upstreamTcp
};

std::uint64_t makeTag(Kind kind, std::uint32_t index, std::uint32_t generation) {
    return std::uint64_t{static_cast<std::uint8_t>(kind)} << 56 |
           std::uint64_t{index & 0xFFFFFFu} << 32 | generation;
}
Kind tagKind(std::uint64_t tag) {
    return static_cast<Kind>(tag >> 56);
}
std::uint32_t tagIndex(std::uint64_t tag) {
    return static_cast<std::uint32_t>(tag >> 32) & 0xFFFFFFu;
}
std::uint32_t tagGeneration(std::uint64_t tag) {
    return static_cast<std::uint32_t>(tag);
}

std::string errorText(int error) {
    return std::strerror(error);
}

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

/// Datagrams gathered during one turn of the loop and sent with one system call.
class SendBatch {
public:
    explicit SendBatch(int fd = -1) : fd_(fd) {}
    void setFd(int fd) { fd_ = fd; }
    int fd() const { return fd_; }

    void add(const sockaddr* to, socklen_t toLength, const std::uint8_t* data, std::size_t length) {
        if (count_ == kBatch) {
            flush();
        }
        auto& slot = slots_[count_];
        if (to != nullptr) {
            std::memcpy(&slot.address, to, static_cast<std::size_t>(toLength));
        }
        slot.length = toLength;
        slot.data.assign(data, data + length);
        ++count_;
    }

    void flush() {
        if (count_ == 0) {
            return;
        }
        std::array<mmsghdr, kBatch> messages{};
        std::array<iovec, kBatch> vectors{};
        for (std::size_t i = 0; i < count_; ++i) {
            vectors[i] = {slots_[i].data.data(), slots_[i].data.size()};
            // No address: the socket is connected.
            messages[i].msg_hdr.msg_name = slots_[i].length != 0 ? &slots_[i].address : nullptr;
            messages[i].msg_hdr.msg_namelen = slots_[i].length;
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        std::size_t done = 0;
        while (done < count_) {
            const int sent = ::sendmmsg(fd_, messages.data() + done,
                                        static_cast<unsigned>(count_ - done), MSG_DONTWAIT);
            if (sent > 0) {
                done += static_cast<std::size_t>(sent);
            } else if (sent < 0 && errno == EINTR) {
                continue;
            } else {
                ++done;  // a datagram that cannot go is lost, as on any UDP path
            }
        }
        count_ = 0;
    }

private:
    struct Slot {
        sockaddr_storage address{};
        socklen_t length = 0;
        std::vector<std::uint8_t> data;
    };
    int fd_;
    std::size_t count_ = 0;
    std::array<Slot, kBatch> slots_;
};

/// Buffers for receiving up to kBatch datagrams with one system call.
struct ReceiveBatch {
    std::array<std::array<std::uint8_t, kReceiveBuffer>, kBatch> buffers{};
    std::array<sockaddr_storage, kBatch> addresses{};
    std::array<iovec, kBatch> vectors{};
    std::array<mmsghdr, kBatch> messages{};

    int receive(int fd) {
        for (std::size_t i = 0; i < kBatch; ++i) {
            vectors[i] = {buffers[i].data(), buffers[i].size()};
            messages[i].msg_hdr = {};
            messages[i].msg_hdr.msg_name = &addresses[i];
            messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_storage);
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        int received;
        do {
            received = ::recvmmsg(fd, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        } while (received < 0 && errno == EINTR);
        return received;
    }
};

}  // namespace

class Forwarder::Loop {
public:
    explicit Loop(const ForwarderOptions& options)
        : options_(options),
          cache_(options.cacheCapacity),
          router_(std::make_shared<Router>()),
          networkServers_(std::make_shared<std::vector<Endpoint>>()) {}

    ~Loop() { closeAll(); }

    // ---- the caller's side ----

    bool open(const std::string& listen, std::string& error);
    void startThread() {
        stopRequested_ = false;
        running_ = true;
        thread_ = std::thread([this] { run(); });
    }
    void stopThread() {
        if (!thread_.joinable()) {
            return;
        }
        stopRequested_ = true;
        {
            std::lock_guard lock(commandsMutex_);
            wakeLocked();
        }
        thread_.join();
        running_ = false;
        closeAll();
    }
    bool running() const { return running_; }
    std::string listening() const {
        std::lock_guard lock(commandsMutex_);
        return listeningText_;
    }

    void post(std::function<void()> command) {
        std::lock_guard lock(commandsMutex_);
        commands_.push_back(std::move(command));
        wakeLocked();
    }

    void applyPolicy(std::shared_ptr<const Router> router) {
        router_ = std::move(router);
        ++policyGeneration_;
        cache_.clear();
    }
    void applyNetworkServers(const std::vector<std::string>& texts) {
        auto servers = std::make_shared<std::vector<Endpoint>>();
        for (const auto& text : texts) {
            auto endpoint = Endpoint::parse(text, 53);
            if (!endpoint) {
                log("Network DNS server \"" + text + "\" is not an address; left out");
                continue;
            }
            if (isLoopingBack(*endpoint)) {
                log("Network DNS server " + endpoint->text +
                    " would send queries back to this forwarder; left out");
                continue;
            }
            if (std::find(servers->begin(), servers->end(), *endpoint) == servers->end()) {
                servers->push_back(std::move(*endpoint));
            }
        }
        networkServers_ = std::move(servers);
    }
    void clearCache() { cache_.clear(); }
    void setLostHandler(UpstreamsLostHandler handler) { lostHandler_ = std::move(handler); }

    ForwarderStats stats() const {
        ForwarderStats s;
        s.queries = published_.queries.load(std::memory_order_relaxed);
        s.cacheHits = published_.cacheHits.load(std::memory_order_relaxed);
        s.upstreamQueries = published_.upstreamQueries.load(std::memory_order_relaxed);
        s.tcpRetries = published_.tcpRetries.load(std::memory_order_relaxed);
        s.servfails = published_.servfails.load(std::memory_order_relaxed);
        s.formerrs = published_.formerrs.load(std::memory_order_relaxed);
        s.dropped = published_.dropped.load(std::memory_order_relaxed);
        s.cacheEntries = published_.cacheEntries.load(std::memory_order_relaxed);
        s.loopTurns = published_.loopTurns.load(std::memory_order_relaxed);
        return s;
    }

private:
    struct Attempt {
        bool live = false;
        bool tcp = false;
        std::uint8_t resolver = 0;
        std::uint8_t socket = 0;
        std::uint16_t id = 0;
        std::uint32_t tcpIndex = 0;
        std::uint32_t tcpGeneration = 0;
    };

    struct Query {
        bool inUse = false;
        std::uint32_t generation = 0;
        ClientQuery client;
        bool viaTcp = false;
        sockaddr_storage clientAddress{};
        socklen_t clientLength = 0;
        std::uint32_t tcpClient = 0;
        std::uint32_t tcpClientGeneration = 0;
        std::shared_ptr<const Router> router;
        std::shared_ptr<const std::vector<Endpoint>> servers;
        const std::vector<Endpoint>* resolvers = nullptr;
        bool identity = false;
        std::uint64_t policyGeneration = 0;
        std::size_t next = 0;
        std::size_t live = 0;
        bool anyAnswered = false;
        std::array<Attempt, kMaxAttempts> attempts{};
        std::vector<std::uint8_t> upstreamQuery;
    };

    struct PendingRef {
        std::uint32_t query = 0;
        std::uint32_t generation = 0;
        std::uint8_t attempt = 0;
    };

    struct UpstreamSocket {
        int fd = -1;
        std::uint32_t generation = 0;
        std::uint32_t sent = 0;
        bool retired = false;
        Clock::time_point retiredAt{};
        SendBatch batch;
    };

    struct TcpClient {
        int fd = -1;
        std::uint32_t generation = 0;
        std::vector<std::uint8_t> in;
        std::vector<std::uint8_t> out;
        std::size_t outSent = 0;
        Clock::time_point lastActive{};
        std::uint32_t outstanding = 0;
        bool readClosed = false;
        bool wantWrite = false;
    };

    struct UpstreamTcp {
        int fd = -1;
        std::uint32_t generation = 0;
        std::uint32_t query = 0;
        std::uint32_t queryGeneration = 0;
        std::uint8_t attempt = 0;
        std::uint16_t id = 0;
        std::vector<std::uint8_t> out;
        std::size_t sent = 0;
        std::vector<std::uint8_t> in;
        bool writing = true;
    };

    struct Timer {
        Clock::time_point due;
        std::uint32_t query;
        std::uint32_t generation;
    };

    struct Counters {
        std::uint64_t queries = 0;
        std::uint64_t cacheHits = 0;
        std::uint64_t upstreamQueries = 0;
        std::uint64_t tcpRetries = 0;
        std::uint64_t servfails = 0;
        std::uint64_t formerrs = 0;
        std::uint64_t dropped = 0;
        std::uint64_t loopTurns = 0;
    };
    struct PublishedCounters {
        std::atomic<std::uint64_t> queries{0};
        std::atomic<std::uint64_t> cacheHits{0};
        std::atomic<std::uint64_t> upstreamQueries{0};
        std::atomic<std::uint64_t> tcpRetries{0};
        std::atomic<std::uint64_t> servfails{0};
        std::atomic<std::uint64_t> formerrs{0};
        std::atomic<std::uint64_t> dropped{0};
        std::atomic<std::uint64_t> cacheEntries{0};
        std::atomic<std::uint64_t> loopTurns{0};
    };

    // ---- the loop ----

    Clock::time_point now() const { return options_.clock ? options_.clock() : Clock::now(); }
    void log(const std::string& line) const {
        if (options_.log) {
            options_.log(line);
        }
    }
    // Under commandsMutex_, which also guards the closing of the descriptor: a wake from
    // another thread can never write into a descriptor number that was closed and reused.
    void wakeLocked() {
        if (wakeFd_ >= 0) {
            const std::uint64_t one = 1;
            [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
        }
    }

    bool isLoopingBack(const Endpoint& endpoint) const {
        static const std::array<const char*, 2> stubs = {"127.0.0.53", "127.0.0.54"};
        for (const char* stub : stubs) {
            const auto stubEndpoint = Endpoint::parse(stub, 53);
            if (stubEndpoint && *stubEndpoint == endpoint) {
                return true;
            }
        }
        return listenEndpoint_.length != 0 && endpoint == listenEndpoint_;
    }

    void closeAll();
    void run();
    void runCommands();
    void publish();
    void handleEvent(const epoll_event& event);
    void receiveClients();
    void acceptClients();
    void receiveUpstream(std::uint32_t socketIndex, std::uint32_t generation);
    void handleQuery(const std::uint8_t* data, std::size_t length, const sockaddr* from,
                     socklen_t fromLength,
                     std::optional<std::pair<std::uint32_t, std::uint32_t>> tcp);
    void reply(const Query& query, const std::vector<std::uint8_t>& bytes);
    void replyTo(bool viaTcp, const sockaddr* address, socklen_t length, std::uint32_t tcpIndex,
                 std::uint32_t tcpGeneration, const std::vector<std::uint8_t>& bytes);
    std::size_t clientLimit(const ClientQuery& query, bool viaTcp) const {
        if (viaTcp) {
            return kMaxTcpMessage;
        }
        return query.edns ? std::max<std::size_t>(512, query.ednsUdpSize) : 512;
    }
    int upstreamSocketFor(const Endpoint& endpoint);
    void closeUpstreamSocket(std::uint32_t socketIndex);
    void failSocket(std::uint32_t socketIndex);
    void launch(std::uint32_t index);
    void launchUdp(std::uint32_t index, std::size_t resolver);
    void launchTcp(std::uint32_t index, std::size_t attempt);
    void attemptFailed(std::uint32_t index, std::size_t attempt);
    void answer(std::uint32_t index, std::size_t attempt, const std::uint8_t* data,
                std::size_t length, bool viaTcp, bool cutShort);
    void finishServfail(std::uint32_t index);
    void complete(std::uint32_t index);
    void releaseAttempt(Query& query, Attempt& attempt);
    void runTimers(Clock::time_point at);
    bool isLive(const Timer& timer) const {
        const Query& query = queries_[timer.query];
        return query.inUse && query.generation == timer.generation;
    }
    void sweepTcp(Clock::time_point at);  // and retired resolver sockets
    void clientEvent(std::uint32_t index, std::uint32_t generation, std::uint32_t events);
    void flushClient(TcpClient& client, std::uint32_t index);
    void closeClient(std::uint32_t index);
    void upstreamTcpEvent(std::uint32_t index, std::uint32_t generation, std::uint32_t events);
    void closeUpstreamTcp(std::uint32_t index);
    void upstreamAlive() {
        silentSince_.reset();
        lostReported_ = false;
    }
    void upstreamSilent(Clock::time_point at);

    ForwarderOptions options_;
    AnswerCache cache_;
    std::shared_ptr<const Router> router_;
    std::shared_ptr<const std::vector<Endpoint>> networkServers_;
    std::uint64_t policyGeneration_ = 0;
    UpstreamsLostHandler lostHandler_;
    std::optional<Clock::time_point> silentSince_;
    bool lostReported_ = false;

    int epollFd_ = -1;
    int wakeFd_ = -1;  // written under commandsMutex_
    int udpFd_ = -1;
    int tcpFd_ = -1;
    Endpoint listenEndpoint_;
    std::string listeningText_;
    std::thread thread_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> running_{false};

    mutable std::mutex commandsMutex_;
    std::vector<std::function<void()>> commands_;

    std::vector<Query> queries_;
    std::vector<std::uint32_t> freeQueries_;
    std::unordered_map<std::uint32_t, PendingRef> pending_;
    std::vector<UpstreamSocket> upstreamSockets_;
    std::vector<std::uint32_t> freeSockets_;
    std::unordered_map<std::string, std::uint32_t> activeSockets_;  // by resolver text
    RandomPool random_;
    std::vector<TcpClient> tcpClients_;
    std::vector<std::uint32_t> freeTcpClients_;
    std::size_t tcpClientCount_ = 0;
    std::vector<UpstreamTcp> upstreamTcp_;
    std::vector<std::uint32_t> freeUpstreamTcp_;
    std::deque<Timer> raceTimers_;
    std::deque<Timer> deadlineTimers_;
    Clock::time_point lastSweep_{};

    SendBatch clientBatch_;
    ReceiveBatch receiveBatch_;
    ClientQuery scratchQuery_;
    UpstreamAnswer scratchAnswer_;
    std::vector<std::uint8_t> replyBuffer_;
    std::string keyBuffer_;
    Counters counters_;
    PublishedCounters published_;
};

// ---------------------------------------------------------------------------------------------
// Opening and closing

bool Forwarder::Loop::open(const std::string& listen, std::string& error) {
    const auto endpoint = Endpoint::parse(listen, 53, true);
    if (!endpoint) {
        error = "\"" + listen + "\" is not an address and port to listen on (ADDR:PORT)";
        return false;
    }
    const auto fail = [&](const std::string& what, int code) {
        std::string reason;
        switch (code) {
            case EADDRINUSE:
                reason =
                    "the address is already in use (another DNS server may be listening there)";
                break;
            case EADDRNOTAVAIL:
                reason = "the address does not belong to this machine";
                break;
            case EACCES:
                reason = "permission denied (ports below 1024 need root or CAP_NET_BIND_SERVICE)";
                break;
            default:
                reason = errorText(code);
        }
        error = "Cannot listen on " + endpoint->text + " (" + what + "): " + reason;
        closeAll();
        return false;
    };

    epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
    int wakeFd;
    {
        std::lock_guard lock(commandsMutex_);
        wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        wakeFd = wakeFd_;
    }
    if (epollFd_ < 0 || wakeFd < 0) {
        return fail("epoll", errno);
    }
    const bool anyPort =
        (endpoint->family() == AF_INET
             ? reinterpret_cast<const sockaddr_in*>(&endpoint->address)->sin_port
             : reinterpret_cast<const sockaddr_in6*>(&endpoint->address)->sin6_port) == 0;
    const int one = 1;
    for (int round = 0;; ++round) {
        Endpoint bound = *endpoint;
        udpFd_ = ::socket(endpoint->family(), SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (udpFd_ < 0) {
            return fail("UDP", errno);
        }
        if (endpoint->family() == AF_INET6) {
            ::setsockopt(udpFd_, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
        }
        const int bufferSize = 4 << 20;
        ::setsockopt(udpFd_, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
        ::setsockopt(udpFd_, SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize);
        if (::bind(udpFd_, bound.socketAddress(), bound.length) != 0) {
            return fail("UDP", errno);
        }
        socklen_t length = sizeof bound.address;
        ::getsockname(udpFd_, reinterpret_cast<sockaddr*>(&bound.address), &length);
        bound =
            Endpoint::fromSocketAddress(reinterpret_cast<const sockaddr*>(&bound.address), length);

        tcpFd_ = ::socket(endpoint->family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (tcpFd_ < 0) {
            return fail("TCP", errno);
        }
        ::setsockopt(tcpFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (endpoint->family() == AF_INET6) {
            ::setsockopt(tcpFd_, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
        }
        if (::bind(tcpFd_, bound.socketAddress(), bound.length) != 0 ||
            ::listen(tcpFd_, 128) != 0) {
            const int code = errno;
            if (anyPort && code == EADDRINUSE && round < 20) {
                closeFd(udpFd_);
                closeFd(tcpFd_);
                continue;  // the UDP port's TCP twin is taken: try another pair
            }
            return fail("TCP", code);
        }
        listenEndpoint_ = bound;
        break;
    }
    clientBatch_.setFd(udpFd_);
    const auto add = [&](int fd, Kind kind) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = makeTag(kind, 0, 0);
        return ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) == 0;
    };
    if (!add(wakeFd, Kind::wake) || !add(udpFd_, Kind::udpListen) ||
        !add(tcpFd_, Kind::tcpListen)) {
        return fail("epoll", errno);
    }
    {
        std::lock_guard lock(commandsMutex_);
        listeningText_ = listenEndpoint_.text;
    }
    return true;
}

void Forwarder::Loop::closeAll() {
    for (std::uint32_t i = 0; i < queries_.size(); ++i) {
        if (queries_[i].inUse) {
            complete(i);
        }
    }
    for (std::uint32_t i = 0; i < tcpClients_.size(); ++i) {
        if (tcpClients_[i].fd >= 0) {
            closeClient(i);
        }
    }
    for (std::uint32_t i = 0; i < upstreamSockets_.size(); ++i) {
        closeUpstreamSocket(i);
    }
    upstreamSockets_.clear();
    freeSockets_.clear();
    activeSockets_.clear();
    pending_.clear();
    raceTimers_.clear();
    deadlineTimers_.clear();
    closeFd(udpFd_);
    closeFd(tcpFd_);
    closeFd(epollFd_);
    listenEndpoint_ = Endpoint{};
    std::lock_guard lock(commandsMutex_);
    closeFd(wakeFd_);
    listeningText_.clear();
}

// ---------------------------------------------------------------------------------------------
// The loop

void Forwarder::Loop::run() {
    std::array<epoll_event, 128> events{};
    runCommands();
    while (!stopRequested_) {
        // Most timers belong to queries answered long before they are due; dropping those
        // first keeps the loop from waking for nothing thousands of times a second.
        for (auto* timers : {&raceTimers_, &deadlineTimers_}) {
            while (!timers->empty() && !isLive(timers->front())) {
                timers->pop_front();
            }
        }
        const auto before = now();
        auto next = before + std::chrono::seconds(1);
        if (!raceTimers_.empty()) {
            next = std::min(next, raceTimers_.front().due);
        }
        if (!deadlineTimers_.empty()) {
            next = std::min(next, deadlineTimers_.front().due);
        }
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - before).count();
        const int count = ::epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()),
                                       static_cast<int>(std::clamp<long long>(wait, 0, 1000)));
        ++counters_.loopTurns;
        runCommands();
        for (int i = 0; i < count; ++i) {
            handleEvent(events[static_cast<std::size_t>(i)]);
        }
        const auto at = now();
        runTimers(at);
        if (at - lastSweep_ >= std::chrono::seconds(1)) {
            sweepTcp(at);
            lastSweep_ = at;
        }
        publish();  // before the answers go out, so a client that got one sees it counted
        clientBatch_.flush();
        for (auto& upstream : upstreamSockets_) {
            upstream.batch.flush();
        }
    }
}

void Forwarder::Loop::runCommands() {
    std::vector<std::function<void()>> commands;
    {
        std::lock_guard lock(commandsMutex_);
        commands.swap(commands_);
    }
    for (auto& command : commands) {
        command();
    }
}

void Forwarder::Loop::publish() {
    published_.queries.store(counters_.queries, std::memory_order_relaxed);
    published_.cacheHits.store(counters_.cacheHits, std::memory_order_relaxed);
    published_.upstreamQueries.store(counters_.upstreamQueries, std::memory_order_relaxed);
    published_.tcpRetries.store(counters_.tcpRetries, std::memory_order_relaxed);
    published_.servfails.store(counters_.servfails, std::memory_order_relaxed);
    published_.formerrs.store(counters_.formerrs, std::memory_order_relaxed);
    published_.dropped.store(counters_.dropped, std::memory_order_relaxed);
    published_.cacheEntries.store(cache_.size(), std::memory_order_relaxed);
    published_.loopTurns.store(counters_.loopTurns, std::memory_order_relaxed);
}

void Forwarder::Loop::handleEvent(const epoll_event& event) {
    const std::uint64_t tag = event.data.u64;
    switch (tagKind(tag)) {
        case Kind::wake: {
            std::uint64_t value = 0;
            [[maybe_unused]] const auto got = ::read(wakeFd_, &value, sizeof value);
            break;
        }
        case Kind::udpListen:
            receiveClients();
            break;
        case Kind::tcpListen:
            acceptClients();
            break;
        case Kind::upstreamUdp:
            receiveUpstream(tagIndex(tag), tagGeneration(tag));
            break;
        case Kind::tcpClient:
            clientEvent(tagIndex(tag), tagGeneration(tag), event.events);
            break;
        case Kind::upstreamTcp:
            upstreamTcpEvent(tagIndex(tag), tagGeneration(tag), event.events);
            break;
    }
}

void Forwarder::Loop::receiveClients() {
    const int received = receiveBatch_.receive(udpFd_);
    for (int i = 0; i < received; ++i) {
        const auto& message = receiveBatch_.messages[static_cast<std::size_t>(i)];
        if ((message.msg_hdr.msg_flags & MSG_TRUNC) != 0) {
            ++counters_.queries;
            ++counters_.dropped;  // larger than any query a client has reason to send
            continue;
        }
        handleQuery(receiveBatch_.buffers[static_cast<std::size_t>(i)].data(), message.msg_len,
                    reinterpret_cast<const sockaddr*>(
                        &receiveBatch_.addresses[static_cast<std::size_t>(i)]),
                    message.msg_hdr.msg_namelen, std::nullopt);
    }
}

// ---------------------------------------------------------------------------------------------
// Queries from clients

void Forwarder::Loop::handleQuery(const std::uint8_t* data, std::size_t length,
                                  const sockaddr* from, socklen_t fromLength,
                                  std::optional<std::pair<std::uint32_t, std::uint32_t>> tcp) {
    ++counters_.queries;
    ClientQuery& query = scratchQuery_;
    const QueryVerdict verdict = readClientQuery(data, length, query);
    const bool viaTcp = tcp.has_value();
    const std::uint32_t tcpIndex = tcp ? tcp->first : 0;
    const std::uint32_t tcpGeneration = tcp ? tcp->second : 0;
    switch (verdict) {
        case QueryVerdict::drop:
            ++counters_.dropped;
            return;
        case QueryVerdict::formatError:
            ++counters_.formerrs;
            writeErrorReply(replyBuffer_, query, kFormErr, false);
            replyTo(viaTcp, from, fromLength, tcpIndex, tcpGeneration, replyBuffer_);
            return;
        case QueryVerdict::notImplemented:
            writeErrorReply(replyBuffer_, query, kNotImp, query.questionLength > 0);
            replyTo(viaTcp, from, fromLength, tcpIndex, tcpGeneration, replyBuffer_);
            return;
        case QueryVerdict::badVersion:
            writeErrorReply(replyBuffer_, query, kBadVers, true);
            replyTo(viaTcp, from, fromLength, tcpIndex, tcpGeneration, replyBuffer_);
            return;
        case QueryVerdict::ok:
            break;
    }

    const auto at = now();
    AnswerCache::makeKey(keyBuffer_, query.lowerName.data(), query.nameLength, query.type,
                         query.questionClass, query.dnssecOk, (query.flags & 0x0010) != 0);
    if (cache_.lookup(keyBuffer_, at, replyBuffer_)) {
        ++counters_.cacheHits;
        finishReply(replyBuffer_, query, clientLimit(query, viaTcp));
        replyTo(viaTcp, from, fromLength, tcpIndex, tcpGeneration, replyBuffer_);
        return;
    }

    const Route& route = router_->route(query);
    const std::vector<Endpoint>* resolvers =
        route.networkServers ? networkServers_.get() : &route.resolvers;
    if (resolvers->empty() || (queries_.size() - freeQueries_.size()) >= kMaxQueries) {
        if (resolvers->empty()) {
            ++counters_.servfails;
        } else {
            ++counters_.dropped;
        }
        writeErrorReply(replyBuffer_, query, kServFail, true);
        replyTo(viaTcp, from, fromLength, tcpIndex, tcpGeneration, replyBuffer_);
        return;
    }

    const std::uint32_t index = takeSlot(queries_, freeQueries_);
    Query& slot = queries_[index];
    slot.inUse = true;
    slot.client = query;
    slot.viaTcp = viaTcp;
    if (!viaTcp) {
        std::memcpy(&slot.clientAddress, from, static_cast<std::size_t>(fromLength));
        slot.clientLength = fromLength;
    }
    slot.tcpClient = tcpIndex;
    slot.tcpClientGeneration = tcpGeneration;
    slot.router = router_;
    slot.servers = route.networkServers ? networkServers_ : nullptr;
    slot.resolvers = resolvers;
    slot.identity = route.identity;
    slot.policyGeneration = policyGeneration_;
    slot.next = 0;
    slot.live = 0;
    slot.anyAnswered = false;
    slot.upstreamQuery.clear();
    writeUpstreamQuery(slot.upstreamQuery, 0, query,
                       route.identity ? std::span<const std::uint8_t>(router_->identity())
                                      : std::span<const std::uint8_t>());
    if (viaTcp) {
        ++tcpClients_[tcpIndex].outstanding;
    }
    raceTimers_.push_back({at + options_.raceDelay, index, slot.generation});
    deadlineTimers_.push_back({at + options_.queryTimeout, index, slot.generation});
    launch(index);
}

void Forwarder::Loop::replyTo(bool viaTcp, const sockaddr* address, socklen_t length,
                              std::uint32_t tcpIndex, std::uint32_t tcpGeneration,
                              const std::vector<std::uint8_t>& bytes) {
    if (!viaTcp) {
        clientBatch_.add(address, length, bytes.data(), bytes.size());
        return;
    }
    if (tcpIndex >= tcpClients_.size()) {
        return;
    }
    TcpClient& client = tcpClients_[tcpIndex];
    if (client.fd < 0 || client.generation != tcpGeneration) {
        return;  // the client went away while its query was out
    }
    client.out.push_back(static_cast<std::uint8_t>(bytes.size() >> 8));
    client.out.push_back(static_cast<std::uint8_t>(bytes.size()));
    client.out.insert(client.out.end(), bytes.begin(), bytes.end());
    flushClient(client, tcpIndex);
}

void Forwarder::Loop::reply(const Query& query, const std::vector<std::uint8_t>& bytes) {
    replyTo(query.viaTcp, reinterpret_cast<const sockaddr*>(&query.clientAddress),
            query.clientLength, query.tcpClient, query.tcpClientGeneration, bytes);
}

// ---------------------------------------------------------------------------------------------
// Resolvers

int Forwarder::Loop::upstreamSocketFor(const Endpoint& endpoint) {
    const auto found = activeSockets_.find(endpoint.text);
    if (found != activeSockets_.end()) {
        UpstreamSocket& active = upstreamSockets_[found->second];
        if (active.sent < kQueriesPerSocket) {
            ++active.sent;
            return static_cast<int>(found->second);
        }
        // Enough answers were awaited on this port: a new one, so that a forger cannot learn
        // it once and then only has the id to guess. The old one stays open for the answers
        // still on their way.
        active.retired = true;
        active.retiredAt = now();
        activeSockets_.erase(found);
    }
    // Connected: the kernel keeps the route, drops datagrams from anyone else, and tells of a
    // resolver that is not there (ECONNREFUSED) at once.
    const int fd = ::socket(endpoint.family(), SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, endpoint.socketAddress(), endpoint.length) != 0) {
        log("Cannot open a socket towards " + endpoint.text + ": " + errorText(errno));
        if (fd >= 0) {
            ::close(fd);
        }
        return -1;
    }
    const int bufferSize = 1 << 20;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
    const std::uint32_t socketIndex = takeSlot(upstreamSockets_, freeSockets_);
    UpstreamSocket& upstream = upstreamSockets_[socketIndex];
    upstream.fd = fd;
    upstream.batch.setFd(fd);
    upstream.sent = 1;
    upstream.retired = false;
    ++upstream.generation;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = makeTag(Kind::upstreamUdp, socketIndex, upstream.generation);
    ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event);
    activeSockets_.emplace(endpoint.text, socketIndex);
    return static_cast<int>(socketIndex);
}

void Forwarder::Loop::failSocket(std::uint32_t socketIndex) {
    std::vector<PendingRef> waiting;
    for (const auto& [key, ref] : pending_) {
        if ((key >> 16) == socketIndex) {
            waiting.push_back(ref);
        }
    }
    for (const PendingRef& ref : waiting) {
        Query& query = queries_[ref.query];
        if (query.inUse && query.generation == ref.generation && query.attempts[ref.attempt].live &&
            !query.attempts[ref.attempt].tcp) {
            attemptFailed(ref.query, ref.attempt);
        }
    }
}

void Forwarder::Loop::closeUpstreamSocket(std::uint32_t socketIndex) {
    UpstreamSocket& upstream = upstreamSockets_[socketIndex];
    if (upstream.fd < 0) {
        return;
    }
    upstream.batch.flush();
    if (epollFd_ >= 0) {
        ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, upstream.fd, nullptr);
    }
    closeFd(upstream.fd);
    ++upstream.generation;
    for (auto it = pending_.begin(); it != pending_.end();) {
        it = (it->first >> 16) == socketIndex ? pending_.erase(it) : std::next(it);
    }
    freeSockets_.push_back(socketIndex);
}

void Forwarder::Loop::launch(std::uint32_t index) {
    Query& query = queries_[index];
    const std::size_t total = std::min(query.resolvers->size(), kMaxAttempts);
    if (query.next >= total) {
        return;
    }
    const std::size_t resolver = query.next++;
    launchUdp(index, resolver);
}

void Forwarder::Loop::launchUdp(std::uint32_t index, std::size_t resolver) {
    Query& query = queries_[index];
    const Endpoint& endpoint = (*query.resolvers)[resolver];
    Attempt& attempt = query.attempts[resolver];
    attempt = Attempt{};
    attempt.resolver = static_cast<std::uint8_t>(resolver);
    attempt.live = true;
    ++query.live;
    const int socketIndex = upstreamSocketFor(endpoint);
    if (socketIndex < 0) {
        attemptFailed(index, resolver);
        return;
    }
    std::uint32_t key;
    std::uint16_t id;
    do {
        id = random_.next16();
        key = static_cast<std::uint32_t>(socketIndex) << 16 | id;
    } while (pending_.count(key) != 0);
    pending_.emplace(key, PendingRef{index, query.generation, static_cast<std::uint8_t>(resolver)});
    attempt.socket = static_cast<std::uint8_t>(socketIndex);
    attempt.id = id;
    writeU16(query.upstreamQuery.data(), id);
    upstreamSockets_[static_cast<std::size_t>(socketIndex)].batch.add(
        nullptr, 0, query.upstreamQuery.data(), query.upstreamQuery.size());
    ++counters_.upstreamQueries;
}

void Forwarder::Loop::launchTcp(std::uint32_t index, std::size_t attemptIndex) {
    Query& query = queries_[index];
    Attempt& attempt = query.attempts[attemptIndex];
    const Endpoint& endpoint = (*query.resolvers)[attempt.resolver];
    const int fd = ::socket(endpoint.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 ||
        (::connect(fd, endpoint.socketAddress(), endpoint.length) != 0 && errno != EINPROGRESS)) {
        if (fd >= 0) {
            ::close(fd);
        }
        attemptFailed(index, attemptIndex);
        return;
    }
    const std::uint32_t connection = takeSlot(upstreamTcp_, freeUpstreamTcp_);
    UpstreamTcp& tcp = upstreamTcp_[connection];
    tcp.fd = fd;
    tcp.query = index;
    tcp.queryGeneration = query.generation;
    tcp.attempt = static_cast<std::uint8_t>(attemptIndex);
    tcp.id = random_.next16();
    tcp.out.clear();
    tcp.out.push_back(static_cast<std::uint8_t>(query.upstreamQuery.size() >> 8));
    tcp.out.push_back(static_cast<std::uint8_t>(query.upstreamQuery.size()));
    tcp.out.insert(tcp.out.end(), query.upstreamQuery.begin(), query.upstreamQuery.end());
    writeU16(tcp.out.data() + 2, tcp.id);
    tcp.sent = 0;
    tcp.in.clear();
    tcp.writing = true;
    epoll_event event{};
    event.events = EPOLLOUT;
    event.data.u64 = makeTag(Kind::upstreamTcp, connection, tcp.generation);
    ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event);
    attempt.tcp = true;
    attempt.tcpIndex = connection;
    attempt.tcpGeneration = tcp.generation;
    ++counters_.upstreamQueries;
}

void Forwarder::Loop::receiveUpstream(std::uint32_t socketIndex, std::uint32_t generation) {
    if (socketIndex >= upstreamSockets_.size() || upstreamSockets_[socketIndex].fd < 0 ||
        upstreamSockets_[socketIndex].generation != generation) {
        return;
    }
    const int received = receiveBatch_.receive(upstreamSockets_[socketIndex].fd);
    if (received < 0 && errno == ECONNREFUSED) {
        failSocket(socketIndex);  // nothing listens there: its queries need not wait
        return;
    }
    for (int i = 0; i < received; ++i) {
        const auto position = static_cast<std::size_t>(i);
        const auto& message = receiveBatch_.messages[position];
        const std::uint8_t* data = receiveBatch_.buffers[position].data();
        const std::size_t length = message.msg_len;
        if (length < 12) {
            continue;
        }
        const std::uint32_t key = socketIndex << 16 | readU16(data);
        const auto found = pending_.find(key);
        if (found == pending_.end()) {
            continue;  // late, duplicated or forged
        }
        const PendingRef ref = found->second;
        Query& query = queries_[ref.query];
        if (!query.inUse || query.generation != ref.generation) {
            pending_.erase(found);
            continue;
        }
        const Endpoint& endpoint = (*query.resolvers)[query.attempts[ref.attempt].resolver];
        if (!endpoint.sameAs(reinterpret_cast<const sockaddr*>(&receiveBatch_.addresses[position]),
                             message.msg_hdr.msg_namelen)) {
            continue;  // not from the resolver that was asked
        }
        answer(ref.query, ref.attempt, data, length, false,
               (message.msg_hdr.msg_flags & MSG_TRUNC) != 0);
    }
}

void Forwarder::Loop::answer(std::uint32_t index, std::size_t attemptIndex,
                             const std::uint8_t* data, std::size_t length, bool viaTcp,
                             bool cutShort) {
    Query& query = queries_[index];
    Attempt& attempt = query.attempts[attemptIndex];
    const std::uint16_t id = viaTcp ? upstreamTcp_[attempt.tcpIndex].id : attempt.id;
    const AnswerVerdict verdict =
        readUpstreamAnswer(data, length, id, query.client, scratchAnswer_);
    if (verdict == AnswerVerdict::foreign && !viaTcp && !cutShort) {
        return;
    }
    query.anyAnswered = true;
    upstreamAlive();
    if (!viaTcp && (cutShort || (verdict == AnswerVerdict::ok && scratchAnswer_.truncated))) {
        releaseAttempt(query, attempt);
        attempt.live = true;
        ++query.live;
        ++counters_.tcpRetries;
        launchTcp(index, attemptIndex);
        return;
    }
    if (verdict != AnswerVerdict::ok ||
        (scratchAnswer_.responseCode != kNoError && scratchAnswer_.responseCode != kNxDomain)) {
        attemptFailed(index, attemptIndex);
        return;
    }

    replyBuffer_.assign(data, data + length);
    const bool keptOpt = scratchAnswer_.hasOpt && !scratchAnswer_.optIsLast;
    if (scratchAnswer_.hasOpt && scratchAnswer_.optIsLast) {
        dropTrailingOpt(replyBuffer_, scratchAnswer_.optOffset);
    }
    if (!keptOpt && !scratchAnswer_.truncated && scratchAnswer_.cacheTtl > 0 &&
        query.policyGeneration == policyGeneration_) {
        const auto bound = scratchAnswer_.negative ? options_.maxNegativeTtl : options_.maxCacheTtl;
        const auto ttl =
            std::min<std::chrono::seconds>(std::chrono::seconds(scratchAnswer_.cacheTtl), bound);
        AnswerCache::makeKey(keyBuffer_, query.client.lowerName.data(), query.client.nameLength,
                             query.client.type, query.client.questionClass, query.client.dnssecOk,
                             (query.client.flags & 0x0010) != 0);
        cache_.store(keyBuffer_, replyBuffer_, scratchAnswer_.ttlOffsets, ttl, now());
    }
    finishReply(replyBuffer_, query.client, clientLimit(query.client, query.viaTcp), keptOpt);
    reply(query, replyBuffer_);
    complete(index);
}

void Forwarder::Loop::attemptFailed(std::uint32_t index, std::size_t attemptIndex) {
    Query& query = queries_[index];
    Attempt& attempt = query.attempts[attemptIndex];
    if (attempt.live) {
        releaseAttempt(query, attempt);
    }
    const std::size_t total = std::min(query.resolvers->size(), kMaxAttempts);
    if (query.next < total) {
        launch(index);  // the next resolver goes at once: no point waiting for the race
        return;
    }
    if (query.live == 0) {
        finishServfail(index);
    }
}

void Forwarder::Loop::releaseAttempt(Query& query, Attempt& attempt) {
    if (!attempt.live) {
        return;
    }
    attempt.live = false;
    --query.live;
    if (attempt.tcp) {
        if (attempt.tcpIndex < upstreamTcp_.size() &&
            upstreamTcp_[attempt.tcpIndex].generation == attempt.tcpGeneration) {
            closeUpstreamTcp(attempt.tcpIndex);
        }
    } else {
        pending_.erase(std::uint32_t{attempt.socket} << 16 | attempt.id);
    }
}

void Forwarder::Loop::finishServfail(std::uint32_t index) {
    Query& query = queries_[index];
    ++counters_.servfails;
    if (!query.anyAnswered) {
        upstreamSilent(now());
    }
    writeErrorReply(replyBuffer_, query.client, kServFail, true);
    reply(query, replyBuffer_);
    complete(index);
}

void Forwarder::Loop::complete(std::uint32_t index) {
    Query& query = queries_[index];
    for (std::size_t i = 0; i < kMaxAttempts; ++i) {
        releaseAttempt(query, query.attempts[i]);
    }
    if (query.viaTcp && query.tcpClient < tcpClients_.size()) {
        TcpClient& client = tcpClients_[query.tcpClient];
        if (client.fd >= 0 && client.generation == query.tcpClientGeneration &&
            client.outstanding > 0) {
            --client.outstanding;
            if (client.readClosed && client.outstanding == 0 &&
                client.outSent >= client.out.size()) {
                closeClient(query.tcpClient);
            }
        }
    }
    query.inUse = false;
    ++query.generation;
    query.router.reset();
    query.servers.reset();
    query.resolvers = nullptr;
    freeQueries_.push_back(index);
}

void Forwarder::Loop::upstreamSilent(Clock::time_point at) {
    if (!silentSince_) {
        silentSince_ = at;
    }
    if (!lostReported_ && at - *silentSince_ >= options_.upstreamsLostAfter) {
        lostReported_ = true;
        const auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(at - *silentSince_).count();
        const std::string reason =
            "No DNS resolver has answered for " + std::to_string(seconds) + " seconds";
        log(reason);
        if (lostHandler_) {
            lostHandler_(reason);
        }
    }
}

void Forwarder::Loop::runTimers(Clock::time_point at) {
    while (!deadlineTimers_.empty() && deadlineTimers_.front().due <= at) {
        const Timer timer = deadlineTimers_.front();
        deadlineTimers_.pop_front();
        Query& query = queries_[timer.query];
        if (query.inUse && query.generation == timer.generation) {
            finishServfail(timer.query);
        }
    }
    while (!raceTimers_.empty() && raceTimers_.front().due <= at) {
        const Timer timer = raceTimers_.front();
        raceTimers_.pop_front();
        Query& query = queries_[timer.query];
        if (!query.inUse || query.generation != timer.generation) {
            continue;
        }
        const std::size_t total = std::min(query.resolvers->size(), kMaxAttempts);
        if (query.next < total) {
            launch(timer.query);
            if (query.inUse && query.generation == timer.generation && query.next < total) {
                raceTimers_.push_back({at + options_.raceDelay, timer.query, timer.generation});
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// TCP clients

void Forwarder::Loop::acceptClients() {
    for (;;) {
        const int fd = ::accept4(tcpFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        if (tcpClientCount_ >= options_.maxTcpClients) {
            ::close(fd);
            ++counters_.dropped;
            continue;
        }
        const std::uint32_t index = takeSlot(tcpClients_, freeTcpClients_);
        TcpClient& client = tcpClients_[index];
        client.fd = fd;
        client.in.clear();
        client.out.clear();
        client.outSent = 0;
        client.outstanding = 0;
        client.readClosed = false;
        client.wantWrite = false;
        client.lastActive = now();
        ++tcpClientCount_;
        epoll_event event{};
        event.events = EPOLLIN | EPOLLRDHUP;
        event.data.u64 = makeTag(Kind::tcpClient, index, client.generation);
        ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event);
    }
}

void Forwarder::Loop::clientEvent(std::uint32_t index, std::uint32_t generation,
                                  std::uint32_t events) {
    if (index >= tcpClients_.size() || tcpClients_[index].fd < 0 ||
        tcpClients_[index].generation != generation) {
        return;
    }
    if ((events & EPOLLERR) != 0) {
        closeClient(index);
        return;
    }
    if ((events & EPOLLOUT) != 0) {
        flushClient(tcpClients_[index], index);
        if (tcpClients_[index].fd < 0 || tcpClients_[index].generation != generation) {
            return;
        }
    }
    if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP)) != 0 && !tcpClients_[index].readClosed) {
        std::array<std::uint8_t, 16384> buffer{};
        for (;;) {
            const ssize_t got = ::read(tcpClients_[index].fd, buffer.data(), buffer.size());
            if (got > 0) {
                auto& in = tcpClients_[index].in;
                in.insert(in.end(), buffer.begin(), buffer.begin() + got);
                if (in.size() > 2 * (kMaxTcpMessage + 2)) {
                    closeClient(index);
                    return;
                }
                continue;
            }
            if (got == 0) {
                tcpClients_[index].readClosed = true;
                break;
            }
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                closeClient(index);
                return;
            }
            break;
        }
        tcpClients_[index].lastActive = now();
        // Each message may be answered at once from the cache; the client's buffers may move
        // meanwhile, so the message is copied out first.
        std::vector<std::uint8_t> message;
        for (;;) {
            TcpClient& client = tcpClients_[index];
            if (client.fd < 0 || client.generation != generation || client.in.size() < 2) {
                break;
            }
            const std::size_t length = readU16(client.in.data());
            if (client.in.size() < 2 + length) {
                break;
            }
            message.assign(client.in.begin() + 2,
                           client.in.begin() + 2 + static_cast<std::ptrdiff_t>(length));
            client.in.erase(client.in.begin(),
                            client.in.begin() + 2 + static_cast<std::ptrdiff_t>(length));
            handleQuery(message.data(), message.size(), nullptr, 0,
                        std::make_pair(index, generation));
        }
    }
    TcpClient& client = tcpClients_[index];
    if (client.fd >= 0 && client.generation == generation && client.readClosed &&
        client.outstanding == 0 && client.outSent >= client.out.size()) {
        closeClient(index);
    }
}

void Forwarder::Loop::flushClient(TcpClient& client, std::uint32_t index) {
    while (client.outSent < client.out.size()) {
        const ssize_t sent =
            ::send(client.fd, client.out.data() + client.outSent,
                   client.out.size() - client.outSent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            client.outSent += static_cast<std::size_t>(sent);
            continue;
        }
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!client.wantWrite) {
                client.wantWrite = true;
                epoll_event event{};
                event.events = EPOLLIN | EPOLLRDHUP | EPOLLOUT;
                event.data.u64 = makeTag(Kind::tcpClient, index, client.generation);
                ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, client.fd, &event);
            }
            return;
        }
        closeClient(index);
        return;
    }
    client.out.clear();
    client.outSent = 0;
    client.lastActive = now();
    if (client.wantWrite) {
        client.wantWrite = false;
        epoll_event event{};
        event.events = EPOLLIN | EPOLLRDHUP;
        event.data.u64 = makeTag(Kind::tcpClient, index, client.generation);
        ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, client.fd, &event);
    }
}

void Forwarder::Loop::closeClient(std::uint32_t index) {
    TcpClient& client = tcpClients_[index];
    if (client.fd < 0) {
        return;
    }
    if (epollFd_ >= 0) {
        ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, client.fd, nullptr);
    }
    closeFd(client.fd);
    ++client.generation;
    client.in = {};
    client.out = {};
    client.outSent = 0;
    client.outstanding = 0;
    --tcpClientCount_;
    freeTcpClients_.push_back(index);
}

void Forwarder::Loop::sweepTcp(Clock::time_point at) {
    for (std::uint32_t i = 0; i < upstreamSockets_.size(); ++i) {
        const UpstreamSocket& upstream = upstreamSockets_[i];
        if (upstream.fd >= 0 && upstream.retired &&
            at - upstream.retiredAt > options_.queryTimeout + std::chrono::seconds(1)) {
            closeUpstreamSocket(i);
        }
    }
    for (std::uint32_t i = 0; i < tcpClients_.size(); ++i) {
        TcpClient& client = tcpClients_[i];
        if (client.fd >= 0 && client.outstanding == 0 &&
            at - client.lastActive >= options_.tcpIdleTimeout) {
            closeClient(i);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// TCP towards resolvers

void Forwarder::Loop::upstreamTcpEvent(std::uint32_t index, std::uint32_t generation,
                                       std::uint32_t events) {
    if (index >= upstreamTcp_.size() || upstreamTcp_[index].fd < 0 ||
        upstreamTcp_[index].generation != generation) {
        return;
    }
    UpstreamTcp& tcp = upstreamTcp_[index];
    const std::uint32_t queryIndex = tcp.query;
    const std::size_t attempt = tcp.attempt;
    if (queryIndex >= queries_.size() || !queries_[queryIndex].inUse ||
        queries_[queryIndex].generation != tcp.queryGeneration) {
        closeUpstreamTcp(index);
        return;
    }
    const auto failed = [&] { attemptFailed(queryIndex, attempt); };
    if ((events & EPOLLERR) != 0) {
        failed();
        return;
    }
    if (tcp.writing && (events & EPOLLOUT) != 0) {
        while (tcp.sent < tcp.out.size()) {
            const ssize_t sent = ::send(tcp.fd, tcp.out.data() + tcp.sent,
                                        tcp.out.size() - tcp.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent > 0) {
                tcp.sent += static_cast<std::size_t>(sent);
            } else if (sent < 0 && errno == EINTR) {
                continue;
            } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                return;
            } else {
                failed();
                return;
            }
        }
        tcp.writing = false;
        epoll_event event{};
        event.events = EPOLLIN | EPOLLRDHUP;
        event.data.u64 = makeTag(Kind::upstreamTcp, index, generation);
        ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, tcp.fd, &event);
        return;
    }
    if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP)) == 0) {
        return;
    }
    std::array<std::uint8_t, 16384> buffer{};
    for (;;) {
        const ssize_t got = ::read(tcp.fd, buffer.data(), buffer.size());
        if (got > 0) {
            tcp.in.insert(tcp.in.end(), buffer.begin(), buffer.begin() + got);
            if (tcp.in.size() >= 2 && tcp.in.size() >= 2 + std::size_t{readU16(tcp.in.data())}) {
                break;
            }
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return;
        }
        failed();  // closed or broken before a whole answer came
        return;
    }
    const std::size_t length = readU16(tcp.in.data());
    std::vector<std::uint8_t> message(tcp.in.begin() + 2,
                                      tcp.in.begin() + 2 + static_cast<std::ptrdiff_t>(length));
    answer(queryIndex, attempt, message.data(), message.size(), true, false);
}

void Forwarder::Loop::closeUpstreamTcp(std::uint32_t index) {
    UpstreamTcp& tcp = upstreamTcp_[index];
    if (tcp.fd < 0) {
        return;
    }
    if (epollFd_ >= 0) {
        ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, tcp.fd, nullptr);
    }
    closeFd(tcp.fd);
    ++tcp.generation;
    tcp.out = {};
    tcp.in = {};
    freeUpstreamTcp_.push_back(index);
}

// ---------------------------------------------------------------------------------------------
// The public face

Forwarder::Forwarder(ForwarderOptions options)
    : options_(std::move(options)), loop_(std::make_unique<Loop>(options_)) {}

Forwarder::~Forwarder() {
    stop();
}

bool Forwarder::start(const std::string& listen, std::string& error) {
    if (loop_->running()) {
        error = "The DNS forwarder is already listening on " + loop_->listening();
        return false;
    }
    if (!loop_->open(listen, error)) {
        return false;
    }
    loop_->startThread();
    if (options_.log) {
        options_.log("Listening for DNS queries on " + loop_->listening() + " (UDP and TCP)");
    }
    return true;
}

void Forwarder::stop() {
    loop_->stopThread();
}

bool Forwarder::running() const {
    return loop_->running();
}

std::string Forwarder::listeningAddress() const {
    return loop_->listening();
}

void Forwarder::setPolicy(Policy policy) {
    {
        // The agent hands the same policy over again on many of its passes; only a real
        // change is worth the cache.
        std::lock_guard lock(policyMutex_);
        if (currentPolicy_ && *currentPolicy_ == policy) {
            return;
        }
        currentPolicy_ = policy;
    }
    std::vector<std::string> problems;
    auto router = std::make_shared<const Router>(policy, problems);
    if (options_.log) {
        for (const auto& problem : problems) {
            options_.log(problem);
        }
    }
    Loop* loop = loop_.get();
    loop_->post(
        [loop, router = std::move(router)]() mutable { loop->applyPolicy(std::move(router)); });
}

void Forwarder::setNetworkServers(std::vector<std::string> servers) {
    Loop* loop = loop_.get();
    loop_->post([loop, servers = std::move(servers)] { loop->applyNetworkServers(servers); });
}

void Forwarder::flush() {
    Loop* loop = loop_.get();
    loop_->post([loop] { loop->clearCache(); });
}

ForwarderStats Forwarder::stats() const {
    return loop_->stats();
}

void Forwarder::setUpstreamsLostHandler(UpstreamsLostHandler handler) {
    Loop* loop = loop_.get();
    loop_->post([loop, handler = std::move(handler)]() mutable {
        loop->setLostHandler(std::move(handler));
    });
}

}  // namespace morvane::provider
