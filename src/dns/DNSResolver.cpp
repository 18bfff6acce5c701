#include "dns/DNSResolver.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <resolv.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

namespace morvane::dns {

namespace {

// A function of the same name hides the type without its keyword.
using ResolverState = struct __res_state;

void syslogLine(const std::string& line) {
    syslog(LOG_USER | LOG_NOTICE, "%s", line.c_str());
}

std::mutex& classMutex() {
    static std::mutex mutex;
    return mutex;
}

DNSResolver::LogLine systemLog = syslogLine;
std::string configuredEchoHost;

void writeSystemLog(const std::string& line) {
    DNSResolver::LogLine log;
    {
        std::lock_guard lock(classMutex());
        log = systemLog;
    }
    if (log) {
        log(line);
    }
}

/// The resolver state the instances share: made by the newest instance.
struct SharedState {
    std::mutex mutex;
    std::unique_ptr<ResolverState> state;
};

SharedState& shared() {
    static SharedState* instance = new SharedState();  // outlives every instance
    return *instance;
}

/// One server slot of a resolver state, whatever its family.
struct Server {
    sockaddr_storage address{};
    socklen_t length = 0;
};

std::vector<Server> serversOf(const ResolverState& state) {
    std::vector<Server> servers;
    for (int n = 0; n < state.nscount && n < MAXNS; ++n) {
        Server server;
        if (state.nsaddr_list[n].sin_family == AF_INET) {
            std::memcpy(&server.address, &state.nsaddr_list[n], sizeof(sockaddr_in));
            server.length = sizeof(sockaddr_in);
        } else if (const sockaddr_in6* six = state._u._ext.nsaddrs[n]) {
            std::memcpy(&server.address, six, sizeof(sockaddr_in6));
            server.length = sizeof(sockaddr_in6);
        } else {
            continue;
        }
        servers.push_back(server);
    }
    return servers;
}

// The library holds at most MAXNS servers; counting one more than it has room for would send
// it reading past its table. So the given resolver goes first and the system's servers move
// down behind it, the last one falling off when the table is full.
void putFirst(ResolverState& state, const in_addr& resolver) {
    Server first;
    sockaddr_in given{};
    given.sin_family = AF_INET;
    given.sin_port = htons(DNSResolver::kPort);
    given.sin_addr = resolver;
    std::memcpy(&first.address, &given, sizeof given);
    first.length = sizeof given;
    // Built front to back rather than by an insert at the front, which GCC 12's optimiser
    // wrongly reports as a null dereference.
    std::vector<Server> servers{first};
    for (const Server& server : serversOf(state)) {
        servers.push_back(server);
    }
    if (servers.size() > MAXNS) {
        servers.resize(MAXNS);
    }
    for (int n = 0; n < MAXNS; ++n) {
        const bool used = n < static_cast<int>(servers.size());
        const bool six = used && servers[n].address.ss_family == AF_INET6;
        if (!six && state._u._ext.nsaddrs[n]) {
            std::free(state._u._ext.nsaddrs[n]);
            state._u._ext.nsaddrs[n] = nullptr;
        }
        std::memset(&state.nsaddr_list[n], 0, sizeof state.nsaddr_list[n]);
        if (!used) {
            continue;
        }
        if (six) {
            if (!state._u._ext.nsaddrs[n]) {
                state._u._ext.nsaddrs[n] =
                    static_cast<sockaddr_in6*>(std::malloc(sizeof(sockaddr_in6)));
            }
            if (state._u._ext.nsaddrs[n]) {
                std::memcpy(state._u._ext.nsaddrs[n], &servers[n].address, sizeof(sockaddr_in6));
            }
        } else {
            std::memcpy(&state.nsaddr_list[n], &servers[n].address, sizeof(sockaddr_in));
        }
    }
    state.nscount = static_cast<int>(servers.size());
    // Makes the library take the new table at the next query.
    state._u._ext.nscount = 0;
}

std::string reason(const char* step) {
    return std::string(step) + ": " + hstrerror(h_errno);
}

}  // namespace

std::unique_ptr<DNSResolver> DNSResolver::create() {
    auto state = std::make_unique<ResolverState>();
    std::memset(state.get(), 0, sizeof(ResolverState));
    if (res_ninit(state.get()) != 0) {
        return nullptr;
    }
    std::unique_ptr<DNSResolver> resolver(new DNSResolver());
    resolver->lastCallDate = std::chrono::system_clock::now();
    auto& common = shared();
    std::lock_guard lock(common.mutex);
    if (common.state) {
        res_nclose(common.state.get());
    }
    common.state = std::move(state);
    return resolver;
}

// The shared state stays with the process: the other instance may still read it.
DNSResolver::~DNSResolver() = default;

void DNSResolver::setEchoHost(const std::string& host) {
    std::lock_guard lock(classMutex());
    configuredEchoHost = host;
}

std::string DNSResolver::echoHost() {
    std::lock_guard lock(classMutex());
    return configuredEchoHost;
}

void DNSResolver::setSystemLog(LogLine log) {
    std::lock_guard lock(classMutex());
    systemLog = log ? log : syslogLine;
}

std::string DNSResolver::resolveDNSUsingMorvane(const std::vector<std::string>& resolvers) {
    return getIPAddressFromResolvers(resolvers, kExternalIPHost);
}

std::string DNSResolver::getIPAddressFromResolvers(const std::vector<std::string>& resolvers,
                                                   const std::string& host) {
    ResolverState state;
    std::memset(&state, 0, sizeof state);
    if (res_ninit(&state) != 0) {
        writeSystemLog("res_ninit failed");
        writeSystemLog("Empty IP Address");
        return "";
    }
    if (resolvers.empty()) {
        writeSystemLog("Resolve with empty resolvers");
        res_nclose(&state);
        return "";
    }
    std::string result;
    std::string failure;
    for (const auto& resolver : resolvers) {
        if (resolver.empty()) {
            continue;
        }
        in_addr address{};
        if (inet_aton(resolver.c_str(), &address) == 0) {
            // A resolver that is no IPv4 address cannot be asked; the system's servers are
            // not asked in its place, since they cannot tell the external address.
            failure = "not an IPv4 resolver: " + resolver;
        } else {
            putFirst(state, address);
        }
        break;
    }
    unsigned char answer[kAnswerBufferSize];
    if (failure.empty()) {
        const int length = res_nquery(&state, host.c_str(), kQueryClass, kQueryType, answer,
                                      static_cast<int>(sizeof answer));
        ns_msg message;
        ns_rr record;
        if (length <= 0) {
            failure = reason("res_nquery");
        } else if (ns_initparse(answer, length, &message) < 0) {
            failure = reason("ns_initparse");
        } else if (ns_msg_count(message, ns_s_an) == 0) {
            failure = reason("ns_msg_count");
        } else if (ns_parserr(&message, ns_s_an, 0, &record) < 0) {
            failure = reason("ns_parserr");
        } else if (ns_rr_rdlen(record) < 4) {
            // Fewer than four bytes of data: there is no address to print.
            failure = "ns_parserr: short record data";
        } else {
            char text[16] = {};
            if (inet_ntop(AF_INET, ns_rr_rdata(record), text, sizeof text)) {
                result = text;
            }
            writeSystemLog("External ip from ns_parserr:  " + result);
        }
    }
    res_nclose(&state);
    if (!failure.empty()) {
        writeSystemLog(failure);
    }
    if (result.empty()) {
        writeSystemLog("Empty IP Address");
    }
    return result;
}

std::vector<std::string> DNSResolver::getDNSAddresses() const {
    std::vector<std::string> addresses;
    auto& common = shared();
    std::lock_guard lock(common.mutex);
    if (!common.state) {
        return addresses;
    }
    for (const auto& server : serversOf(*common.state)) {
        if (addresses.size() >= kMaxServers) {
            break;
        }
        char host[1025];
        if (server.length != 0 &&
            getnameinfo(reinterpret_cast<const sockaddr*>(&server.address), server.length, host,
                        sizeof host, nullptr, 0, NI_NUMERICHOST) == 0) {
            addresses.emplace_back(host);
        }
    }
    return addresses;
}

void DNSResolver::updateCountAndDate() {
    const auto now = std::chrono::system_clock::now();
    const auto since = lastCallDate.value_or(now);
    const auto elapsed = std::chrono::abs(now - since);
    callCount += 1;
    if (elapsed > kWindow) {
        callCount = 0;
        lastCallDate = now;
    }
}

bool DNSResolver::shouldCallExternalIP(std::int64_t count) const {
    return count < kCallsPerWindow;
}

bool DNSResolver::shouldResolveNow() {
    updateCountAndDate();
    return shouldCallExternalIP(callCount);
}

namespace {

/// Splits "host" or "host:port" ("[v6]:port" too); port 80 when none is given.
std::pair<std::string, std::string> hostAndPort(const std::string& text) {
    if (text.starts_with("[")) {
        const auto close = text.find(']');
        if (close != std::string::npos) {
            const std::string rest = text.substr(close + 1);
            return {text.substr(1, close - 1), rest.starts_with(":") ? rest.substr(1) : "80"};
        }
    }
    const auto colon = text.rfind(':');
    if (colon != std::string::npos && text.find(':') == colon) {
        return {text.substr(0, colon), text.substr(colon + 1)};
    }
    return {text, "80"};
}

/// Waits until the socket is ready or the idle time-out passes.
bool waitFor(int fd, short events) {
    pollfd entry{fd, events, 0};
    for (;;) {
        const int ready = poll(&entry, 1, static_cast<int>(DNSResolver::kHttpTimeout.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        return ready > 0;
    }
}

std::optional<std::string> httpGet(const std::string& endpoint) {
    const auto [host, port] = hostAndPort(endpoint);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) {
        return std::nullopt;
    }
    int fd = -1;
    for (addrinfo* entry = found; entry && fd < 0; entry = entry->ai_next) {
        fd = socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                    entry->ai_protocol);
        if (fd < 0) {
            continue;
        }
        const bool started =
            connect(fd, entry->ai_addr, entry->ai_addrlen) == 0 || errno == EINPROGRESS;
        int error = 0;
        socklen_t length = sizeof error;
        if (!started || !waitFor(fd, POLLOUT) ||
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(found);
    if (fd < 0) {
        return std::nullopt;
    }
    // HTTP/1.0: the body ends with the connection, and comes in one piece, never chunked.
    const std::string request = "GET / HTTP/1.0\r\nHost: " + host +
                                "\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n";
    std::size_t sent = 0;
    while (sent < request.size()) {
        if (!waitFor(fd, POLLOUT)) {
            close(fd);
            return std::nullopt;
        }
        const ssize_t count = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            close(fd);
            return std::nullopt;
        }
        sent += static_cast<std::size_t>(count);
    }
    std::string reply;
    char buffer[4096];
    for (;;) {
        if (!waitFor(fd, POLLIN)) {
            close(fd);
            return std::nullopt;
        }
        const ssize_t count = recv(fd, buffer, sizeof buffer, 0);
        if (count < 0) {
            close(fd);
            return std::nullopt;
        }
        if (count == 0 || reply.size() > 65536) {
            break;
        }
        reply.append(buffer, static_cast<std::size_t>(count));
    }
    close(fd);
    const auto headerEnd = reply.find("\r\n\r\n");
    const auto space = reply.find(' ');
    if (headerEnd == std::string::npos || space == std::string::npos ||
        reply.compare(space + 1, 3, "200") != 0) {
        return std::nullopt;
    }
    return reply.substr(headerEnd + 4);
}

}  // namespace

std::string DNSResolver::pingNonMorvaneResolver(const std::vector<std::string>& resolvers) {
    if (resolvers.empty()) {
        return "";
    }
    const std::string endpoint = echoHost();
    if (endpoint.empty()) {
        writeSystemLog("pingNonMorvaneResolver: no echo host is configured");
        return "";
    }
    const auto body = httpGet(endpoint);
    if (!body) {
        return "";
    }
    for (const unsigned char c : *body) {
        if (c > 127) {
            return "";  // not ASCII text
        }
    }
    const auto first = body->find_first_not_of(" \t");
    if (first == std::string::npos) {
        return "";
    }
    const auto last = body->find_last_not_of(" \t");
    return body->substr(first, last - first + 1);
}

}  // namespace morvane::dns
