#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QProcess>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dns/DNSResolver.h"
#include "support/MainLoop.h"
#include "support/NetworkNamespace.h"
#include "support/TestEnvironment.h"

namespace morvane::dns {
namespace {

using test::sh;

/// What the small responder answers.
enum class Reply { address, nxdomain, noAnswer, cnameFirst, shortData };

/// A DNS responder of the test's own on UDP port 53 of one loopback address, inside the
/// test's network namespace (the resolver library asks port 53 only).
class Responder {
public:
    Responder(const std::string& address, Reply reply) : reply_(reply) {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(53);
        inet_pton(AF_INET, address.c_str(), &local.sin_addr);
        bound_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
        if (bound_) {
            thread_ = std::thread([this] { serve(); });
        }
    }
    ~Responder() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    bool bound() const { return bound_; }
    std::vector<std::string> names() {
        std::lock_guard lock(mutex_);
        return names_;
    }

private:
    void serve() {
        while (!stop_) {
            pollfd entry{fd_, POLLIN, 0};
            if (poll(&entry, 1, 50) <= 0) {
                continue;
            }
            std::uint8_t query[512];
            sockaddr_in peer{};
            socklen_t peerLength = sizeof peer;
            const ssize_t length = recvfrom(fd_, query, sizeof query, 0,
                                            reinterpret_cast<sockaddr*>(&peer), &peerLength);
            if (length < 12) {
                continue;
            }
            // The question's name, read label by label, ends the question at its type and class.
            std::size_t at = 12;
            std::string name;
            while (at < static_cast<std::size_t>(length) && query[at] != 0) {
                const std::size_t label = query[at];
                name += (name.empty() ? "" : ".") +
                        std::string(reinterpret_cast<const char*>(query + at + 1), label);
                at += label + 1;
            }
            const std::size_t questionEnd = at + 5;
            {
                std::lock_guard lock(mutex_);
                names_.push_back(name);
            }
            if (questionEnd > static_cast<std::size_t>(length)) {
                continue;
            }
            // The query's header becomes the response's, and the question follows it.
            query[2] = 0x81;  // a response, recursion desired
            query[3] = reply_ == Reply::nxdomain ? 0x83 : 0x80;
            std::memset(query + 6, 0, 6);
            std::vector<std::uint8_t> answer(query, query + questionEnd);
            std::uint8_t answerCount = 0;
            auto record = [&](std::uint16_t type, const std::vector<std::uint8_t>& data) {
                ++answerCount;
                const std::uint8_t head[] = {0xc0, 0x0c, 0, static_cast<std::uint8_t>(type),
                                             0,    1,    0, 0,
                                             0,    60,   0, static_cast<std::uint8_t>(data.size())};
                answer.insert(answer.end(), std::begin(head), std::end(head));
                answer.insert(answer.end(), data.begin(), data.end());
            };
            switch (reply_) {
                case Reply::address:
                    record(1, {203, 0, 113, 7});
                    break;
                case Reply::cnameFirst:
                    // "edge.example." as the target: its first four bytes print as 4.101.100.103.
                    record(5, {4, 'e', 'd', 'g', 'e', 7, 'e', 'x', 'a', 'm', 'p', 'l', 'e', 0});
                    record(1, {203, 0, 113, 9});
                    break;
                case Reply::shortData:
                    record(1, {203, 0});
                    break;
                case Reply::nxdomain:
                case Reply::noAnswer:
                    break;
            }
            answer.at(7) = answerCount;
            sendto(fd_, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&peer),
                   peerLength);
        }
    }

    Reply reply_;
    int fd_ = -1;
    bool bound_ = false;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex mutex_;
    std::vector<std::string> names_;
};

std::vector<std::string> systemLog;
void recordLine(const std::string& line) {
    systemLog.push_back(line);
}

bool logged(const std::string& line) {
    return std::find(systemLog.begin(), systemLog.end(), line) != systemLog.end();
}

/// Every case runs in a network and mount namespace of its own, with a resolv.conf of the
/// test's naming 127.0.0.4 and ::1 as the system's servers.
class DNSResolverInNamespace : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto reason = test::enterPrivateNetwork()) {
            GTEST_SKIP() << *reason;
        }
        test::writeFile(folder_.path() / "resolv.conf",
                        "nameserver 127.0.0.4\nnameserver ::1\noptions timeout:1 attempts:1\n");
        ASSERT_TRUE(test::bindResolvConf((folder_.path() / "resolv.conf").string()));
        systemLog.clear();
        DNSResolver::setSystemLog(recordLine);
    }
    void TearDown() override { DNSResolver::setSystemLog(nullptr); }

    test::TempDir folder_;
};

TEST_F(DNSResolverInNamespace, FirstNonEmptyResolverIsAskedAndItsAnswerRead) {
    Responder first("127.0.0.2", Reply::address);
    Responder second("127.0.0.3", Reply::address);
    Responder system("127.0.0.4", Reply::address);
    ASSERT_TRUE(first.bound() && second.bound() && system.bound());

    EXPECT_EQ(DNSResolver::resolveDNSUsingMorvane({"", "127.0.0.2", "127.0.0.3"}), "203.0.113.7");
    EXPECT_EQ(first.names(), std::vector<std::string>{"-.-"});
    EXPECT_TRUE(second.names().empty());
    EXPECT_TRUE(system.names().empty());
    EXPECT_TRUE(logged("External ip from ns_parserr:  203.0.113.7"));

    // Only empty entries: the system's servers are asked.
    EXPECT_EQ(DNSResolver::getIPAddressFromResolvers({"", ""}, "host.test"), "203.0.113.7");
    EXPECT_EQ(system.names(), std::vector<std::string>{"host.test"});
}

TEST_F(DNSResolverInNamespace, FailuresGiveTheEmptyText) {
    EXPECT_EQ(DNSResolver::resolveDNSUsingMorvane({}), "");
    EXPECT_TRUE(logged("Resolve with empty resolvers"));
    EXPECT_FALSE(logged("Empty IP Address"));

    {
        Responder nx("127.0.0.2", Reply::nxdomain);
        ASSERT_TRUE(nx.bound());
        systemLog.clear();
        EXPECT_EQ(DNSResolver::resolveDNSUsingMorvane({"127.0.0.2"}), "");
        EXPECT_TRUE(logged("Empty IP Address"));
        EXPECT_EQ(nx.names().size(), 1u) << "the library's retries are off in this resolv.conf";
    }
    {
        Responder empty("127.0.0.2", Reply::noAnswer);
        ASSERT_TRUE(empty.bound());
        EXPECT_EQ(DNSResolver::resolveDNSUsingMorvane({"127.0.0.2"}), "");
    }
    {
        Responder shortData("127.0.0.2", Reply::shortData);
        ASSERT_TRUE(shortData.bound());
        EXPECT_EQ(DNSResolver::resolveDNSUsingMorvane({"127.0.0.2"}), "");
    }
    // Nobody answers: the library's time-out, then the empty text.
    systemLog.clear();
    EXPECT_EQ(DNSResolver::resolveDNSUsingMorvane({"127.0.0.9"}), "");
    EXPECT_TRUE(logged("Empty IP Address"));
    // A resolver that is no IPv4 address is not asked, nor is anyone else.
    Responder system("127.0.0.4", Reply::address);
    ASSERT_TRUE(system.bound());
    EXPECT_EQ(DNSResolver::resolveDNSUsingMorvane({"resolver.example"}), "");
    EXPECT_TRUE(system.names().empty());
}

TEST_F(DNSResolverInNamespace, NonAddressFirstRecordStillPrintsItsFirstFourBytes) {
    Responder cname("127.0.0.2", Reply::cnameFirst);
    ASSERT_TRUE(cname.bound());
    EXPECT_EQ(DNSResolver::resolveDNSUsingMorvane({"127.0.0.2"}), "4.101.100.103");
}

TEST_F(DNSResolverInNamespace, ServerListIsTheStateOfTheNewestInstance) {
    auto resolver = DNSResolver::create();
    ASSERT_NE(resolver, nullptr);
    EXPECT_EQ(resolver->getDNSAddresses(), (std::vector<std::string>{"127.0.0.4", "::1"}));

    test::writeFile(folder_.path() / "other.conf", "nameserver 127.0.0.6\n");
    ASSERT_TRUE(
        sh("mount --bind " + (folder_.path() / "other.conf").string() + " /etc/resolv.conf"));
    // The state was taken when the instance was made, not now.
    EXPECT_EQ(resolver->getDNSAddresses(), (std::vector<std::string>{"127.0.0.4", "::1"}));
    auto newer = DNSResolver::create();
    ASSERT_NE(newer, nullptr);
    EXPECT_EQ(resolver->getDNSAddresses(), std::vector<std::string>{"127.0.0.6"});
    EXPECT_EQ(newer->getDNSAddresses(), std::vector<std::string>{"127.0.0.6"});
}

TEST_F(DNSResolverInNamespace, ExternalAddressFromTheDevelopmentResolver) {
    // The development filtering resolver of tools/devserver, on port 53 of an address of the
    // namespace's loopback, answers "-.-" with the address the query came from.
    QProcess devserver;
    devserver.setProgram("python3");
    devserver.setArguments(
        {QString::fromStdString((test::sourceDir() / "tools/devserver/devserver").string()),
         "--port", "0", "--dns-port", "53", "--dns-address", "127.0.0.5", "--watch-stdin"});
    devserver.start();
    ASSERT_TRUE(devserver.waitForStarted(30000));
    ASSERT_TRUE(test::runMainLoopUntil([&] { return devserver.canReadLine(); }))
        << devserver.readAllStandardError().toStdString();
    ASSERT_TRUE(devserver.readLine().startsWith("LISTENING "));

    // A query over loopback leaves from the loopback's own address.
    EXPECT_EQ(DNSResolver::resolveDNSUsingMorvane({"", "127.0.0.5"}), "127.0.0.1");
    devserver.closeWriteChannel();
    devserver.waitForFinished(30000);
}

TEST(DNSResolverLimiter, FourCallsAnHourFromConstructionOn) {
    auto resolver = DNSResolver::create();
    ASSERT_NE(resolver, nullptr);
    EXPECT_TRUE(resolver->shouldCallExternalIP(3));
    EXPECT_FALSE(resolver->shouldCallExternalIP(4));
    EXPECT_TRUE(resolver->shouldResolveNow());
    EXPECT_TRUE(resolver->shouldResolveNow());
    EXPECT_TRUE(resolver->shouldResolveNow());
    EXPECT_FALSE(resolver->shouldResolveNow());
    EXPECT_EQ(resolver->callCount, 4);
    // An hour later the window opens again: the count starts over.
    resolver->lastCallDate = std::chrono::system_clock::now() - std::chrono::seconds(3601);
    EXPECT_TRUE(resolver->shouldResolveNow());
    EXPECT_EQ(resolver->callCount, 0);
    // A date in the future counts by its distance too.
    resolver->lastCallDate = std::chrono::system_clock::now() + std::chrono::seconds(3700);
    EXPECT_TRUE(resolver->shouldResolveNow());
    EXPECT_EQ(resolver->callCount, 0);
}

/// A one-shot HTTP server on loopback that answers with the given body.
class EchoServer {
public:
    explicit EchoServer(std::string reply) : reply_(std::move(reply)) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof local;
        bind(fd_, reinterpret_cast<sockaddr*>(&local), length);
        listen(fd_, 4);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length);
        port_ = ntohs(local.sin_port);
        thread_ = std::thread([this] {
            const int client = accept(fd_, nullptr, nullptr);
            if (client < 0) {
                return;
            }
            char buffer[2048];
            std::string request;
            while (request.find("\r\n\r\n") == std::string::npos) {
                const ssize_t count = recv(client, buffer, sizeof buffer, 0);
                if (count <= 0) {
                    break;
                }
                request.append(buffer, static_cast<std::size_t>(count));
            }
            request_ = request;
            send(client, reply_.data(), reply_.size(), MSG_NOSIGNAL);
            close(client);
        });
    }
    ~EchoServer() {
        shutdown(fd_, SHUT_RDWR);
        thread_.join();
        close(fd_);
    }
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string request_;

private:
    std::string reply_;
    int fd_ = -1;
    int port_ = 0;
    std::thread thread_;
};

TEST(DNSResolverEcho, AddressFromTheConfiguredEchoHost) {
    DNSResolver::setEchoHost("");
    EXPECT_EQ(DNSResolver::pingNonMorvaneResolver({"x"}), "") << "no echo host configured";
    {
        EchoServer echo("HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\n \t198.51.100.4\n\t ");
        DNSResolver::setEchoHost(echo.host());
        EXPECT_EQ(DNSResolver::pingNonMorvaneResolver({}), "") << "an empty list asks nobody";
        EXPECT_EQ(DNSResolver::pingNonMorvaneResolver({"x"}), "198.51.100.4\n");
        EXPECT_NE(echo.request_.find("GET / HTTP/1.0\r\n"), std::string::npos);
        EXPECT_NE(echo.request_.find("Content-Type: application/json\r\n"), std::string::npos);
    }
    {
        EchoServer failing("HTTP/1.0 503 Service Unavailable\r\n\r\n198.51.100.4");
        DNSResolver::setEchoHost(failing.host());
        EXPECT_EQ(DNSResolver::pingNonMorvaneResolver({"x"}), "");
    }
    DNSResolver::setEchoHost("");
}

}  // namespace
}  // namespace morvane::dns
