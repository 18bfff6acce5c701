#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace morvane::sysdns::test {

/// A DNS server on UDP that answers every A query with one fixed address (TTL 0, so that no
/// cache between it and the client hides the next query), and AAAA with no data. It stands in
/// for the provider, or for the network's own server, inside a test's namespace.
class TestDnsResponder {
public:
    TestDnsResponder(std::string listenAddress, std::uint16_t port, std::string answer);
    ~TestDnsResponder();
    TestDnsResponder(const TestDnsResponder&) = delete;
    TestDnsResponder& operator=(const TestDnsResponder&) = delete;

    /// False when the address could not be bound; `error()` says why.
    bool start();
    const std::string& error() const { return error_; }
    std::uint16_t port() const { return port_; }
    int queries() const { return queries_.load(); }

private:
    void serve();

    std::string address_;
    std::uint16_t port_;
    std::string answer_;
    std::string error_;
    int fd_ = -1;
    std::atomic<bool> stopping_{false};
    std::atomic<int> queries_{0};
    std::thread thread_;
};

/// The first IPv4 address getaddrinfo gives for the name, or an empty text with the reason.
std::string lookUp(const std::string& name, std::string* error = nullptr);

}  // namespace morvane::sysdns::test
