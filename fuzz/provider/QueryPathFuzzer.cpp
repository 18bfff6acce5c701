// A datagram from any client through everything the forwarder does with it short of the
// sockets: reading the query, routing it, the cache, the resolver's query made from it, and
// the same bytes read back as the resolver's answer, aged and fitted to the client's buffer.
// Nothing may read outside the buffers, hang or leak, and what the forwarder writes must be
// what it claims to write.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "provider/AnswerCache.h"
#include "provider/AnswerReader.h"
#include "provider/MessageWriter.h"
#include "provider/QueryReader.h"
#include "provider/Router.h"

namespace {

using namespace morvane::provider;

const Router& router() {
    static const Router instance = [] {
        Policy policy;
        policy.rules = {
            {std::nullopt, std::nullopt, {"127.0.0.1:5301"}},
            {"corp.example", std::nullopt, {"127.0.0.1:5302", "[::1]:5302"}},
            {"a.corp.example", std::nullopt, {}},
            {std::nullopt, "10.0.0.0/8", {"127.0.0.1:5303"}},
            {std::nullopt, "192.168.1.10-192.168.1.20", {"127.0.0.1:5304"}},
            {".", std::nullopt, {}},
        };
        policy.locationTag = "office-7";
        policy.uuid = "5B1F0C1E-2D3A-4B5C-8D9E-0F1A2B3C4D5E";
        std::vector<std::string> problems;
        return Router(policy, problems);
    }();
    return instance;
}

void checkAt(bool condition, int line) {
    if (!condition) {
        std::fprintf(stderr, "check failed at line %d\n", line);
        std::abort();
    }
}
#define check(condition) checkAt((condition), __LINE__)

void queryPath(const std::uint8_t* data, std::size_t size) {
    ClientQuery query;
    const QueryVerdict verdict = readClientQuery(data, size, query);
    std::vector<std::uint8_t> out;
    switch (verdict) {
        case QueryVerdict::drop:
            return;
        case QueryVerdict::formatError:
            writeErrorReply(out, query, 1, false);
            check(out.size() == 12);
            return;
        case QueryVerdict::notImplemented:
            writeErrorReply(out, query, 4, query.questionLength > 0);
            return;
        case QueryVerdict::badVersion:
            writeErrorReply(out, query, 16, true);
            return;
        case QueryVerdict::ok:
            break;
    }
    check(query.nameLength <= 255 && query.questionLength == query.nameLength + 4);
    const Route& route = router().route(query);
    check(!route.description.empty());

    // What goes to the resolver must read back as the same question.
    std::vector<std::uint8_t> upstream;
    const std::vector<std::uint8_t> none;
    writeUpstreamQuery(upstream, 0xBEEF, query, route.identity ? router().identity() : none);
    ClientQuery again;
    check(readClientQuery(upstream.data(), upstream.size(), again) == QueryVerdict::ok);
    check(again.nameLength == query.nameLength &&
          std::memcmp(again.lowerName.data(), query.lowerName.data(), query.nameLength) == 0);
    check(again.edns && again.ednsUdpSize == kUpstreamUdpSize && again.dnssecOk == query.dnssecOk);
}

// The bytes as a resolver's answer to the question they start with.
void answerPath(const std::uint8_t* data, std::size_t size) {
    static AnswerCache cache(64);
    static const auto start = std::chrono::steady_clock::now();
    if (size < 12) {
        return;
    }
    std::vector<std::uint8_t> probe(data, data + size);
    probe[2] &= 0x7F;
    std::memset(probe.data() + 6, 0, 6);  // only the question counts
    ClientQuery query;
    if (readClientQuery(probe.data(), probe.size(), query) != QueryVerdict::ok) {
        return;
    }
    query.edns = (data[3] & 1) != 0;  // the client's EDNS, from a bit the answer ignores
    query.ednsUdpSize = 1232;
    std::vector<std::uint8_t> answerBytes(data, data + size);
    answerBytes[2] |= 0x80;
    UpstreamAnswer answer;
    if (readUpstreamAnswer(answerBytes.data(), answerBytes.size(), query.id, query, answer) !=
        AnswerVerdict::ok) {
        return;
    }
    for (const std::uint16_t offset : answer.ttlOffsets) {
        check(offset + 4u <= answerBytes.size());
    }
    const bool keptOpt = answer.hasOpt && !answer.optIsLast;
    if (answer.hasOpt && answer.optIsLast) {
        dropTrailingOpt(answerBytes, answer.optOffset);
    }
    std::string key;
    AnswerCache::makeKey(key, query.lowerName.data(), query.nameLength, query.type,
                         query.questionClass, query.dnssecOk, (query.flags & 0x0010) != 0);
    const auto now = start + std::chrono::seconds(size % 7);
    cache.clear();  // each input on its own, so that a finding replays alone
    if (!keptOpt && !answer.truncated) {
        cache.store(key, answerBytes, answer.ttlOffsets, std::chrono::seconds(answer.cacheTtl % 5),
                    now);
    }
    std::vector<std::uint8_t> served;
    if (cache.lookup(key, now + std::chrono::seconds(size % 3), served)) {
        check(served.size() == answerBytes.size());
    }
    for (const std::size_t limit : {std::size_t{512}, std::size_t{1232}, std::size_t{65535}}) {
        std::vector<std::uint8_t> reply = answerBytes;
        finishReply(reply, query, limit, keptOpt);
        check(reply.size() <= limit);
        check(reply[0] == (query.id >> 8) && reply[1] == (query.id & 0xFF));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    queryPath(data, size);
    answerPath(data, size);
    return 0;
}
