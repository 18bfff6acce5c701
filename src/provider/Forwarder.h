#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "provider/Policy.h"

namespace morvane::provider {

struct ForwarderOptions {
    /// A resolver that has not answered after this long is raced by the next one of the same
    /// list; both stay in the race.
    std::chrono::milliseconds raceDelay{300};
    /// After this long without a usable answer from any resolver the client gets SERVFAIL.
    std::chrono::milliseconds queryTimeout{4000};
    /// The most answers the cache holds; the least recently used one makes room.
    std::size_t cacheCapacity = 20000;
    /// Upper bounds of how long an answer is kept, whatever its TTLs say.
    std::chrono::seconds maxCacheTtl{86400};
    std::chrono::seconds maxNegativeTtl{3600};
    /// Queries whose every resolver stayed silent (or could not be reached) for at least this
    /// long, with no answer from any resolver in between, count as all upstreams lost.
    std::chrono::seconds upstreamsLostAfter{15};
    /// Client TCP connections: how many at once, and how long one may idle.
    std::size_t maxTcpClients = 256;
    std::chrono::seconds tcpIdleTimeout{10};
    /// The clock of the cache and of every time-out; empty means steady_clock. Tests drive
    /// cache expiry through it.
    std::function<std::chrono::steady_clock::time_point()> clock;
    /// Where the forwarder's log lines go (called on the forwarder's thread, or on the caller's
    /// thread for `start`); empty means nowhere.
    std::function<void(const std::string&)> log;
};

struct ForwarderStats {
    std::uint64_t queries = 0;          // queries from clients, UDP and TCP
    std::uint64_t cacheHits = 0;        // answered from the cache
    std::uint64_t upstreamQueries = 0;  // queries sent to resolvers, UDP and TCP
    std::uint64_t tcpRetries = 0;       // truncated answers asked again over TCP
    std::uint64_t servfails = 0;        // SERVFAIL given to clients because every resolver failed
    std::uint64_t formerrs = 0;         // malformed queries answered FORMERR
    std::uint64_t dropped = 0;          // datagrams dropped (too short to answer, responses)
    std::uint64_t cacheEntries = 0;     // answers in the cache now
    std::uint64_t loopTurns = 0;        // turns of the event loop: grows at least once a second
};

/// The DNS forwarder of the provider: serves UDP and TCP on one address and sends each query
/// where the policy says, with a cache of answers in front.
///
/// One event-loop thread does all the work (epoll, batched receive and send). Every public
/// function may be called from any thread; changes are handed to the loop and take effect on
/// its next turn, in the order they were made.
class Forwarder {
public:
    /// Called on the forwarder's thread when every resolver has been out of reach for
    /// `upstreamsLostAfter`; once, until a resolver answers again.
    using UpstreamsLostHandler = std::function<void(const std::string& reason)>;

    explicit Forwarder(ForwarderOptions options = {});
    ~Forwarder();
    Forwarder(const Forwarder&) = delete;
    Forwarder& operator=(const Forwarder&) = delete;

    /// Binds UDP and TCP on "ADDR:PORT" ("127.0.0.153:53", "[::1]:5300"; port 0 picks a free
    /// one, the same for both) and starts the loop. False with a clear `error` when the text
    /// does not read, the address is busy or not ours, or the forwarder already runs.
    bool start(const std::string& listen, std::string& error);
    /// Closes the sockets and ends the loop; clients waiting for an answer get none. Idempotent.
    void stop();
    bool running() const;
    /// "ADDR:PORT" actually bound (the real port when 0 was asked for); empty when stopped.
    std::string listeningAddress() const;

    /// Replaces the policy and empties the cache. Queries already on their way finish under the
    /// policy they started with, and their answers are not cached. A policy equal to the
    /// current one changes nothing and keeps the cache.
    void setPolicy(Policy policy);
    /// The network's own DNS servers (as the machine had them before it was switched to this
    /// forwarder), for rules without resolvers. Addresses in the form of `PolicyRule::resolvers`.
    /// The forwarder's own address and the local stub addresses 127.0.0.53 and 127.0.0.54 are
    /// never used, since they would send the query back here.
    void setNetworkServers(std::vector<std::string> servers);
    /// Empties the cache.
    void flush();

    ForwarderStats stats() const;
    void setUpstreamsLostHandler(UpstreamsLostHandler handler);

private:
    class Loop;
    ForwarderOptions options_;
    std::mutex policyMutex_;
    std::optional<Policy> currentPolicy_;
    std::unique_ptr<Loop> loop_;
};

}  // namespace morvane::provider
