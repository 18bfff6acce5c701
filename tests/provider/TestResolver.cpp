#include "TestResolver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <stdexcept>

#include "dns/DNSMessageDecoder.h"

namespace morvane::provider::test {

namespace {

void put16(std::vector<std::uint8_t>& out, std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v >> 8));
    out.push_back(static_cast<std::uint8_t>(v));
}
void put32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    put16(out, static_cast<std::uint16_t>(v >> 16));
    put16(out, static_cast<std::uint16_t>(v));
}
std::uint16_t get16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

sockaddr_in parseAddress(const std::string& text) {
    const auto colon = text.rfind(':');
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(text.substr(colon + 1))));
    inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr);
    return address;
}

bool readFully(int fd, std::uint8_t* data, std::size_t length, int timeoutMs) {
    std::size_t done = 0;
    while (done < length) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0) {
            return false;
        }
        const ssize_t got = ::read(fd, data + done, length - done);
        if (got <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace

TestResolver::TestResolver(std::string answerAddress) : answerAddress_(std::move(answerAddress)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int round = 0; round < 50; ++round) {
        udp_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        address.sin_port = 0;
        ::bind(udp_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        socklen_t length = sizeof address;
        ::getsockname(udp_, reinterpret_cast<sockaddr*>(&address), &length);
        tcp_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int one = 1;
        ::setsockopt(tcp_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (::bind(tcp_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(tcp_, 16) == 0) {
            port_ = ntohs(address.sin_port);
            break;
        }
        ::close(udp_);
        ::close(tcp_);
        udp_ = tcp_ = -1;
    }
    if (port_ == 0 || ::pipe2(stopPipe_, O_CLOEXEC) != 0) {
        throw std::runtime_error("the test resolver cannot bind to 127.0.0.1");
    }
    thread_ = std::thread([this] { run(); });
}

TestResolver::~TestResolver() {
    const char stop = 1;
    [[maybe_unused]] const auto written = ::write(stopPipe_[1], &stop, 1);
    thread_.join();
    for (int fd : {udp_, tcp_, stopPipe_[0], stopPipe_[1]}) {
        ::close(fd);
    }
}

std::string TestResolver::address() const {
    return "127.0.0.1:" + std::to_string(port_);
}

std::vector<TestResolver::Received> TestResolver::received() const {
    std::lock_guard lock(mutex_);
    return received_;
}

std::size_t TestResolver::count() const {
    std::lock_guard lock(mutex_);
    return received_.size();
}

bool TestResolver::waitFor(std::size_t wanted, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return received_.size() >= wanted; });
}

void TestResolver::run() {
    std::array<std::uint8_t, 65536> buffer{};
    for (;;) {
        std::array<pollfd, 3> fds{
            {{udp_, POLLIN, 0}, {tcp_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}}};
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            continue;
        }
        if (fds[2].revents != 0) {
            return;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            sockaddr_storage from{};
            socklen_t fromLength = sizeof from;
            const ssize_t got = ::recvfrom(udp_, buffer.data(), buffer.size(), 0,
                                           reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (got > 0) {
                if (auto answer = respond(buffer.data(), static_cast<std::size_t>(got), false)) {
                    ::sendto(udp_, answer->data(), answer->size(), 0,
                             reinterpret_cast<sockaddr*>(&from), fromLength);
                }
            }
        }
        if ((fds[1].revents & POLLIN) != 0) {
            const int connection = ::accept4(tcp_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection >= 0) {
                std::array<std::uint8_t, 2> prefix{};
                while (readFully(connection, prefix.data(), 2, 5000)) {
                    const std::size_t length = get16(prefix.data());
                    if (!readFully(connection, buffer.data(), length, 5000)) {
                        break;
                    }
                    auto answer = respond(buffer.data(), length, true);
                    if (!answer) {
                        break;
                    }
                    std::vector<std::uint8_t> framed;
                    put16(framed, static_cast<std::uint16_t>(answer->size()));
                    framed.insert(framed.end(), answer->begin(), answer->end());
                    [[maybe_unused]] const auto sent =
                        ::send(connection, framed.data(), framed.size(), MSG_NOSIGNAL);
                }
                ::close(connection);
            }
        }
    }
}

std::optional<std::vector<std::uint8_t>> TestResolver::respond(const std::uint8_t* data,
                                                               std::size_t length, bool tcp) {
    dns::DNSMessageDecoder decoder;
    decoder.decodeMessageInBuffer(data, static_cast<std::uint32_t>(length));
    const auto& message = decoder.message();
    if (!message || !message->questions || message->questions->size() != 1) {
        return std::nullopt;
    }
    Received received;
    received.name = message->questions->front().name;
    received.type = message->questions->front().type;
    received.tcp = tcp;
    if (message->additionalRecords) {
        for (const auto& record : *message->additionalRecords) {
            if (record->type != 41) {
                continue;
            }
            received.hasOpt = true;
            received.udpSize = record->resourceClass;
            received.dnssecOk = (record->ttl & 0x8000) != 0;
            const auto& options = record->data;
            for (std::size_t at = 0; at + 4 <= options.size();) {
                const std::uint16_t code = get16(options.data() + at);
                const std::size_t size = get16(options.data() + at + 2);
                received.options[code] =
                    std::string(options.begin() + static_cast<std::ptrdiff_t>(at + 4),
                                options.begin() + static_cast<std::ptrdiff_t>(at + 4 + size));
                at += 4 + size;
            }
        }
    }
    {
        std::lock_guard lock(mutex_);
        received_.push_back(received);
    }
    changed_.notify_all();

    const Behaviour behaviour = behaviour_;
    if (behaviour == Behaviour::silent) {
        return std::nullopt;
    }
    // The question as it came: name from offset 12 up to its final zero, then type and class.
    std::size_t questionEnd = 12;
    while (questionEnd < length && data[questionEnd] != 0) {
        questionEnd += 1 + data[questionEnd];
    }
    questionEnd += 5;
    std::vector<std::uint8_t> out;
    put16(out, get16(data));
    std::uint16_t flags = static_cast<std::uint16_t>(0x8180 | (get16(data + 2) & 0x0100));
    std::uint16_t answers = 0;
    std::uint16_t authority = 0;
    switch (behaviour) {
        case Behaviour::servfail:
            flags |= 2;
            break;
        case Behaviour::refused:
            flags |= 5;
            break;
        case Behaviour::nxdomain:
            flags |= 3;
            authority = 1;
            break;
        case Behaviour::truncate:
            if (tcp) {
                answers = 1;
            } else {
                flags |= 0x0200;
            }
            break;
        case Behaviour::large:
            answers = 60;
            break;
        default:
            answers = 1;
    }
    put16(out, flags);
    put16(out, 1);
    put16(out, answers);
    put16(out, authority);
    put16(out, received.hasOpt ? 1 : 0);
    out.insert(out.end(), data + 12, data + questionEnd);
    in_addr address{};
    inet_pton(AF_INET, answerAddress_.c_str(), &address);
    for (std::uint16_t i = 0; i < answers; ++i) {
        put16(out, 0xC00C);
        put16(out, 1);
        put16(out, 1);
        put32(out, ttl_);
        put16(out, 4);
        const std::uint32_t value = ntohl(address.s_addr) + i;
        put32(out, value);
    }
    if (authority != 0) {
        put16(out, 0xC00C);
        put16(out, 6);
        put16(out, 1);
        put32(out, ttl_);
        put16(out, 3 + 3 + 20);
        out.push_back(1);  // "a." and "b."
        out.push_back('a');
        out.push_back(0);
        out.push_back(1);
        out.push_back('b');
        out.push_back(0);
        put32(out, 1);  // serial
        put32(out, 3600);
        put32(out, 600);
        put32(out, 86400);
        put32(out, soaMinimum_);
    }
    if (received.hasOpt) {
        out.push_back(0);
        put16(out, 41);
        put16(out, 1232);
        put32(out, 0);
        put16(out, 0);
    }
    return out;
}

std::vector<std::uint8_t> makeQuery(const std::string& name, std::uint16_t type, std::uint16_t id,
                                    bool edns, bool dnssecOk) {
    std::vector<std::uint8_t> out;
    put16(out, id);
    put16(out, 0x0100);
    put16(out, 1);
    put16(out, 0);
    put16(out, 0);
    put16(out, edns ? 1 : 0);
    std::size_t start = 0;
    while (start < name.size()) {
        auto dot = name.find('.', start);
        if (dot == std::string::npos) {
            dot = name.size();
        }
        out.push_back(static_cast<std::uint8_t>(dot - start));
        out.insert(out.end(), name.begin() + static_cast<std::ptrdiff_t>(start),
                   name.begin() + static_cast<std::ptrdiff_t>(dot));
        start = dot + 1;
    }
    out.push_back(0);
    put16(out, type);
    put16(out, 1);
    if (edns) {
        out.push_back(0);
        put16(out, 41);
        put16(out, 4096);
        put32(out, dnssecOk ? 0x8000 : 0);
        put16(out, 0);
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> askUdp(const std::string& address,
                                                const std::vector<std::uint8_t>& query,
                                                std::chrono::milliseconds timeout) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to = parseAddress(address);
    ::sendto(fd, query.data(), query.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    pollfd p{fd, POLLIN, 0};
    std::optional<std::vector<std::uint8_t>> result;
    if (::poll(&p, 1, static_cast<int>(timeout.count())) > 0) {
        std::vector<std::uint8_t> buffer(65536);
        const ssize_t got = ::recv(fd, buffer.data(), buffer.size(), 0);
        if (got >= 0) {
            buffer.resize(static_cast<std::size_t>(got));
            result = std::move(buffer);
        }
    }
    ::close(fd);
    return result;
}

std::vector<std::vector<std::uint8_t>> askTcp(const std::string& address,
                                              const std::vector<std::vector<std::uint8_t>>& queries,
                                              std::chrono::milliseconds timeout) {
    std::vector<std::vector<std::uint8_t>> answers;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to = parseAddress(address);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        ::close(fd);
        return answers;
    }
    std::vector<std::uint8_t> out;
    for (const auto& query : queries) {
        put16(out, static_cast<std::uint16_t>(query.size()));
        out.insert(out.end(), query.begin(), query.end());
    }
    [[maybe_unused]] const auto sent = ::send(fd, out.data(), out.size(), MSG_NOSIGNAL);
    for (std::size_t i = 0; i < queries.size(); ++i) {
        std::array<std::uint8_t, 2> prefix{};
        if (!readFully(fd, prefix.data(), 2, static_cast<int>(timeout.count()))) {
            break;
        }
        std::vector<std::uint8_t> answer(get16(prefix.data()));
        if (!readFully(fd, answer.data(), answer.size(), static_cast<int>(timeout.count()))) {
            break;
        }
        answers.push_back(std::move(answer));
    }
    ::close(fd);
    return answers;
}

}  // namespace morvane::provider::test
