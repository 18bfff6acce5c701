#include <gtest/gtest.h>

#include <vector>

#include "ip/IPv4.h"

namespace morvane::ip {
namespace {

using Groups = std::vector<std::string>;

TEST(IPv4Test, SuffixOfOneOrTwoDigitsIsTheSubnet) {
    const IPv4 address("192.168.0.1/24");
    EXPECT_TRUE(address.valid());
    EXPECT_EQ(address.subnetMask(), 24);
    EXPECT_EQ(address.subnet(), "/24");
    EXPECT_EQ(address.parsedSubnet(), "24");
    EXPECT_EQ(address.addressMinusSufix(), "192.168.0.1");
    EXPECT_TRUE(address.correct());

    const IPv4 tooWide("1.2.3.4/33");
    EXPECT_FALSE(tooWide.valid());
    EXPECT_EQ(tooWide.error(), "Invalid subnet mask");
    EXPECT_FALSE(tooWide.addressMinusSufix());
    EXPECT_TRUE(tooWide.parsedAddress().empty());

    // Three digits are no suffix at all, so the whole text fails as an address.
    const IPv4 threeDigits("1.2.3.4/123");
    EXPECT_EQ(threeDigits.error(), "Invalid IPv4 Address");
    EXPECT_EQ(threeDigits.subnetMask(), 32);

    // Written "/08", the suffix is read but not correct.
    const IPv4 padded("10.0.0.0/08");
    EXPECT_TRUE(padded.valid());
    EXPECT_EQ(padded.subnet(), "/8");
    EXPECT_FALSE(padded.correct());
}

TEST(IPv4Test, GroupsOutsideTheRangeOrCountAreRejected) {
    for (const char* text :
         {"256.1.1.1", "1.2.3", "1.2.3.4.5", "1..2.3", "a.b.c.d", "", " 1.2.3.4"}) {
        const IPv4 address(text);
        EXPECT_FALSE(address.valid()) << text;
        EXPECT_EQ(address.error(), "Invalid IPv4 Address") << text;
        EXPECT_EQ(address.bigInteger(), BigInt()) << text;
    }
    EXPECT_EQ(IPv4("1..2.3").parsedAddress(), (Groups{"1", "", "2", "3"}));
}

TEST(IPv4Test, LeadingZerosAreValidButNotCorrect) {
    const IPv4 address("010.1.1.1");
    EXPECT_TRUE(address.valid());
    EXPECT_FALSE(address.correct());
    EXPECT_EQ(address.correctForm(), "10.1.1.1");
    EXPECT_EQ(address.parsedAddress(), (Groups{"010", "1", "1", "1"}));
    EXPECT_EQ(address.bigInteger(), BigInt::createWithInt(0x0A010101));
}

TEST(IPv4Test, EveryFormOfOneAddress) {
    const IPv4 address("10.1.2.3");
    EXPECT_EQ(address.correctForm(), "10.1.2.3");
    EXPECT_EQ(address.bigInteger().toStringWithRadix(10), "167838211");
    EXPECT_EQ(address.binaryZeroPad(), "00001010000000010000001000000011");
    EXPECT_EQ(address.hex(), "0a:01:02:03");
    EXPECT_EQ(address.v6Group(), "a01:203");
    EXPECT_EQ(address.reversedForm(), "3.2.1.10.in-addr.arpa.");
    EXPECT_EQ(address.data(), (std::vector<uint8_t>{10, 1, 2, 3}));
    EXPECT_EQ(address.bitsBase2WithStart(4, 8), "1010");
    EXPECT_EQ(address.bitsBase2WithStart(30, 40), "11");
    EXPECT_EQ(IPv4("255.255.255.255").bigInteger().toStringWithRadix(10), "4294967295");
}

TEST(IPv4Test, BuiltFromNumbers) {
    EXPECT_EQ(IPv4::ipv4FromInteger(0xC0000201).address(), "192.0.2.1");
    EXPECT_EQ(IPv4::ipv4FromInteger(0).address(), "0.0.0.0");
    EXPECT_EQ(IPv4::ipv4FromHex("c0:a8:01:01").address(), "192.168.1.1");
    EXPECT_EQ(IPv4::ipv4FromHex("1:02").address(), "0.0.1.2");
    // The unsigned value survives the trip through the signed low word.
    const BigInt allOnes = BigInt::createWithString("4294967295", 10);
    EXPECT_EQ(IPv4::fromBigInteger(allOnes).address(), "255.255.255.255");
}

TEST(IPv4Test, SubnetsStartAndEnd) {
    const IPv4 host("10.1.2.3/8");
    EXPECT_EQ(host.mask(), "00001010");
    EXPECT_EQ(host.startAddress()->address(), "10.0.0.0");
    EXPECT_EQ(host.endAddress()->address(), "10.255.255.255");
    EXPECT_EQ(IPv4("1.2.3.4/0").startAddress()->address(), "0.0.0.0");
    EXPECT_EQ(IPv4("1.2.3.4/0").endAddress()->address(), "255.255.255.255");
    EXPECT_EQ(IPv4("1.2.3.4/32").endAddress()->address(), "1.2.3.4");

    const IPv4 single("10.1.2.3/32");
    const IPv4 network("10.0.0.0/8");
    EXPECT_TRUE(single.isInSubnet(network));
    EXPECT_FALSE(network.isInSubnet(single));
    EXPECT_FALSE(IPv4("11.0.0.1").isInSubnet(network));
    EXPECT_TRUE(network.isInSubnet(network));
}

}  // namespace
}  // namespace morvane::ip
