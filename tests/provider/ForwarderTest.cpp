// The forwarder on real loopback sockets, with three small resolvers of the test's own
// playing the default resolver, a corporate one and the network's own.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "TestResolver.h"
#include "dns/DNSMessageDecoder.h"
#include "provider/Forwarder.h"

namespace morvane::provider {
namespace {

using namespace std::chrono_literals;
using test::askTcp;
using test::askUdp;
using test::makeQuery;
using test::TestResolver;
using Behaviour = TestResolver::Behaviour;

constexpr std::uint16_t kA = 1;
constexpr std::uint16_t kPtr = 12;

struct Reply {
    std::uint16_t id = 0;
    std::uint8_t rcode = 0;
    bool truncated = false;
    std::string question;
    std::vector<std::string> addresses;
    std::uint32_t ttl = 0;
    bool hasOpt = false;
};

std::optional<Reply> readReply(const std::vector<std::uint8_t>& bytes) {
    dns::DNSMessageDecoder decoder;
    decoder.decodeMessageInBuffer(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    const auto& message = decoder.message();
    if (!message) {
        return std::nullopt;
    }
    Reply reply;
    reply.id = message->header.id;
    reply.rcode = message->header.responseCode;
    reply.truncated = message->header.truncated;
    if (message->questions && !message->questions->empty()) {
        reply.question = message->questions->front().name;
    }
    if (message->answers) {
        for (const auto& record : *message->answers) {
            if (record->type == kA && record->data.size() == 4) {
                char text[INET_ADDRSTRLEN] = {};
                inet_ntop(AF_INET, record->data.data(), text, sizeof text);
                reply.addresses.emplace_back(text);
                reply.ttl = record->ttl;
            }
        }
    }
    if (message->additionalRecords) {
        for (const auto& record : *message->additionalRecords) {
            reply.hasOpt = reply.hasOpt || record->type == 41;
        }
    }
    return reply;
}

PolicyRule rule(std::optional<std::string> domain, std::optional<std::string> network,
                std::vector<std::string> resolvers) {
    return PolicyRule{std::move(domain), std::move(network), std::move(resolvers)};
}

class ForwarderTest : public ::testing::Test {
protected:
    TestResolver defaults{"10.0.0.1"};
    TestResolver corporate{"10.0.0.2"};
    TestResolver network{"10.0.0.3"};
    std::atomic<std::int64_t> clockOffset{0};  // seconds the test has moved the clock on
    std::unique_ptr<Forwarder> forwarder;
    std::mutex logMutex;
    std::vector<std::string> logLines;

    ForwarderOptions options() {
        ForwarderOptions o;
        o.raceDelay = 100ms;
        o.queryTimeout = 3s;
        o.clock = [this] {
            return std::chrono::steady_clock::now() + std::chrono::seconds(clockOffset.load());
        };
        o.log = [this](const std::string& line) {
            std::lock_guard lock(logMutex);
            logLines.push_back(line);
        };
        return o;
    }

    Policy standardPolicy() {
        Policy policy;
        policy.rules = {rule(std::nullopt, std::nullopt, {defaults.address()}),
                        rule("corp.example", std::nullopt, {corporate.address()}),
                        rule(std::nullopt, "10.0.0.0/8", {corporate.address()}),
                        rule("lan", std::nullopt, {})};
        policy.locationTag = "office-7";
        policy.uuid = "5B1F0C1E-2D3A-4B5C-8D9E-0F1A2B3C4D5E";
        return policy;
    }

    void start(const Policy& policy, ForwarderOptions o) {
        forwarder = std::make_unique<Forwarder>(std::move(o));
        forwarder->setPolicy(policy);
        std::string error;
        ASSERT_TRUE(forwarder->start("127.0.0.1:0", error)) << error;
    }
    void start(const Policy& policy) { start(policy, options()); }

    std::optional<Reply> ask(const std::string& name, std::uint16_t type = kA, bool edns = false,
                             std::uint16_t id = 0x1234) {
        const auto bytes = askUdp(forwarder->listeningAddress(), makeQuery(name, type, id, edns));
        if (!bytes) {
            return std::nullopt;
        }
        return readReply(*bytes);
    }
    std::string answerOf(const std::string& name, std::uint16_t type = kA) {
        const auto reply = ask(name, type);
        if (!reply || reply->addresses.empty()) {
            return reply ? "rcode " + std::to_string(reply->rcode) : "no reply";
        }
        return reply->addresses.front();
    }
};

// ---- routing -----------------------------------------------------------------------------

TEST_F(ForwarderTest, DomainRulesMatchAtLabelBoundariesInAnyCase) {
    start(standardPolicy());
    EXPECT_EQ(answerOf("corp.example"), "10.0.0.2");
    EXPECT_EQ(answerOf("Host.CORP.Example"), "10.0.0.2");
    EXPECT_EQ(answerOf("notcorp.example"), "10.0.0.1");  // a suffix, but not at a label boundary
    EXPECT_EQ(answerOf("example"), "10.0.0.1");
    EXPECT_EQ(corporate.count(), 2u);
    EXPECT_EQ(defaults.count(), 2u);
}

TEST_F(ForwarderTest, TheMostSpecificDomainWins) {
    Policy policy = standardPolicy();
    policy.rules.push_back(rule("eu.corp.example", std::nullopt, {network.address()}));
    start(policy);
    EXPECT_EQ(answerOf("db.eu.corp.example"), "10.0.0.3");
    EXPECT_EQ(answerOf("db.us.corp.example"), "10.0.0.2");
    EXPECT_EQ(answerOf("eu.corp.example"), "10.0.0.3");
}

TEST_F(ForwarderTest, ReverseQueriesFollowTheRuleNetwork) {
    Policy policy = standardPolicy();
    policy.rules.push_back(rule(std::nullopt, "192.168.1.10-192.168.1.20", {network.address()}));
    start(policy);
    EXPECT_EQ(ask("4.3.2.10.in-addr.arpa", kPtr)->rcode, 0);
    EXPECT_EQ(corporate.count(), 1u);
    EXPECT_EQ(corporate.received().back().name, "4.3.2.10.in-addr.arpa");
    // The zone of 10.2.0.0/16 lies inside 10.0.0.0/8 too.
    ask("2.10.in-addr.arpa", 6);
    EXPECT_EQ(corporate.count(), 2u);
    // Outside the network: the default resolvers.
    ask("4.3.2.11.in-addr.arpa", kPtr);
    EXPECT_EQ(defaults.count(), 1u);
    // A range: inside, its last address, and the next one.
    ask("15.1.168.192.in-addr.arpa", kPtr);
    ask("20.1.168.192.in-addr.arpa", kPtr);
    EXPECT_EQ(network.count(), 2u);
    ask("21.1.168.192.in-addr.arpa", kPtr);
    EXPECT_EQ(network.count(), 2u);
    EXPECT_EQ(defaults.count(), 2u);
    // Not an address at all: default.
    ask("x.1.168.192.in-addr.arpa", kPtr);
    EXPECT_EQ(defaults.count(), 3u);
}

TEST_F(ForwarderTest, ARuleWithoutResolversUsesTheNetworksOwnServersNeverItself) {
    start(standardPolicy());
    // No network servers known: nowhere to send it.
    EXPECT_EQ(ask("printer.lan")->rcode, 2);
    // Its own address and the local stub would loop back here: they are left out.
    forwarder->setNetworkServers({forwarder->listeningAddress(), "127.0.0.53", network.address()});
    EXPECT_EQ(answerOf("printer.lan"), "10.0.0.3");
    EXPECT_EQ(network.count(), 1u);
    EXPECT_EQ(defaults.count(), 0u);
    forwarder->setNetworkServers({forwarder->listeningAddress()});
    forwarder->flush();
    EXPECT_EQ(ask("printer.lan")->rcode, 2);
}

TEST_F(ForwarderTest, DefaultResolversComeFromRulesWithoutDomainOrNetworkElseTheServerAddress) {
    Policy policy;
    policy.rules = {rule("corp.example", std::nullopt, {corporate.address()})};
    policy.serverAddress = network.address();
    start(policy);
    EXPECT_EQ(answerOf("www.example.com"), "10.0.0.3");

    // With a rule of its own, the server address is not used.
    policy.rules.push_back(rule(std::nullopt, std::nullopt, {defaults.address()}));
    forwarder->setPolicy(policy);
    EXPECT_EQ(answerOf("www.example.com"), "10.0.0.1");

    // Neither: nothing to ask.
    forwarder->setPolicy(Policy{});
    EXPECT_EQ(ask("www.example.org")->rcode, 2);
}

TEST_F(ForwarderTest, OnlyTheDefaultResolversLearnTheDevicesIdentity) {
    start(standardPolicy());
    ask("www.example.com", kA, true);
    ask("intranet.corp.example");
    ASSERT_EQ(defaults.count(), 1u);
    ASSERT_EQ(corporate.count(), 1u);
    const auto toDefault = defaults.received().front();
    EXPECT_TRUE(toDefault.hasOpt);
    EXPECT_EQ(toDefault.udpSize, 1232);
    EXPECT_EQ(toDefault.options.at(65073), "office-7");
    EXPECT_EQ(toDefault.options.at(65074), "5B1F0C1E-2D3A-4B5C-8D9E-0F1A2B3C4D5E");
    const auto toCorporate = corporate.received().front();
    EXPECT_TRUE(toCorporate.hasOpt);
    EXPECT_EQ(toCorporate.udpSize, 1232);
    EXPECT_TRUE(toCorporate.options.empty());
}

// ---- upstream behaviour ------------------------------------------------------------------

TEST_F(ForwarderTest, ATruncatedAnswerIsAskedAgainOverTcp) {
    defaults.setBehaviour(Behaviour::truncate);
    start(standardPolicy());
    const auto reply = ask("big.example.com");
    ASSERT_TRUE(reply);
    EXPECT_FALSE(reply->truncated);
    ASSERT_EQ(reply->addresses.size(), 1u);
    const auto received = defaults.received();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_FALSE(received[0].tcp);
    EXPECT_TRUE(received[1].tcp);
    EXPECT_EQ(forwarder->stats().tcpRetries, 1u);
}

TEST_F(ForwarderTest, AnAnswerTooBigForTheClientIsTruncatedSoItAsksOverTcp) {
    defaults.setBehaviour(Behaviour::large);
    start(standardPolicy());
    const auto overUdp = ask("many.example.com");
    ASSERT_TRUE(overUdp);
    EXPECT_TRUE(overUdp->truncated);
    EXPECT_TRUE(overUdp->addresses.empty());
    EXPECT_EQ(overUdp->question, "many.example.com");
    // With EDNS the client's buffer holds it.
    const auto withEdns = ask("many.example.com", kA, true);
    ASSERT_TRUE(withEdns);
    EXPECT_FALSE(withEdns->truncated);
    EXPECT_EQ(withEdns->addresses.size(), 60u);
    EXPECT_TRUE(withEdns->hasOpt);
    // Over TCP, two queries on one connection, both answered in full (from the cache).
    const auto overTcp =
        askTcp(forwarder->listeningAddress(),
               {makeQuery("many.example.com", kA, 1), makeQuery("many.example.com", kA, 2)});
    ASSERT_EQ(overTcp.size(), 2u);
    for (const auto& bytes : overTcp) {
        const auto reply = readReply(bytes);
        ASSERT_TRUE(reply);
        EXPECT_FALSE(reply->truncated);
        EXPECT_EQ(reply->addresses.size(), 60u);
        EXPECT_FALSE(reply->hasOpt);  // the client did not use EDNS
    }
}

TEST_F(ForwarderTest, ASilentResolverIsRacedByTheNextOne) {
    corporate.setBehaviour(Behaviour::silent);
    Policy policy;
    policy.rules = {rule(std::nullopt, std::nullopt, {corporate.address(), defaults.address()})};
    start(policy);
    EXPECT_EQ(answerOf("www.example.com"), "10.0.0.1");
    EXPECT_EQ(corporate.count(), 1u);
    EXPECT_EQ(defaults.count(), 1u);
}

TEST_F(ForwarderTest, ServfailAndRefusedMoveOnToTheNextResolver) {
    corporate.setBehaviour(Behaviour::servfail);
    network.setBehaviour(Behaviour::refused);
    Policy policy;
    policy.rules = {rule(std::nullopt, std::nullopt,
                         {corporate.address(), network.address(), defaults.address()})};
    ForwarderOptions o = options();
    o.raceDelay = 60s;  // no racing: each step must come from the failure itself
    start(policy, o);
    EXPECT_EQ(answerOf("www.example.com"), "10.0.0.1");
    EXPECT_EQ(corporate.count(), 1u);
    EXPECT_EQ(network.count(), 1u);
}

TEST_F(ForwarderTest, AResolverThatIsNotThereIsLeftAtOnce) {
    // A port nobody listens on: the kernel answers the query with "port unreachable".
    std::string closed;
    {
        TestResolver gone("10.9.9.9");
        closed = gone.address();
    }
    Policy policy;
    policy.rules = {rule(std::nullopt, std::nullopt, {closed, defaults.address()})};
    ForwarderOptions o = options();
    o.raceDelay = 60s;  // only the refusal can move the query on in time
    o.queryTimeout = 120s;
    start(policy, o);
    EXPECT_EQ(answerOf("www.example.com"), "10.0.0.1");
}

TEST_F(ForwarderTest, WhenEveryResolverFailsTheClientGetsServfail) {
    corporate.setBehaviour(Behaviour::servfail);
    network.setBehaviour(Behaviour::refused);
    Policy policy;
    policy.rules = {rule(std::nullopt, std::nullopt, {corporate.address(), network.address()})};
    start(policy);
    const auto reply = ask("www.example.com");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->rcode, 2);
    EXPECT_EQ(reply->id, 0x1234);
    EXPECT_EQ(reply->question, "www.example.com");
    EXPECT_EQ(forwarder->stats().servfails, 1u);
    // A failure is not kept: once a resolver answers, so does the forwarder.
    network.setBehaviour(Behaviour::answer);
    EXPECT_EQ(answerOf("www.example.com"), "10.0.0.3");
}

TEST_F(ForwarderTest, SilentResolversTimeOutToServfailAndReportLostUpstreams) {
    defaults.setBehaviour(Behaviour::silent);
    corporate.setBehaviour(Behaviour::silent);
    Policy policy;
    policy.rules = {rule(std::nullopt, std::nullopt, {defaults.address(), corporate.address()})};
    ForwarderOptions o = options();
    o.raceDelay = 50ms;
    o.queryTimeout = 300ms;
    o.upstreamsLostAfter = 0s;
    start(policy, o);
    std::mutex mutex;
    std::condition_variable reported;
    std::vector<std::string> reasons;
    forwarder->setUpstreamsLostHandler([&](const std::string& reason) {
        std::lock_guard lock(mutex);
        reasons.push_back(reason);
        reported.notify_all();
    });
    const auto reply = ask("www.example.com");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->rcode, 2);
    EXPECT_EQ(defaults.count(), 1u);
    EXPECT_EQ(corporate.count(), 1u);
    std::unique_lock lock(mutex);
    ASSERT_TRUE(reported.wait_for(lock, 10s, [&] { return !reasons.empty(); }));
    EXPECT_NE(reasons.front().find("No DNS resolver has answered"), std::string::npos);
    lock.unlock();
    // Reported once, not for every failed query.
    ask("www.example.org");
    lock.lock();
    EXPECT_EQ(reasons.size(), 1u);
}

// ---- cache -------------------------------------------------------------------------------

TEST_F(ForwarderTest, AnswersAreCachedForTheirTtlWithTheTtlCountingDown) {
    defaults.setTtl(300);
    start(standardPolicy());
    EXPECT_EQ(ask("www.example.com")->ttl, 300u);
    clockOffset = 100;
    const auto cached = ask("WWW.example.COM", kA, false, 0x4321);
    ASSERT_TRUE(cached);
    EXPECT_EQ(cached->ttl, 200u);
    EXPECT_EQ(cached->id, 0x4321);
    EXPECT_EQ(cached->question, "WWW.example.COM");  // the client's letters, not the first asker's
    EXPECT_EQ(defaults.count(), 1u);
    EXPECT_EQ(forwarder->stats().cacheHits, 1u);
    clockOffset = 301;
    EXPECT_EQ(ask("www.example.com")->ttl, 300u);
    EXPECT_EQ(defaults.count(), 2u);
}

TEST_F(ForwarderTest, NegativeAnswersAreCachedForTheSoaMinimum) {
    defaults.setBehaviour(Behaviour::nxdomain);
    defaults.setTtl(3600);
    defaults.setSoaMinimum(60);
    start(standardPolicy());
    EXPECT_EQ(ask("nope.example.com")->rcode, 3);
    clockOffset = 59;
    EXPECT_EQ(ask("nope.example.com")->rcode, 3);
    EXPECT_EQ(defaults.count(), 1u);
    clockOffset = 61;
    EXPECT_EQ(ask("nope.example.com")->rcode, 3);
    EXPECT_EQ(defaults.count(), 2u);
}

TEST_F(ForwarderTest, FlushAndAPolicyChangeEmptyTheCache) {
    start(standardPolicy());
    ask("www.example.com");
    ask("www.example.com");
    EXPECT_EQ(defaults.count(), 1u);
    forwarder->flush();
    ask("www.example.com");
    EXPECT_EQ(defaults.count(), 2u);
    // The same policy again is no change: the answer stays.
    forwarder->setPolicy(standardPolicy());
    ask("www.example.com");
    EXPECT_EQ(defaults.count(), 2u);
    Policy changed = standardPolicy();
    changed.locationTag = "office-8";
    forwarder->setPolicy(changed);
    ask("www.example.com");
    EXPECT_EQ(defaults.count(), 3u);
    EXPECT_EQ(defaults.received().back().options.at(65073), "office-8");
    EXPECT_EQ(forwarder->stats().cacheEntries, 1u);
}

// ---- malformed queries --------------------------------------------------------------------

TEST_F(ForwarderTest, MalformedQueriesGetFormerrAndTheForwarderGoesOn) {
    start(standardPolicy());
    const std::string address = forwarder->listeningAddress();
    const auto formerr = [&](std::vector<std::uint8_t> bytes) {
        const auto answer = askUdp(address, bytes);
        if (!answer) {
            return std::string("no reply");
        }
        const auto reply = readReply(*answer);
        return reply ? std::to_string(reply->rcode) : std::string("unreadable");
    };
    auto twoQuestions = makeQuery("a.example", kA, 7);
    twoQuestions[5] = 2;
    EXPECT_EQ(formerr(twoQuestions), "1");
    auto cutShort = makeQuery("a.example", kA, 7);
    cutShort.resize(cutShort.size() - 3);
    EXPECT_EQ(formerr(cutShort), "1");
    auto pointer = makeQuery("a.example", kA, 7);
    pointer[12] = 0xC0;
    pointer[13] = 0x0C;
    EXPECT_EQ(formerr(pointer), "1");
    // 5 labels of 63 bytes: 320 bytes of name, over the 255 a name may have.
    std::string longName;
    for (int i = 0; i < 5; ++i) {
        longName += std::string(63, 'a') + ".";
    }
    longName += "example";
    EXPECT_EQ(formerr(makeQuery(longName, kA, 7)), "1");
    // An opcode other than QUERY: not implemented. EDNS version 1: BADVERS (in the OPT).
    auto status = makeQuery("a.example", kA, 7);
    status[2] |= 0x10;
    EXPECT_EQ(formerr(status), "4");
    auto version = makeQuery("a.example", kA, 7, true);
    version[version.size() - 5] = 1;
    EXPECT_EQ(formerr(version), "0");
    // Too short to answer, or a response: dropped.
    EXPECT_FALSE(askUdp(address, {1, 2, 3}, 300ms));
    auto response = makeQuery("a.example", kA, 7);
    response[2] |= 0x80;
    EXPECT_FALSE(askUdp(address, response, 300ms));
    // Nothing of it reached a resolver, and real queries still work.
    EXPECT_EQ(defaults.count(), 0u);
    EXPECT_EQ(answerOf("www.example.com"), "10.0.0.1");
    EXPECT_EQ(forwarder->stats().formerrs, 4u);
}

// ---- listening ---------------------------------------------------------------------------

TEST_F(ForwarderTest, ABusyAddressOrABadTextIsAClearError) {
    start(standardPolicy());
    Forwarder second(options());
    std::string error;
    EXPECT_FALSE(second.start(forwarder->listeningAddress(), error));
    EXPECT_NE(error.find("already in use"), std::string::npos) << error;
    EXPECT_FALSE(second.running());
    EXPECT_FALSE(second.start("127.0.0.1:99999", error));
    EXPECT_NE(error.find("is not an address and port"), std::string::npos) << error;
    EXPECT_FALSE(forwarder->start("127.0.0.1:0", error));
    EXPECT_NE(error.find("already listening"), std::string::npos) << error;
}

TEST_F(ForwarderTest, ListensOnIpv6Too) {
    Forwarder v6(options());
    v6.setPolicy(standardPolicy());
    std::string error;
    if (!v6.start("[::1]:0", error)) {
        GTEST_SKIP() << "no IPv6 loopback here: " << error;
    }
    const std::string address = v6.listeningAddress();
    EXPECT_EQ(address.rfind("[::1]:", 0), 0u) << address;
    // Asked over TCP through the v6 address, answered by the v4 default resolver.
    const int port = std::stoi(address.substr(address.rfind(':') + 1));
    const int fd = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(static_cast<std::uint16_t>(port));
    to.sin6_addr = in6addr_loopback;
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    auto query = makeQuery("www.example.com", kA, 9);
    std::vector<std::uint8_t> framed = {0, static_cast<std::uint8_t>(query.size())};
    framed.insert(framed.end(), query.begin(), query.end());
    ASSERT_EQ(::send(fd, framed.data(), framed.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(framed.size()));
    std::vector<std::uint8_t> answer(2048);
    std::size_t got = 0;
    while (got < 2 || got < 2u + (answer[0] << 8 | answer[1])) {
        pollfd p{fd, POLLIN, 0};
        ASSERT_GT(::poll(&p, 1, 10000), 0);
        const ssize_t n = ::read(fd, answer.data() + got, answer.size() - got);
        ASSERT_GT(n, 0);
        got += static_cast<std::size_t>(n);
    }
    ::close(fd);
    answer.erase(answer.begin(), answer.begin() + 2);
    answer.resize(got - 2);
    const auto reply = readReply(answer);
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->addresses.size(), 1u);
    EXPECT_EQ(reply->addresses.front(), "10.0.0.1");
}

TEST_F(ForwarderTest, StopsAndStartsAgainWithItsPolicy) {
    start(standardPolicy());
    EXPECT_EQ(answerOf("www.example.com"), "10.0.0.1");
    forwarder->stop();
    EXPECT_FALSE(forwarder->running());
    EXPECT_EQ(forwarder->listeningAddress(), "");
    std::string error;
    ASSERT_TRUE(forwarder->start("127.0.0.1:0", error)) << error;
    EXPECT_EQ(answerOf("x.corp.example"), "10.0.0.2");
}

}  // namespace
}  // namespace morvane::provider
