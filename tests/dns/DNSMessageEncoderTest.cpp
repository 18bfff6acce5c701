#include <gtest/gtest.h>

#include "dns/DNSAResourceRecord.h"
#include "dns/DNSCNAMEResourceRecord.h"
#include "dns/DNSHeaderDecoder.h"
#include "dns/DNSHeaderEncoder.h"
#include "dns/DNSMessageEncoder.h"
#include "dns/DNSOPTResourceRecord.h"
#include "dns/DNSWireWriter.h"
#include "dns/WireBytes.h"
#include "ip/NamedException.h"

namespace morvane::dns {
namespace {

using test::decode;
using test::sizeOf;
using test::wireBytes;

TEST(DNSHeaderCodecTest, EachFlagHasItsOwnBit) {
    struct Case {
        void (*set)(DNSHeader&);
        const char* flags;
    };
    const Case cases[] = {
        {[](DNSHeader& h) { h.isQuery = true; }, "0000"},
        {[](DNSHeader&) {}, "8000"},
        {[](DNSHeader& h) { h.opCode = 5; }, "a800"},
        {[](DNSHeader& h) { h.authoritativeAnswer = true; }, "8400"},
        {[](DNSHeader& h) { h.truncated = true; }, "8200"},
        {[](DNSHeader& h) { h.recursionDesired = true; }, "8100"},
        {[](DNSHeader& h) { h.recursionAvailable = true; }, "8080"},
        {[](DNSHeader& h) { h.authenticatedData = true; }, "8020"},
        {[](DNSHeader& h) { h.checkingDisabled = true; }, "8010"},
        {[](DNSHeader& h) { h.responseCode = 3; }, "8003"},
        // Values wider than their 4 bits are cut, not spilled into the neighbouring flags.
        {[](DNSHeader& h) { h.opCode = 0x1f; }, "f800"},
        {[](DNSHeader& h) { h.responseCode = 0xff; }, "800f"},
    };
    for (const Case& c : cases) {
        DNSHeader header;
        c.set(header);
        header.id = 0x0102;
        header.additionalRecordCount = 0x0304;
        const auto bytes = DNSHeaderEncoder::encode(header);
        EXPECT_EQ(bytes, wireBytes(std::string("0102") + c.flags + "0000 0000 0000 0304"));

        DNSHeaderDecoder decoder;
        std::uint32_t offset = 0;
        decoder.decodeHeaderInBuffer(bytes.data(), offset, sizeOf(bytes));
        DNSHeader expected = header;
        expected.opCode &= 0x0f;
        expected.responseCode &= 0x0f;
        EXPECT_EQ(decoder.header(), expected) << c.flags;
    }
    // The reserved Z bit is not part of the model and is written as zero.
    DNSHeaderDecoder decoder;
    const auto withZ = wireBytes("0000 8040 0000 0000 0000 0000");
    std::uint32_t offset = 0;
    decoder.decodeHeaderInBuffer(withZ.data(), offset, sizeOf(withZ));
    EXPECT_EQ(DNSHeaderEncoder::encode(*decoder.header()),
              wireBytes("0000 8000 0000 0000 0000 0000"));
}

TEST(DNSMessageEncoderTest, CountsComeFromTheListsAndTheCallersHeaderStays) {
    DNSMessage message;
    message.header.id = 7;
    message.header.isQuery = true;
    message.header.questionCount = 9;
    message.header.answerRecordCount = 9;
    EXPECT_EQ(DNSMessageEncoder::encode(message), wireBytes("0007 0000 0000 0000 0000 0000"));

    message.questions = std::vector<DNSQuestion>{{1, 1, "a"}, {28, 1, "b"}};
    message.additionalRecords.emplace();
    message.additionalRecords->push_back(nullptr);  // an empty slot is neither written nor counted
    message.additionalRecords->push_back(std::make_unique<DNSOPTResourceRecord>());
    EXPECT_EQ(DNSMessageEncoder::encode(message), wireBytes("0007 0000 0002 0000 0000 0001"
                                                            "01 61 00 0001 0001 01 62 00 001c 0001"
                                                            "00 0029 0000 00000000 0000"));
    EXPECT_EQ(message.header.questionCount, 9);
    EXPECT_EQ(message.header.answerRecordCount, 9);
}

TEST(DNSMessageEncoderTest, OPTWritesItsFieldsIntoClassAndTTL) {
    DNSOPTResourceRecord opt;
    opt.udpPayloadSize = 4096;
    opt.dnssecOK = true;
    opt.resourceClass = 512;  // the EDNS fields win
    opt.ttl = 0xffffffff;
    // Encoding a message works on a copy: the caller's record keeps its fields.
    DNSMessage message;
    message.additionalRecords.emplace();
    message.additionalRecords->push_back(std::make_unique<DNSOPTResourceRecord>(opt));
    EXPECT_EQ(DNSMessageEncoder::encode(message),
              wireBytes("0000 8000 0000 0000 0000 0001 00 0029 1000 00008000 0000"));
    EXPECT_EQ(message.additionalRecords->front()->resourceClass, 512);
    EXPECT_EQ(message.additionalRecords->front()->ttl, 0xffffffffu);

    // The record's own encode writes the EDNS fields into class and TTL, then the record.
    EXPECT_EQ(opt.encode(), wireBytes("00 0029 1000 00008000 0000"));
    EXPECT_EQ(opt.resourceClass, 4096);
    EXPECT_EQ(opt.ttl, 0x8000u);

    opt.dnssecOK = false;
    opt.version = 1;
    opt.extendedRCode = 0x12;
    opt.data = wireBytes("000a 0002 abcd");  // an option, carried unchanged
    EXPECT_EQ(opt.encode(), wireBytes("00 0029 1000 12010000 0006 000a0002abcd"));

    const auto back = DNSOPTResourceRecord::fromResource(
        DNSResourceRecord(41, 4096, 0x12010000, ".", wireBytes("000a 0002 abcd")));
    EXPECT_EQ(back.extendedRCode, 0x12);
    EXPECT_EQ(back.version, 1);
    EXPECT_FALSE(back.dnssecOK);
    EXPECT_EQ(back.encode(), opt.encode());
}

TEST(DNSMessageEncoderTest, TypedRecordsWriteTheirOwnData) {
    DNSCNAMEResourceRecord cname;
    cname.name = "www.example.com";
    cname.resourceClass = 1;
    cname.ttl = 60;
    cname.canonicalName = "ab.cde";
    cname.data = wireBytes("ffff");  // not what goes out
    EXPECT_EQ(cname.encode(), wireBytes("03 777777 07 6578616d706c65 03 636f6d 00"
                                        "0005 0001 0000003c 0008 02 6162 03 636465 00"));
    cname.canonicalName.reset();
    EXPECT_EQ(cname.encode(), wireBytes("03 777777 07 6578616d706c65 03 636f6d 00"
                                        "0005 0001 0000003c 0000"));
}

TEST(DNSMessageEncoderTest, AddressRecordsReadTheirDataAsAnAddress) {
    const DNSResourceRecord v4(1, 1, 3600, "example.com", wireBytes("5db8d822"));
    const auto a = DNSAResourceRecord::fromResource(v4);
    ASSERT_TRUE(a.ip);
    EXPECT_TRUE(a.ip->v4());
    EXPECT_EQ(a.ip->address(), "93.184.216.34");
    EXPECT_TRUE(a.data.empty());
    EXPECT_EQ(a.encode(), v4.encode());

    const DNSResourceRecord v6(28, 1, 60, "example.com",
                               wireBytes("20010db8000000000000000000000053"));
    const auto aaaa = DNSAResourceRecord::fromResource(v6);
    EXPECT_FALSE(aaaa.ip->v4());
    EXPECT_EQ(aaaa.encode(), v6.encode());

    const auto copy = a.clone();
    EXPECT_EQ(dynamic_cast<DNSAResourceRecord&>(*copy).ip->address(), "93.184.216.34");

    // Data of another length has no address: the caller checks first or catches.
    try {
        DNSAResourceRecord::fromResource(DNSResourceRecord(1, 1, 0, "x", wireBytes("0a0000")));
        ADD_FAILURE() << "three bytes made an address";
    } catch (const ip::NamedException& error) {
        EXPECT_EQ(error.name(), "ipInvalidLength");
    }
    // A record without a name has the empty text as its name: one empty piece, two zeros.
    EXPECT_EQ(DNSAResourceRecord().encode(), wireBytes("00 00 0001 0000 00000000 0000"));
}

TEST(DNSMessageEncoderTest, DecodedMessagesEncodeToTheSameMessage) {
    // Uncompressed, so the bytes come back as they were.
    const auto plain = wireBytes(
        "beef 8580 0001 0001 0000 0000"
        "03 777777 07 6578616d706c65 03 636f6d 00 0001 0001"
        "03 777777 07 6578616d706c65 03 636f6d 00 0001 0001 0000003c 0004 c0000201");
    EXPECT_EQ(DNSMessageEncoder::encode(*decode(plain)), plain);

    // Compressed: the names are written out in full, and decoding that gives the same.
    const auto compressed = wireBytes(
        "beef 8580 0001 0001 0000 0000"
        "03 777777 07 6578616d706c65 03 636f6d 00 0001 0001"
        "c00c 0001 0001 0000003c 0004 c0000201");
    const auto first = decode(compressed);
    const auto written = DNSMessageEncoder::encode(*first);
    EXPECT_EQ(written, plain);
    const auto second = decode(written);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->header, first->header);
    EXPECT_EQ(second->questions, first->questions);
    EXPECT_EQ(second->answers->front()->name, "www.example.com");
}

TEST(DNSMessageEncoderTest, AReusedBufferHoldsExactlyTheLastMessage) {
    const auto small = wireBytes("0001 0100 0001 0000 0000 0000 01 61 00 0001 0001");
    const auto large = wireBytes(
        "beef 8580 0001 0001 0000 0000"
        "03 777777 07 6578616d706c65 03 636f6d 00 0001 0001"
        "03 777777 07 6578616d706c65 03 636f6d 00 0001 0001 0000003c 0004 c0000201");
    // Whatever the buffer held before, longer or shorter, is replaced, not appended to.
    std::vector<std::uint8_t> buffer(700, 0xee);
    DNSMessageEncoder::encode(*decode(small), buffer);
    EXPECT_EQ(buffer, small);
    DNSMessageEncoder::encode(*decode(large), buffer);
    EXPECT_EQ(buffer, large);
    DNSMessageEncoder::encode(*decode(small), buffer);
    EXPECT_EQ(buffer, small);
    // Growing past the first room: a message bigger than any before.
    DNSMessage big = *decode(small);
    big.questions->assign(40, DNSQuestion{1, 1, std::string(30, 'x') + ".example"});
    std::vector<std::uint8_t> empty;
    DNSMessageEncoder::encode(big, empty);
    EXPECT_EQ(empty, DNSMessageEncoder::encode(big));
    EXPECT_EQ(empty.size(), 12u + 40u * (1u + 30u + 1u + 7u + 1u + 4u));
}

TEST(DNSMessageEncoderTest, CopiesAreDeepAndKeepTheRecordClass) {
    DNSMessage message;
    message.answers.emplace();
    auto cname = std::make_unique<DNSCNAMEResourceRecord>();
    cname->canonicalName = "a.b";
    message.answers->push_back(std::move(cname));
    message.additionalRecords.emplace();
    message.additionalRecords->push_back(std::make_unique<DNSOPTResourceRecord>());

    DNSMessage copy = message;
    auto* copiedName = dynamic_cast<DNSCNAMEResourceRecord*>(copy.answers->front().get());
    ASSERT_NE(copiedName, nullptr);
    copiedName->canonicalName = "changed";
    EXPECT_EQ(dynamic_cast<DNSCNAMEResourceRecord&>(*message.answers->front()).canonicalName,
              "a.b");
    EXPECT_NE(dynamic_cast<DNSOPTResourceRecord*>(copy.additionalRecords->front().get()), nullptr);

    copy = message;
    EXPECT_EQ(DNSMessageEncoder::encode(copy), DNSMessageEncoder::encode(message));
}

}  // namespace
}  // namespace morvane::dns
