// The forwarder's wire helpers on their own: what they accept, what they refuse, and the
// edges of names, addresses, networks and the cache.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "TestResolver.h"
#include "provider/AnswerCache.h"
#include "provider/AnswerReader.h"
#include "provider/Endpoint.h"
#include "provider/MessageWriter.h"
#include "provider/QueryReader.h"
#include "provider/Router.h"

namespace morvane::provider {
namespace {

using namespace std::chrono_literals;

ClientQuery read(const std::string& name, std::uint16_t type = 1) {
    const auto bytes = test::makeQuery(name, type, 1);
    ClientQuery query;
    EXPECT_EQ(readClientQuery(bytes.data(), bytes.size(), query), QueryVerdict::ok) << name;
    return query;
}

TEST(QueryReader, NamesMayHave255BytesAndNoMore) {
    // 3 labels of 63, one of 61: 4 + 189 + 61 + the final zero = 255.
    const std::string label63(63, 'a');
    const std::string longest =
        label63 + "." + label63 + "." + label63 + "." + std::string(61, 'b');
    EXPECT_EQ(read(longest).nameLength, 255);
    const auto tooLong = test::makeQuery(longest + "b", 1, 1);
    ClientQuery query;
    EXPECT_EQ(readClientQuery(tooLong.data(), tooLong.size(), query), QueryVerdict::formatError);
}

TEST(QueryReader, ReadsEdnsAndRefusesASecondOpt) {
    auto bytes = test::makeQuery("example.com", 1, 1, true, true);
    ClientQuery query;
    ASSERT_EQ(readClientQuery(bytes.data(), bytes.size(), query), QueryVerdict::ok);
    EXPECT_TRUE(query.edns);
    EXPECT_TRUE(query.dnssecOk);
    EXPECT_EQ(query.ednsUdpSize, 4096);
    // The same OPT twice.
    const std::vector<std::uint8_t> opt(bytes.end() - 11, bytes.end());
    bytes.insert(bytes.end(), opt.begin(), opt.end());
    bytes[11] = 2;
    EXPECT_EQ(readClientQuery(bytes.data(), bytes.size(), query), QueryVerdict::formatError);
}

TEST(Endpoint, ReadsAddressesWithAndWithoutPorts) {
    EXPECT_EQ(Endpoint::parse("9.9.9.9", 53)->text, "9.9.9.9:53");
    EXPECT_EQ(Endpoint::parse(" 127.0.0.1:5353 ", 53)->text, "127.0.0.1:5353");
    EXPECT_EQ(Endpoint::parse("2620:fe::fe", 53)->text, "[2620:fe::fe]:53");
    EXPECT_EQ(Endpoint::parse("[::1]:5300", 53)->text, "[::1]:5300");
    EXPECT_EQ(Endpoint::parse("[::1]", 53)->text, "[::1]:53");
    EXPECT_FALSE(Endpoint::parse("", 53));
    EXPECT_FALSE(Endpoint::parse("dns.example", 53));
    EXPECT_FALSE(Endpoint::parse("1.2.3.4:", 53));
    EXPECT_FALSE(Endpoint::parse("1.2.3.4:65536", 53));
    EXPECT_FALSE(Endpoint::parse("1.2.3.4:0", 53));
    EXPECT_TRUE(Endpoint::parse("1.2.3.4:0", 53, true));
    EXPECT_FALSE(Endpoint::parse("[::1", 53));
    EXPECT_FALSE(Endpoint::parse("[::1]x", 53));
    EXPECT_FALSE(Endpoint::parse("1.2.3.256", 53));
}

TEST(Router, DomainsAreReadLeniently) {
    std::string wire;
    EXPECT_TRUE(Router::domainToWire("Corp.Example.", wire));
    EXPECT_EQ(wire, std::string("\4corp\7example\0", 14));
    EXPECT_TRUE(Router::domainToWire("*.corp.example", wire));
    EXPECT_EQ(wire, std::string("\4corp\7example\0", 14));
    EXPECT_TRUE(Router::domainToWire(".", wire));
    EXPECT_EQ(wire, std::string("\0", 1));
    EXPECT_FALSE(Router::domainToWire("a..b", wire));
    EXPECT_FALSE(Router::domainToWire("a.b..", wire));
    EXPECT_FALSE(Router::domainToWire(std::string(64, 'a') + ".example", wire));
}

TEST(Router, UnusablePartsAreLeftOutWithAReason) {
    Policy policy;
    policy.rules = {
        {std::nullopt, std::nullopt, {"127.0.0.1:5301", "not an address"}},
        {"corp.example", std::nullopt, {"127.0.0.1:5302"}},
        {"CORP.example.", std::nullopt, {"127.0.0.1:5303"}},  // the same domain again
        {"bad..name", std::nullopt, {"127.0.0.1:5304"}},
        {std::nullopt, "10.0.0.0/33", {"127.0.0.1:5305"}},
        {std::nullopt, "10.0.0.9-10.0.0.1", {"127.0.0.1:5306"}},  // ends reversed: no address
        {"only.bad.resolvers", std::nullopt, {"nowhere"}},
    };
    std::vector<std::string> problems;
    const Router router(policy, problems);
    EXPECT_EQ(problems.size(), 7u);
    EXPECT_EQ(router.route(read("x.corp.example")).resolvers.front().text, "127.0.0.1:5302");
    EXPECT_EQ(router.route(read("x.only.bad.resolvers")).description, "default");
    EXPECT_EQ(router.route(read("1.0.0.10.in-addr.arpa", 12)).description, "default");
    ASSERT_EQ(router.route(read("a.example")).resolvers.size(), 1u);
    // The root as a domain takes every name, but any longer domain beats it.
    policy.rules.push_back({".", std::nullopt, {"127.0.0.1:5307"}});
    const Router withRoot(policy, problems);
    EXPECT_EQ(withRoot.route(read("a.example")).description, "domain .");
    EXPECT_EQ(withRoot.route(read("x.corp.example")).description, "domain corp.example");
}

TEST(Router, TheSmallestNetworkHoldingTheWholeReverseZoneWins) {
    Policy policy;
    policy.rules = {{std::nullopt, "10.0.0.0/8", {"127.0.0.1:5301"}},
                    {std::nullopt, "10.1.0.0/16", {"127.0.0.1:5302"}},
                    {std::nullopt, "10.1.2.3", {"127.0.0.1:5303"}}};
    std::vector<std::string> problems;
    const Router router(policy, problems);
    EXPECT_EQ(router.route(read("3.2.1.10.in-addr.arpa", 12)).description, "network 10.1.2.3");
    EXPECT_EQ(router.route(read("4.2.1.10.IN-ADDR.ARPA", 12)).description, "network 10.1.0.0/16");
    EXPECT_EQ(router.route(read("2.1.10.in-addr.arpa", 12)).description, "network 10.1.0.0/16");
    EXPECT_EQ(router.route(read("10.in-addr.arpa", 12)).description, "network 10.0.0.0/8");
    EXPECT_EQ(router.route(read("in-addr.arpa", 12)).description, "default");
    EXPECT_EQ(router.route(read("01.2.1.10.in-addr.arpa", 12)).description, "default");
    EXPECT_EQ(router.route(read("5.3.2.1.10.in-addr.arpa", 12)).description, "default");
}

TEST(AnswerCache, TheLeastRecentlyUsedAnswerMakesRoom) {
    AnswerCache cache(2);
    const auto now = std::chrono::steady_clock::now();
    const std::vector<std::uint8_t> answer(20, 0);
    cache.store("a", answer, {}, 60s, now);
    cache.store("b", answer, {}, 60s, now);
    std::vector<std::uint8_t> out;
    EXPECT_TRUE(cache.lookup("a", now, out));  // "b" is now the least recently used
    cache.store("c", answer, {}, 60s, now);
    EXPECT_EQ(cache.size(), 2u);
    EXPECT_TRUE(cache.lookup("a", now, out));
    EXPECT_FALSE(cache.lookup("b", now, out));
    EXPECT_TRUE(cache.lookup("c", now, out));
    cache.store("z", answer, {}, 0s, now);  // nothing to keep
    EXPECT_FALSE(cache.lookup("z", now, out));
}

TEST(AnswerCache, KeepsExactlyTheNewestAnswersThroughGrowthAndReuse) {
    AnswerCache cache(1000);
    const auto now = std::chrono::steady_clock::now();
    std::vector<std::uint8_t> out;
    for (int i = 0; i < 5000; ++i) {
        const std::string key = "name" + std::to_string(i);
        const std::vector<std::uint8_t> answer(12 + static_cast<std::size_t>(i % 50),
                                               static_cast<std::uint8_t>(i));
        cache.store(key, answer, {}, 60s, now);
        // Every tenth answer is stored twice: the second replaces the first.
        if (i % 10 == 0) {
            cache.store(key, answer, {}, 60s, now);
        }
    }
    EXPECT_EQ(cache.size(), 1000u);
    for (int i = 0; i < 5000; ++i) {
        const bool found = cache.lookup("name" + std::to_string(i), now, out);
        EXPECT_EQ(found, i >= 4000) << i;
        if (found) {
            EXPECT_EQ(out.size(), 12u + static_cast<std::size_t>(i % 50));
            EXPECT_EQ(out.back(), static_cast<std::uint8_t>(i));
        }
    }
    // Expired answers leave on lookup and their room is used again.
    for (int i = 4000; i < 4500; ++i) {
        EXPECT_FALSE(cache.lookup("name" + std::to_string(i), now + 61s, out));
    }
    EXPECT_EQ(cache.size(), 500u);
    cache.store("fresh", std::vector<std::uint8_t>(12, 1), {}, 60s, now);
    EXPECT_TRUE(cache.lookup("fresh", now, out));
    cache.clear();
    EXPECT_EQ(cache.size(), 0u);
    EXPECT_FALSE(cache.lookup("fresh", now, out));
}

TEST(AnswerCache, TtlsComeOutLoweredByTheTimeSpentInTheCache) {
    AnswerCache cache(10);
    const auto now = std::chrono::steady_clock::now();
    std::vector<std::uint8_t> answer(20, 0);
    writeU32(answer.data() + 4, 300);  // a record's TTL
    writeU32(answer.data() + 12, 30);  // another, shorter
    const std::vector<std::uint16_t> offsets = {4, 12};
    cache.store("k", answer, offsets, 100s, now);  // kept for 100 s: TTLs above it are cut
    std::vector<std::uint8_t> out;
    ASSERT_TRUE(cache.lookup("k", now + 10s, out));
    EXPECT_EQ(readU32(out.data() + 4), 90u);
    EXPECT_EQ(readU32(out.data() + 12), 20u);
    ASSERT_TRUE(cache.lookup("k", now + 40s, out));
    EXPECT_EQ(readU32(out.data() + 12), 0u);
}

TEST(AnswerCache, TheDnssecBitsAreAPartOfTheQuestion) {
    std::string plain;
    std::string dnssec;
    const std::uint8_t name[] = {1, 'a', 0};
    AnswerCache::makeKey(plain, name, sizeof name, 1, 1, false, false);
    AnswerCache::makeKey(dnssec, name, sizeof name, 1, 1, true, false);
    EXPECT_NE(plain, dnssec);
}

TEST(MessageWriter, AnAnswerTooBigForTheClientKeepsItsQuestionAndSetsTc) {
    const ClientQuery query = read("example.com");
    std::vector<std::uint8_t> answer(700, 0);
    answer[5] = 1;  // one question
    std::memcpy(answer.data() + 12, query.question.data(), query.questionLength);
    finishReply(answer, query, 512);
    EXPECT_EQ(answer.size(), 12u + query.questionLength);
    EXPECT_NE(answer[2] & 0x02, 0);
    EXPECT_EQ(answer[7], 0);  // no answers
}

}  // namespace
}  // namespace morvane::provider
