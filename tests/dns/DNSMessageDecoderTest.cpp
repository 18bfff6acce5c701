#include <gtest/gtest.h>

#include "dns/DNSCNAMEResourceRecord.h"
#include "dns/DNSHeaderDecoder.h"
#include "dns/DNSMessageDecoder.h"
#include "dns/DNSOPTResourceRecord.h"
#include "dns/DNSQuestionDecoder.h"
#include "dns/DNSResourceRecordDecoder.h"
#include "dns/WireBytes.h"

namespace morvane::dns {
namespace {

using test::decode;
using test::sizeOf;
using test::wireBytes;

// example.com A IN, recursion desired.
const char* const query =
    "abcd 0100 0001 0000 0000 0000"
    "07 6578616d706c65 03 636f6d 00 0001 0001";

// The answer to it: the record's name is a pointer to the question's name at offset 12,
// and an OPT record offers 4096 bytes with DNSSEC OK.
const char* const answerWithOPT =
    "abcd 8180 0001 0001 0000 0001"
    "07 6578616d706c65 03 636f6d 00 0001 0001"
    "c00c 0001 0001 00000e10 0004 5db8d822"
    "00 0029 1000 00008000 0000";

// NXDOMAIN for nope.example.com, with the zone's SOA in the authority section; its owner
// and the names in its data are pointers to "example.com" at offset 17.
const char* const nxdomain =
    "0102 8183 0001 0000 0001 0000"
    "04 6e6f7065 07 6578616d706c65 03 636f6d 00 0001 0001"
    "c011 0006 0001 00000384 0027"
    "03 6e7331 c011 0a 686f73746d6173746572 c011"
    "78a2b3c4 00001c20 00000e10 00093a80 00000e10";

TEST(DNSMessageDecoderTest, Query) {
    const auto message = decode(wireBytes(query));
    ASSERT_TRUE(message);
    const DNSHeader expected{
        .isQuery = true, .recursionDesired = true, .id = 0xabcd, .questionCount = 1};
    EXPECT_EQ(message->header, expected);
    EXPECT_EQ(message->questions, (std::vector<DNSQuestion>{{1, 1, "example.com"}}));
    EXPECT_FALSE(message->answers || message->authorityRecords || message->additionalRecords);
}

TEST(DNSMessageDecoderTest, AnswerWithPointerToTheQuestionAndOPT) {
    const auto message = decode(wireBytes(answerWithOPT));
    ASSERT_TRUE(message);
    const DNSHeader expected{.recursionDesired = true,
                             .recursionAvailable = true,
                             .id = 0xabcd,
                             .questionCount = 1,
                             .answerRecordCount = 1,
                             .additionalRecordCount = 1};
    EXPECT_EQ(message->header, expected);

    ASSERT_TRUE(message->answers);
    ASSERT_EQ(message->answers->size(), 1u);
    const DNSResourceRecord& answer = *message->answers->front();
    EXPECT_EQ(answer.name, "example.com");
    EXPECT_EQ(answer.type, 1);
    EXPECT_EQ(answer.resourceClass, 1);
    EXPECT_EQ(answer.ttl, 3600u);
    EXPECT_EQ(answer.data, wireBytes("5db8d822"));

    ASSERT_TRUE(message->additionalRecords);
    const DNSResourceRecord& opt = *message->additionalRecords->front();
    EXPECT_EQ(typeid(opt), typeid(DNSResourceRecord)) << "the decoder makes plain records";
    EXPECT_EQ(opt.name, ".");
    EXPECT_TRUE(opt.data.empty());
    const auto edns = DNSOPTResourceRecord::fromResource(opt);
    EXPECT_EQ(edns.udpPayloadSize, 4096);
    EXPECT_TRUE(edns.dnssecOK);
    EXPECT_EQ(edns.version, 0);
    EXPECT_EQ(edns.extendedRCode, 0);
}

TEST(DNSMessageDecoderTest, NXDomainWithCompressedAuthority) {
    const auto message = decode(wireBytes(nxdomain));
    ASSERT_TRUE(message);
    EXPECT_FALSE(message->header.isQuery);
    EXPECT_EQ(message->header.responseCode, 3);
    EXPECT_EQ(message->questions->front().name, "nope.example.com");
    ASSERT_TRUE(message->authorityRecords);
    const DNSResourceRecord& soa = *message->authorityRecords->front();
    EXPECT_EQ(soa.name, "example.com");
    EXPECT_EQ(soa.type, 6);
    // Names inside record data are not followed; the data comes as it was sent.
    EXPECT_EQ(soa.data.size(), 0x27u);
    EXPECT_EQ(soa.data.front(), 3);
}

TEST(DNSMessageDecoderTest, CNAMEPointerIsTakenAgainstTheRecordData) {
    // "cdn1" and a pointer to offset 7 of the data, where "example.net" stands; offset 7 of
    // the message is inside the header.
    const auto bytes = wireBytes(
        "0007 8180 0001 0001 0000 0000"
        "03 777777 07 6578616d706c65 03 636f6d 00 0001 0001"
        "c00c 0005 0001 0000012c 0014"
        "04 63646e31 c007 07 6578616d706c65 03 6e6574 00");
    const auto message = decode(bytes);
    ASSERT_TRUE(message);
    const auto cname = DNSCNAMEResourceRecord::fromResource(*message->answers->front());
    EXPECT_EQ(cname.name, "www.example.com");
    EXPECT_EQ(cname.ttl, 300u);
    EXPECT_EQ(cname.canonicalName, "cdn1.example.net");
    EXPECT_TRUE(cname.data.empty());

    // The usual compressed CNAME points into the message, which the data alone cannot
    // reach: the name ends with the labels before the pointer. Empty data has no name.
    EXPECT_EQ(DNSCNAMEResourceRecord::fromResource(
                  DNSResourceRecord(5, 1, 0, "x", wireBytes("03 636461 c00c")))
                  .canonicalName,
              "cda");
    EXPECT_FALSE(
        DNSCNAMEResourceRecord::fromResource(DNSResourceRecord(5, 1, 0, "x", {})).canonicalName);
}

TEST(DNSMessageDecoderTest, EveryShorterBufferGivesNoMessage) {
    for (const char* hex : {query, answerWithOPT, nxdomain}) {
        const auto bytes = wireBytes(hex);
        for (std::uint32_t length = 0; length < sizeOf(bytes); ++length) {
            DNSMessageDecoder decoder;
            decoder.decodeMessageInBuffer(bytes.data(), length);
            EXPECT_FALSE(decoder.message()) << "length " << length << " of " << bytes.size();
        }
        EXPECT_TRUE(decode(bytes));
    }
    DNSMessageDecoder decoder;
    decoder.decodeMessageInBuffer(nullptr, 512);
    EXPECT_FALSE(decoder.message());
}

TEST(DNSMessageDecoderTest, CountsBeyondTheItemsPresentGiveNoMessage) {
    auto twoQuestions = wireBytes(query);
    twoQuestions[5] = 2;
    EXPECT_FALSE(decode(twoQuestions));

    auto twoAnswers = wireBytes(answerWithOPT);
    twoAnswers[7] = 2;  // the OPT record is read as the second answer, then nothing is left
    EXPECT_FALSE(decode(twoAnswers));

    for (const std::size_t countOffset : {4, 6, 8, 10}) {
        auto bytes = wireBytes(query);
        bytes[countOffset] = 0xff;
        bytes[countOffset + 1] = 0xff;
        EXPECT_FALSE(decode(bytes)) << "count at " << countOffset;
    }
}

TEST(DNSMessageDecoderTest, ZeroCountsLeaveTheListsAbsent) {
    const auto message = decode(wireBytes("0000 8180 0000 0000 0000 0000 ffff"));
    ASSERT_TRUE(message);
    EXPECT_FALSE(message->questions || message->answers || message->authorityRecords ||
                 message->additionalRecords);
}

TEST(DNSMessageDecoderTest, PointerPastTheEndKeepsTheMessage) {
    // The question's name is "foo" and a pointer beyond the 22 bytes of the message.
    const auto message =
        decode(wireBytes("0000 0100 0001 0000 0000 0000 03 666f6f c030 0001 0001"));
    ASSERT_TRUE(message);
    ASSERT_TRUE(message->questions);
    ASSERT_EQ(message->questions->size(), 1u);
    EXPECT_EQ(message->questions->front().name, "foo");
    EXPECT_EQ(message->questions->front().type, 1);
}

TEST(DNSMessageDecoderTest, BadNamesAnywhereLoseTheMessage) {
    // A question name that points to itself, and an answer name with a byte above 127.
    EXPECT_FALSE(decode(wireBytes("0000 0100 0001 0000 0000 0000 c00c 0001 0001")));
    EXPECT_FALSE(
        decode(wireBytes("0000 8180 0000 0001 0000 0000"
                         "02 61e9 00 0001 0001 00000000 0000")));
}

TEST(DNSMessageDecoderTest, ItemDecodersMoveTheOffsetOnlyOnSuccess) {
    const auto bytes = wireBytes(answerWithOPT);
    std::uint32_t offset = 0;
    DNSHeaderDecoder header;
    header.decodeHeaderInBuffer(bytes.data(), offset, 11);
    EXPECT_FALSE(header.header());
    EXPECT_EQ(offset, 0u);
    header.decodeHeaderInBuffer(bytes.data(), offset, sizeOf(bytes));
    EXPECT_EQ(offset, 12u);

    DNSQuestionDecoder question;
    question.decodeQuestionInBuffer(bytes.data(), offset, 28);  // class cut one byte short
    EXPECT_FALSE(question.question());
    EXPECT_EQ(offset, 12u);
    question.decodeQuestionInBuffer(bytes.data(), offset, sizeOf(bytes));
    EXPECT_EQ(offset, 29u);

    DNSResourceRecordDecoder record;
    record.decodeResourceInBuffer(bytes.data(), offset, 44);  // data cut one byte short
    EXPECT_FALSE(record.resource());
    EXPECT_EQ(offset, 29u);
    record.decodeResourceInBuffer(bytes.data(), offset, sizeOf(bytes));
    ASSERT_TRUE(record.resource());
    EXPECT_EQ(offset, 45u);
    record.decodeResourceInBuffer(bytes.data(), offset, sizeOf(bytes));
    EXPECT_EQ(offset, sizeOf(bytes));
    record.decodeResourceInBuffer(bytes.data(), offset, sizeOf(bytes));
    EXPECT_FALSE(record.resource()) << "at the end of the buffer";
}

}  // namespace
}  // namespace morvane::dns
