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
    // The empty text is one empty piece: its zero length byte, then the name's end.
    EXPECT_EQ(DNSLabelEncoder::encode(""), wireBytes("00 00"));

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
    // A pointer to itself; two pointers to each other; a label and a pointer back to it; a
    // long chain of pointers that never reaches a label.
    const auto selfLoop = wireBytes("c000");
    const auto pairLoop = wireBytes("c002 c000");
    const auto labelLoop = wireBytes("01 61 c000");
    const auto longChain = pointerChain(200);
    // A loop behind the target of a pointer fails the name that led into it.
    const auto loopBehindLabels = wireBytes("03 666f6f c006 c006");
    for (const auto* bytes : {&selfLoop, &pairLoop, &labelLoop, &longChain, &loopBehindLabels}) {
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
    EXPECT_FALSE(decodeAt(wireBytes("03 666f6f c0"), 0).name) << "labels and half a pointer";
    EXPECT_FALSE(decodeAt(wireBytes("00"), 1).name) << "offset at the end";
    EXPECT_FALSE(decodeAt(wireBytes("00"), 0xffffffff).name);

    DNSLabelDecoder decoder;
    std::uint32_t offset = 0;
    decoder.decodeLabelInBuffer(nullptr, offset, 10);
    EXPECT_FALSE(decoder.name());
}

TEST(DNSLabelDecoderTest, PointerTargetThatGivesNoNameEndsTheNameWithItsLabels) {
    // "foo" and a pointer past the end: the pointer's target gives nothing, the name is what
    // came before it, and the caller's offset moves behind the pointer.
    const Decoded pastTheEnd = decodeAt(wireBytes("03 666f6f c030"), 0);
    EXPECT_EQ(pastTheEnd.name, "foo");
    EXPECT_EQ(pastTheEnd.offset, 6u);
    // Only a pointer, past the end: no labels, so the root.
    const Decoded onlyPointer = decodeAt(wireBytes("c005 00"), 0);
    EXPECT_EQ(onlyPointer.name, ".");
    EXPECT_EQ(onlyPointer.offset, 2u);
    // A target whose label is no ASCII, or that runs out of buffer, gives no piece either.
    EXPECT_EQ(decodeAt(wireBytes("02 6161 c005 01 ff 00"), 0).name, "aa");
    EXPECT_EQ(decodeAt(wireBytes("02 6161 c005 05 6162"), 0).name, "aa");
}

TEST(DNSLabelDecoderTest, PointerTargetIsAddedAsOnePiece) {
    // Labels, then a pointer to a root byte: the root's "." is one more piece.
    const Decoded toRoot = decodeAt(wireBytes("00 03 666f6f c000"), 1);
    EXPECT_EQ(toRoot.name, "foo..");
    EXPECT_EQ(toRoot.offset, 7u);
    // Only a pointer to the root is the root.
    EXPECT_EQ(decodeAt(wireBytes("00 c000"), 1).name, ".");
    // A target that itself ends in a pointer brings its whole name as the piece.
    EXPECT_EQ(decodeAt(wireBytes("03 636f6d 00 07 6578616d706c65 c000 03 777777 c005"), 15).name,
              "www.example.com");
    // A pointer into the middle of a label reads from there: the bytes decide, not the labels.
    EXPECT_EQ(decodeAt(wireBytes("04 61 02 6263 00 01 78 c002"), 6).name, "x.bc");
}

TEST(DNSLabelDecoderTest, BytesAbove127FailTheName) {
    EXPECT_FALSE(decodeAt(wireBytes("03 61e962 00"), 0).name);
    EXPECT_FALSE(decodeAt(wireBytes("01 ff c003 01 61 00"), 0).name) << "before a pointer";
    EXPECT_EQ(decodeAt(wireBytes("03 617f62 00"), 0).name,
              "a\x7f"
              "b");
}

TEST(DNSLabelDecoderTest, NamesBeyond255WireBytesAreDecodedAsWritten) {
    // The wire limit of 255 bytes is the network's business, not the codec's: a name one
    // byte over it, and labels over 63 bytes, come back as they were written.
    const std::string longest = std::string(63, 'a') + "." + std::string(63, 'b') + "." +
                                std::string(63, 'c') + "." + std::string(62, 'd');
    const auto over = DNSLabelEncoder::encode(longest);
    ASSERT_EQ(over.size(), 256u);
    EXPECT_EQ(decodeAt(over, 0).name, longest);
    const std::string longLabels = std::string(150, 'e') + "." + std::string(180, 'f');
    EXPECT_EQ(decodeAt(DNSLabelEncoder::encode(longLabels), 0).name, longLabels);
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
