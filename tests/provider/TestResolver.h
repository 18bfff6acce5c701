#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace morvane::provider::test {

/// A small DNS server on 127.0.0.1 (UDP and TCP on one free port) that plays a resolver:
/// it records every query it gets, decoded with the project's own message codec, and answers
/// as the test tells it.
class TestResolver {
public:
    enum class Behaviour {
        answer,    // an A record with `answerAddress`, TTL `ttl`
        large,     // 60 A records: too big for a client without EDNS
        nxdomain,  // NXDOMAIN with an SOA (TTL `ttl`, minimum `soaMinimum`)
        servfail,
        refused,
        silent,    // never answers
        truncate,  // UDP: an empty answer with TC set; TCP: the answer
    };

    struct Received {
        std::string name;
        std::uint16_t type = 0;
        bool tcp = false;
        bool hasOpt = false;
        std::uint16_t udpSize = 0;
        bool dnssecOk = false;
        std::map<std::uint16_t, std::string> options;
    };

    explicit TestResolver(std::string answerAddress);
    ~TestResolver();
    TestResolver(const TestResolver&) = delete;
    TestResolver& operator=(const TestResolver&) = delete;

    /// "127.0.0.1:PORT".
    std::string address() const;
    void setBehaviour(Behaviour behaviour) { behaviour_ = behaviour; }
    void setTtl(std::uint32_t ttl) { ttl_ = ttl; }
    void setSoaMinimum(std::uint32_t minimum) { soaMinimum_ = minimum; }

    std::vector<Received> received() const;
    std::size_t count() const;
    /// Waits (generously) until at least `count` queries came in.
    bool waitFor(std::size_t count,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    void run();
    std::optional<std::vector<std::uint8_t>> respond(const std::uint8_t* data, std::size_t length,
                                                     bool tcp);

    std::string answerAddress_;
    std::atomic<Behaviour> behaviour_{Behaviour::answer};
    std::atomic<std::uint32_t> ttl_{300};
    std::atomic<std::uint32_t> soaMinimum_{60};
    int udp_ = -1;
    int tcp_ = -1;
    int stopPipe_[2] = {-1, -1};
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Received> received_;
    std::thread thread_;
};

/// A client query in wire form.
std::vector<std::uint8_t> makeQuery(const std::string& name, std::uint16_t type, std::uint16_t id,
                                    bool edns = false, bool dnssecOk = false);

/// Sends over UDP to "ADDR:PORT" and waits for one answer; absent on time-out.
std::optional<std::vector<std::uint8_t>> askUdp(
    const std::string& address, const std::vector<std::uint8_t>& query,
    std::chrono::milliseconds timeout = std::chrono::seconds(10));
/// Sends each query over one TCP connection and reads as many answers.
std::vector<std::vector<std::uint8_t>> askTcp(
    const std::string& address, const std::vector<std::vector<std::uint8_t>>& queries,
    std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace morvane::provider::test
