#include "sysdns/TestDnsResponder.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace morvane::sysdns::test {

TestDnsResponder::TestDnsResponder(std::string listenAddress, std::uint16_t port,
                                   std::string answer)
    : address_(std::move(listenAddress)), port_(port), answer_(std::move(answer)) {}

TestDnsResponder::~TestDnsResponder() {
    stopping_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool TestDnsResponder::start() {
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    ::inet_pton(AF_INET, address_.c_str(), &address.sin_addr);
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error_ =
            "cannot bind " + address_ + ":" + std::to_string(port_) + ": " + std::strerror(errno);
        return false;
    }
    socklen_t length = sizeof address;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
    return true;
}

void TestDnsResponder::serve() {
    in_addr answer{};
    ::inet_pton(AF_INET, answer_.c_str(), &answer);
    while (!stopping_) {
        pollfd descriptor{fd_, POLLIN, 0};
        if (::poll(&descriptor, 1, 50) <= 0) {
            continue;
        }
        unsigned char query[512];
        sockaddr_storage peer{};
        socklen_t peerLength = sizeof peer;
        const ssize_t size = ::recvfrom(fd_, query, sizeof query, 0,
                                        reinterpret_cast<sockaddr*>(&peer), &peerLength);
        if (size < 17) {
            continue;
        }
        // The question ends after its name (labels up to a zero byte) and type and class.
        std::size_t at = 12;
        while (at < static_cast<std::size_t>(size) && query[at] != 0) {
            at += query[at] + 1u;
        }
        if (at + 5 > static_cast<std::size_t>(size)) {
            continue;
        }
        const unsigned type = (query[at + 1] << 8) | query[at + 2];
        const std::size_t questionEnd = at + 5;
        ++queries_;
        std::string reply(reinterpret_cast<const char*>(query), questionEnd);
        reply[2] = static_cast<char>(0x81);  // a response, recursion desired
        reply[3] = static_cast<char>(0x80);  // recursion available, no error
        reply[6] = 0;
        reply[7] = type == 1 ? 1 : 0;
        reply[8] = reply[9] = reply[10] = reply[11] = 0;  // no authority, no EDNS echoed
        if (type == 1) {
            const unsigned char record[] = {0xc0, 0x0c, 0, 1, 0, 1, 0, 0, 0, 0, 0, 4};
            reply.append(reinterpret_cast<const char*>(record), sizeof record);
            reply.append(reinterpret_cast<const char*>(&answer), 4);
        }
        ::sendto(fd_, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&peer),
                 peerLength);
    }
}

std::string lookUp(const std::string& name, std::string* error) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* result = nullptr;
    const int status = ::getaddrinfo(name.c_str(), nullptr, &hints, &result);
    if (status != 0) {
        if (error != nullptr) {
            *error = ::gai_strerror(status);
        }
        return {};
    }
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(result->ai_addr)->sin_addr, text,
                sizeof text);
    ::freeaddrinfo(result);
    return text;
}

}  // namespace morvane::sysdns::test
