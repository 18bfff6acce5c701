#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "ip/IPAddress.h"
#include "ip/IPv4.h"
#include "ip/IPv6.h"
#include "ip/NamedException.h"
#include "ip/TextHelpers.h"

namespace morvane::ip {
namespace {

TEST(IPAddressTest, TriesIPv4ThenKeepsIPv6) {
    const IPAddress v4("10.1.2.3");
    EXPECT_TRUE(v4.valid());
    EXPECT_TRUE(v4.v4());
    EXPECT_NE(dynamic_cast<const IPv4*>(v4.addrs().get()), nullptr);

    const IPAddress v6("fe80::1");
    EXPECT_TRUE(v6.valid());
    EXPECT_EQ(v6.groups(), 8);
    EXPECT_NE(dynamic_cast<const IPv6*>(v6.addrs().get()), nullptr);

    // An invalid text reports what IPv6 made of it: here the dots are the bad characters.
    const IPAddress bad("256.1.1.1");
    EXPECT_FALSE(bad.valid());
    EXPECT_EQ(bad.error(), "Bad characters detected in address: ...");
    EXPECT_FALSE(bad.correctForm());
}

TEST(IPAddressTest, BuiltFromNetworkBytes) {
    const uint8_t v4[] = {192, 0, 2, 1};
    const IPAddress fromFour = IPAddress::addressWithData(v4);
    EXPECT_EQ(fromFour.address(), "192.0.2.1");
    EXPECT_EQ(fromFour.data(), (std::vector<uint8_t>{192, 0, 2, 1}));

    const uint8_t high[] = {255, 255, 255, 255};
    EXPECT_EQ(IPAddress::addressWithData(high).address(), "255.255.255.255");

    const uint8_t v6[] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const IPAddress fromSixteen = IPAddress::addressWithData(v6);
    EXPECT_TRUE(fromSixteen.valid());
    EXPECT_EQ(fromSixteen.correctForm(), "2001:db8::1");
    EXPECT_EQ(fromSixteen.data(), std::vector<uint8_t>(std::begin(v6), std::end(v6)));

    const uint8_t five[] = {1, 2, 3, 4, 5};
    try {
        IPAddress::addressWithData(five);
        ADD_FAILURE() << "five bytes were accepted";
    } catch (const NamedException& e) {
        EXPECT_EQ(e.name(), "ipInvalidLength");
        EXPECT_EQ(e.reason(),
                  "The provided data length does not correspond to neighter a IPv4 nor a IPv6 "
                  "address");
    }
    EXPECT_THROW(IPAddress::addressWithData(std::span<const uint8_t>()), NamedException);
}

TEST(IPAddressTest, ForwardsToTheWrappedAddress) {
    const IPAddress network = IPAddress::addressFromString("10.0.0.0/8");
    const IPAddress host(std::make_shared<const IPv4>("10.9.8.7"));
    EXPECT_TRUE(host.isInSubnet(network));
    EXPECT_EQ(network.startAddress()->address(), "10.0.0.0");
    EXPECT_EQ(network.mask(), "00001010");
    EXPECT_EQ(host.reversedForm(), "7.8.9.10.in-addr.arpa.");
    EXPECT_THROW(IPAddress(std::shared_ptr<const IPBaseAddress>()), std::invalid_argument);
}

TEST(IPAddressTest, PadsByUtf16Units) {
    EXPECT_EQ(stringByPaddingLeftToLength("7", 4, "0"), "0007");
    EXPECT_EQ(stringByPaddingLeftToLength("7", 6, "ab"), "ababa7");
    EXPECT_EQ(stringByPaddingLeftToLength("12345", 3, "0"), "12345");
    EXPECT_EQ(stringByPaddingLeftToLength("é", 2, "0"), "0é");
}

TEST(IPAddressTest, ThreadsParseSideBySide) {
    // Each thread has matchers of its own; results must not depend on who else is parsing.
    const std::vector<std::string> texts = {"10.1.2.3/8", "fe80::1%en0", "::ffff:1.2.3.4",
                                            "1::2::3",    "256.1.1.1",   "2001:db8::1/32"};
    std::vector<std::string> expected;
    for (const std::string& text : texts) {
        IPAddress a(text);
        expected.push_back(a.correctForm().value_or(a.error().value_or("")));
    }
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 300; ++round) {
                for (size_t i = 0; i < texts.size(); ++i) {
                    IPAddress a(texts[i]);
                    if (a.correctForm().value_or(a.error().value_or("")) != expected[i]) {
                        ++mismatches[static_cast<size_t>(t)];
                    }
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace morvane::ip
