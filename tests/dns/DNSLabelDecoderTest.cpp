#include <gtest/gtest.h>

#include <string>

#include "dns/DNSLabelDecoder.h"
#include "dns/DNSLabelEncoder.h"
#include "dns/WireBytes.h"

namespace morvane::dns {
namespace {

using test::sizeOf;
using test::wireBytes;

struct Decoded {
    std::optional<std::string> name;
    std::uint32_t offset;
};

Decoded decodeAt(const std::vector<std::uint8_t>& bytes, std::uint32_t offset) {
    DNSLabelDecoder decoder;
    decoder.decodeLabelInBuffer(bytes.data(), offset, sizeOf(bytes));
    EXPECT_EQ(decoder.state(), DNSLabelDecoder::State::readLength);
    return {decoder.name(), offset};
}

TEST(DNSLabelCodecTest, PlainNamesEncodeAndDecodeBack) {
    EXPECT_EQ(DNSLabelEncoder::encode("."), wireBytes("00"));
    EXPECT_EQ(DNSLabelEncoder::encode("ab.cde"), wireBytes("02 6162 03 636465 00"));
    // A trailing dot leaves an empty last piece, written as a second zero byte.
    EXPECT_EQ(DNSLabelEncoder::encode("ab."), wireBytes("02 6162 00 00"));
    EXPECT_EQ(DNSLabelEncoder::encode(""), wireBytes("00"));

    for (const char* name : {".", "ab.cde", "www.example.com"}) {
        const auto bytes = DNSLabelEncoder::encode(name);
        const Decoded decoded = decodeAt(bytes, 0);
        EXPECT_EQ(decoded.name, name);
        EXPECT_EQ(decoded.offset, sizeOf(bytes));
    }
}

TEST(DNSLabelCodecTest, CompileWithoutLabelsGivesTheRoot) {
    DNSLabelDecoder decoder;
    decoder.compileNameAndReset();
    EXPECT_EQ(decoder.name(), ".");
}

TEST(DNSLabelDecoderTest, PointerLeavesTheCallerBehindItsTwoBytes) {
    // 12 bytes of header, "example.com" at 12, then "www" and a pointer to 12.
    const auto bytes = wireBytes(
        "0000 0000 0000 0000 0000 0000"
        "07 6578616d706c65 03 636f6d 00"
        "03 777777 c00c"
        "ffff");
    const Decoded onlyPointer = decodeAt(bytes, 29);
    EXPECT_EQ(onlyPointer.name, "example.com");
    EXPECT_EQ(onlyPointer.offset, 31u);

    const Decoded labelsThenPointer = decodeAt(bytes, 25);
    EXPECT_EQ(labelsThenPointer.name, "www.example.com");
    EXPECT_EQ(labelsThenPointer.offset, 31u);
}

TEST(DNSLabelDecoderTest, PointerAboveOffset255IsFollowed) {
    std::vector<std::uint8_t> bytes(256, 0xff);
    const auto name = wireBytes("03 6e6574 00 c100");
    bytes.insert(bytes.end(), name.begin(), name.end());
    EXPECT_EQ(decodeAt(bytes, 256).name, "net");
    const Decoded viaPointer = decodeAt(bytes, 261);
    EXPECT_EQ(viaPointer.name, "net");
    EXPECT_EQ(viaPointer.offset, 263u);
}

// Pointers that each lead on to the next one, and at the end the root.
std::vector<std::uint8_t> pointerChain(std::uint16_t hops) {
    std::vector<std::uint8_t> chain;
    for (std::uint16_t hop = 1; hop <= hops; ++hop) {
        const auto target = static_cast<std::uint16_t>(2 * hop);
        chain.push_back(static_cast<std::uint8_t>(0xc0 | target >> 8));
        chain.push_back(static_cast<std::uint8_t>(target));
    }
    chain.push_back(0);
    return chain;
}

TEST(DNSLabelDecoderTest, PointerLoopsFailWithoutHanging) {
    // A pointer to itself; two pointers to each other; a label and a pointer back to it,
    // which grows the name until it passes 255 bytes; a long chain of pointers that never
    // reaches a label.
    const auto selfLoop = wireBytes("c000");
    const auto pairLoop = wireBytes("c002 c000");
    const auto labelLoop = wireBytes("01 61 c000");
    const auto longChain = pointerChain(200);
    for (const auto* bytes : {&selfLoop, &pairLoop, &labelLoop, &longChain}) {
        const Decoded decoded = decodeAt(*bytes, 0);
        EXPECT_FALSE(decoded.name);
        EXPECT_EQ(decoded.offset, 0u) << "a failed name leaves the offset alone";
    }
    const Decoded shortChain = decodeAt(pointerChain(20), 0);
    EXPECT_EQ(shortChain.name, ".");
    EXPECT_EQ(shortChain.offset, 2u);
}

TEST(DNSLabelDecoderTest, NamesThatRunOutOfBufferFail) {
    const auto name = wireBytes("03 777777 03 636f6d 00");
    for (std::uint32_t length = 0; length < sizeOf(name); ++length) {
        DNSLabelDecoder decoder;
        std::uint32_t offset = 0;
        decoder.decodeLabelInBuffer(name.data(), offset, length);
        EXPECT_FALSE(decoder.name()) << "length " << length;
    }
    EXPECT_FALSE(decodeAt(wireBytes("c0"), 0).name) << "half a pointer";
    EXPECT_FALSE(decodeAt(wireBytes("c005 00"), 0).name) << "pointer past the end";
    EXPECT_FALSE(decodeAt(wireBytes("00"), 1).name) << "offset at the end";
    EXPECT_FALSE(decodeAt(wireBytes("00"), 0xffffffff).name);

    DNSLabelDecoder decoder;
    std::uint32_t offset = 0;
    decoder.decodeLabelInBuffer(nullptr, offset, 10);
    EXPECT_FALSE(decoder.name());
}

TEST(DNSLabelDecoderTest, BytesAbove127FailTheName) {
    EXPECT_FALSE(decodeAt(wireBytes("03 61e962 00"), 0).name);
    EXPECT_FALSE(decodeAt(wireBytes("02 6161 c004 01 ff 00"), 0).name) << "behind a pointer";
    EXPECT_EQ(decodeAt(wireBytes("03 617f62 00"), 0).name,
              "a\x7f"
              "b");
}

TEST(DNSLabelDecoderTest, NamesAreLimitedTo255WireBytes) {
    // Three labels of 63 bytes and one of 61 fill 255 bytes with their length bytes and
    // the final zero.
    const std::string longest = std::string(63, 'a') + "." + std::string(63, 'b') + "." +
                                std::string(63, 'c') + "." + std::string(61, 'd');
    const auto fits = DNSLabelEncoder::encode(longest);
    ASSERT_EQ(fits.size(), 255u);
    EXPECT_EQ(decodeAt(fits, 0).name, longest);
    EXPECT_FALSE(decodeAt(DNSLabelEncoder::encode(longest + "d"), 0).name);
}

TEST(DNSLabelDecoderTest, OneDecoderReadsNameAfterNameAndAfterAFailure) {
    const auto bytes = wireBytes("01 61 00 01 62 02 ff 00 01 63 00");
    DNSLabelDecoder decoder;
    std::uint32_t offset = 0;
    decoder.decodeLabelInBuffer(bytes.data(), offset, sizeOf(bytes));
    EXPECT_EQ(decoder.takeName(), "a");
    EXPECT_FALSE(decoder.name());

    decoder.decodeLabelInBuffer(bytes.data(), offset, sizeOf(bytes));
    EXPECT_FALSE(decoder.name());
    EXPECT_EQ(offset, 3u);
    EXPECT_EQ(decoder.state(), DNSLabelDecoder::State::readLength);

    offset = 8;
    decoder.decodeLabelInBuffer(bytes.data(), offset, sizeOf(bytes));
    EXPECT_EQ(decoder.name(), "c");
}

}  // namespace
}  // namespace morvane::dns
