#include <gtest/gtest.h>

#include <vector>

#include "ip/AddressPatterns.h"
#include "ip/IPv6.h"

namespace morvane::ip {
namespace {

using Groups = std::vector<std::string>;

TEST(IPv6Test, EmbeddedIPv4TailBecomesTwoGroups) {
    const IPv6 address("::ffff:192.168.1.1");
    EXPECT_TRUE(address.valid());
    EXPECT_TRUE(address.v4());
    EXPECT_EQ(address.parsedAddress(), (Groups{"0", "0", "0", "0", "0", "ffff", "c0a8", "101"}));
    EXPECT_EQ(address.v4inv6(), "::ffff:192.168.1.1");
    EXPECT_EQ(address.correctForm(), "::ffff:c0a8:101");

    const IPv6 zeros("::ffff:192.168.001.1");
    EXPECT_FALSE(zeros.valid());
    EXPECT_EQ(zeros.error(), "IPv4 addresses cannot have leading zeroes");
    EXPECT_FALSE(zeros.correctForm());
    // A lone "0" group is no leading zero.
    EXPECT_TRUE(IPv6("::ffff:0.0.0.0").valid());
}

TEST(IPv6Test, EachMalformationHasItsError) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"1:2:3:4:5:6:7:8::", "Error parsing groups"},
        {"1::2::3", "Too many :: groups found"},
        {"12345::", "Address failed regex: 12345"},
        {":::1", "Address failed regex: :::"},
        {"1:2:3:4:5:6:7:", "Address failed regex: 7:"},
        {":1:2:3:4:5:6:7", "Address failed regex: :1"},
        {"::/129", "Invalid subnet mask"},
        {"::/", "Invalid subnet mask"},
        {"1:2/3::", "Invalid subnet mask"},
        {"1:2:3:4:5:6:7", "Incorrect number of groups found"},
        {"1:2:3:4:5:6:7:8:9", "Incorrect number of groups found"},
        {"g::", "Bad character detected in address: g"},
        {"1.2.3::x", "Bad characters detected in address: ..x"},
    };
    for (const auto& [text, error] : cases) {
        const IPv6 address(text);
        EXPECT_FALSE(address.valid()) << text;
        EXPECT_EQ(address.error(), error) << text;
        EXPECT_TRUE(address.parsedAddress().empty()) << text;
        EXPECT_FALSE(address.correctForm()) << text;
        EXPECT_EQ(address.bigInteger(), BigInt()) << text;
    }
}

TEST(IPv6Test, MalformedShapesAreNeverSkipped) {
    // The matcher is only run when the quick test allows a match: every text of up to six
    // characters from the classes that matter must agree with ICU.
    const std::u16string alphabet = u"0aF:/%g\n";
    std::vector<std::u16string> texts = {u""};
    int missed = 0;
    int checked = 0;
    for (int length = 1; length <= 6; ++length) {
        std::vector<std::u16string> longer;
        for (const std::u16string& text : texts) {
            for (char16_t c : alphabet) {
                longer.push_back(text + c);
            }
        }
        texts = std::move(longer);
        for (const std::u16string& text : texts) {
            const icu::UnicodeString u(text.data(), static_cast<int32_t>(text.size()));
            if (!patterns::mayBeMalformed(u) && !patterns::ipv6Malformed().findAll(u).empty()) {
                ++missed;
            }
            ++checked;
        }
    }
    EXPECT_EQ(missed, 0);
    EXPECT_GT(checked, 290000);
}

TEST(IPv6Test, ZoneAndSubnetAreCutOff) {
    const IPv6 zoned("fe80::1%en0");
    EXPECT_TRUE(zoned.valid());
    EXPECT_EQ(zoned.zone(), "%en0");
    EXPECT_EQ(zoned.addressMinusSuffix(), "fe80::1");

    // A zone behind the suffix goes with the suffix.
    const IPv6 both("fe80::1/64%en0");
    EXPECT_TRUE(both.valid());
    EXPECT_EQ(both.subnetMask(), 64);
    EXPECT_EQ(both.zone(), "");
    EXPECT_EQ(both.addressMinusSuffix(), "fe80::1");

    const IPv6 zoneFirst("fe80::1%en0/64");
    EXPECT_EQ(zoneFirst.subnetMask(), 64);
    EXPECT_EQ(zoneFirst.zone(), "%en0");
}

TEST(IPv6Test, CorrectFormCompactsTheLongestFirstRun) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"0:0:0:0:0:0:0:0", "::"},
        {"1:0:0:0:0:0:0:0", "1::"},
        {"0:0:0:0:0:0:0:1", "::1"},
        {"1:0:0:2:0:0:0:3", "1:0:0:2::3"},
        {"1:0:0:2:0:0:3:4", "1::2:0:0:3:4"},
        {"1:0:2:0:3:0:4:0", "1:0:2:0:3:0:4:0"},
        {"0001:0db8:0000:0000:0000:0000:0000:0001", "1:db8::1"},
    };
    for (const auto& [text, form] : cases) {
        EXPECT_EQ(IPv6(text).correctForm(), form) << text;
    }
    const IPv6 upper("ABCD::");
    EXPECT_TRUE(upper.valid());
    EXPECT_EQ(upper.parsedAddress().front(), "abcd");
    EXPECT_FALSE(upper.correct());
    EXPECT_TRUE(IPv6("2001:db8::1/32").correct());
    EXPECT_FALSE(IPv6("2001:db8::1/032").correct());
    EXPECT_TRUE(IPv6("2001:0db8:0000:0000:0000:0000:0000:0001").canonical());
}

TEST(IPv6Test, ElisionIsRecorded) {
    const IPv6 address("1:2::7:8");
    EXPECT_EQ(address.elidedGroups(), 4);
    EXPECT_EQ(address.elisionBegin(), 2);
    EXPECT_EQ(address.elisionEnd(), 6);
    EXPECT_EQ(IPv6("1:2:3:4:5:6:7:8").elidedGroups(), 0);
}

TEST(IPv6Test, NumericAndReverseForms) {
    const IPv6 address("2001:db8::1/32");
    EXPECT_EQ(address.reversedForm(), "8.b.d.0.1.0.0.2.ip6.arpa.");
    EXPECT_EQ(IPv6("2001:db8::1/3").reversedForm(), ".ip6.arpa.");
    EXPECT_EQ(address.canonicalForm(), "2001:0db8:0000:0000:0000:0000:0000:0001");
    EXPECT_EQ(address.decimal(), "08193:03512:00000:00000:00000:00000:00000:00001");
    EXPECT_EQ(address.bigInteger().toStringWithRadix(16), "20010DB8000000000000000000000001");
    EXPECT_EQ(address.bitsWithStart(0, 16), BigInt::createWithInt(0x2001));
    EXPECT_EQ(address.bitsBase16WithStart(16, 32), "0DB8");
    EXPECT_FALSE(address.bitsBase16WithStart(0, 6));
    EXPECT_EQ(address.binaryZeroPad().size(), 128u);
    EXPECT_EQ(address.data(),
              (std::vector<uint8_t>{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(IPv6("::1").data().size(), 16u);
    EXPECT_FALSE(IPv6("::g").decimal());
}

TEST(IPv6Test, SubnetsStartAndEnd) {
    const IPv6 network("2001:db8::/32");
    EXPECT_EQ(network.startAddress()->correctForm(), "2001:db8::");
    EXPECT_EQ(network.endAddress()->correctForm(), "2001:db8:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_TRUE(IPv6("2001:db8:1::5").isInSubnet(network));
    EXPECT_FALSE(IPv6("2001:db9::5").isInSubnet(network));
    EXPECT_FALSE(network.isInSubnet(IPv6("2001:db8:1::5")));

    const BigInt top = BigInt::createWithString(std::string(32, 'f'), 16);
    EXPECT_EQ(IPv6::fromBigInteger(top).address(), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_EQ(IPv6::fromBigInteger(BigInt()).correctForm(), "::");
}

}  // namespace
}  // namespace morvane::ip
