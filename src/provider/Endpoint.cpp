#include "provider/Endpoint.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cstring>

namespace morvane::provider {

namespace {

std::string describe(const sockaddr_storage& address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
        inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
        return std::string(text) + ":" + std::to_string(ntohs(v4->sin_port));
    }
    if (address.ss_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
        inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
        return "[" + std::string(text) + "]:" + std::to_string(ntohs(v6->sin6_port));
    }
    return "?";
}

}  // namespace

bool Endpoint::sameAs(const sockaddr* other, socklen_t otherLength) const {
    if (other == nullptr || other->sa_family != address.ss_family) {
        return false;
    }
    if (address.ss_family == AF_INET &&
        otherLength >= static_cast<socklen_t>(sizeof(sockaddr_in))) {
        const auto* a = reinterpret_cast<const sockaddr_in*>(&address);
        const auto* b = reinterpret_cast<const sockaddr_in*>(other);
        return a->sin_port == b->sin_port && a->sin_addr.s_addr == b->sin_addr.s_addr;
    }
    if (address.ss_family == AF_INET6 &&
        otherLength >= static_cast<socklen_t>(sizeof(sockaddr_in6))) {
        const auto* a = reinterpret_cast<const sockaddr_in6*>(&address);
        const auto* b = reinterpret_cast<const sockaddr_in6*>(other);
        return a->sin6_port == b->sin6_port &&
               std::memcmp(&a->sin6_addr, &b->sin6_addr, sizeof a->sin6_addr) == 0;
    }
    return false;
}

std::optional<Endpoint> Endpoint::parse(std::string_view text, std::uint16_t defaultPort,
                                        bool allowPortZero) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    std::string_view host = text;
    std::optional<std::string_view> portText;
    if (!text.empty() && text.front() == '[') {
        const auto close = text.find(']');
        if (close == std::string_view::npos) {
            return std::nullopt;
        }
        host = text.substr(1, close - 1);
        const auto rest = text.substr(close + 1);
        if (!rest.empty()) {
            if (rest.front() != ':') {
                return std::nullopt;
            }
            portText = rest.substr(1);
        }
    } else if (const auto colon = text.find(':');
               colon != std::string_view::npos &&
               text.find(':', colon + 1) == std::string_view::npos) {
        host = text.substr(0, colon);  // one colon: IPv4 with a port
        portText = text.substr(colon + 1);
    }
    std::uint16_t port = defaultPort;
    if (portText) {
        unsigned value = 0;
        const auto [end, error] =
            std::from_chars(portText->data(), portText->data() + portText->size(), value);
        if (error != std::errc() || end != portText->data() + portText->size() || value > 65535 ||
            portText->empty()) {
            return std::nullopt;
        }
        port = static_cast<std::uint16_t>(value);
    }
    if ((port == 0 && !allowPortZero) || host.empty() || host.size() >= INET6_ADDRSTRLEN) {
        return std::nullopt;
    }
    const std::string hostText(host);
    Endpoint endpoint;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&endpoint.address);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&endpoint.address);
    if (inet_pton(AF_INET, hostText.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        endpoint.length = sizeof(sockaddr_in);
    } else if (inet_pton(AF_INET6, hostText.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        endpoint.length = sizeof(sockaddr_in6);
    } else {
        return std::nullopt;
    }
    endpoint.text = describe(endpoint.address);
    return endpoint;
}

Endpoint Endpoint::fromSocketAddress(const sockaddr* address, socklen_t length) {
    Endpoint endpoint;
    if (address != nullptr && length > 0 &&
        static_cast<std::size_t>(length) <= sizeof endpoint.address) {
        std::memcpy(&endpoint.address, address, static_cast<std::size_t>(length));
        endpoint.length = length;
        endpoint.text = describe(endpoint.address);
    }
    return endpoint;
}

}  // namespace morvane::provider
