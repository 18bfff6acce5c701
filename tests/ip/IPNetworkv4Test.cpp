#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "ip/IPAddressParsingError.h"
#include "ip/IPNetworkv4.h"

namespace morvane::ip {
namespace {

std::vector<std::string> texts(const IPAddressv4List& list) {
    std::vector<std::string> out;
    for (const IPAddressv4& address : list) {
        out.push_back(address.address());
    }
    return out;
}

bool rejected(const char* text) {
    try {
        IPNetworkv4 network(text);
        return false;
    } catch (const IPAddressParsingError& e) {
        return e.kind == IPAddressParsingError::ErrorKind::invalidValue;
    }
}

TEST(IPAddressv4Test, ReadsSignedGroupsAndClassifies) {
    EXPECT_EQ(IPAddressv4("+1.2.3.4").integer(), 0x01020304u);
    EXPECT_EQ(IPAddressv4("1.2.3.-0").integer(), 0x01020300u);
    EXPECT_EQ(IPAddressv4("1..2.3.4.").integer(), 0x01020304u);
    EXPECT_EQ(IPAddressv4("+1.2.3.4").address(), "+1.2.3.4");
    EXPECT_EQ(IPAddressv4(uint32_t{0xC0000201}).address(), "192.0.2.1");
    EXPECT_EQ(IPAddressv4("10.0.0.1").reversePointer(), "1.0.0.10.in-addr.arpa");
    EXPECT_EQ(IPAddressv4("10.0.0.1").version(), 4);

    EXPECT_TRUE(IPAddressv4("127.0.0.0").isLoopback());
    EXPECT_TRUE(IPAddressv4("127.255.255.255").isLoopback());
    EXPECT_FALSE(IPAddressv4("126.255.255.255").isLoopback());
    EXPECT_FALSE(IPAddressv4("128.0.0.1").isLoopback());
    EXPECT_TRUE(IPAddressv4("172.16.0.0").isPrivate());
    EXPECT_TRUE(IPAddressv4("172.31.255.255").isPrivate());
    EXPECT_FALSE(IPAddressv4("172.32.0.0").isPrivate());
    EXPECT_TRUE(IPAddressv4("192.168.4.4").isPrivate());
    EXPECT_TRUE(IPAddressv4("224.0.0.1").isMulticast());
    EXPECT_FALSE(IPAddressv4("240.0.0.1").isMulticast());
    EXPECT_TRUE(IPAddressv4("240.0.0.1").isReserved());
    EXPECT_TRUE(IPAddressv4("169.254.1.1").isLinkLocal());

    for (const char* text : {"256.1.1.1", "1.2.3", "1.2.3.4.5", "1.2.3.x", "1.2.3.+-4", "",
                             "1.2.3.99999999999999999999", " 1.2.3.4"}) {
        EXPECT_THROW(IPAddressv4{text}, IPAddressParsingError) << text;
    }
}

TEST(IPNetworkv4Test, SubnetFromAnAddressWithHostBits) {
    const IPNetworkv4 network("10.1.2.3/8");
    EXPECT_FALSE(network.isRange());
    EXPECT_EQ(network.prefix(), 8);
    EXPECT_EQ(network.address(), "10.1.2.3");
    EXPECT_EQ(network.networkAddress().address(), "10.0.0.0");
    EXPECT_EQ(network.broadcastAddress().address(), "10.255.255.255");
    EXPECT_EQ(network.netMask()->address(), "255.0.0.0");
    EXPECT_EQ(network.withPrefix(), "10.1.2.3/8");
    EXPECT_EQ(network.withNetMask(), "10.1.2.3/255.0.0.0");

    // Sixteen million entries that exist only when asked for.
    EXPECT_EQ(network.count(), 16777216);
    EXPECT_EQ(network.hosts()[0].address(), "10.0.0.0");
    EXPECT_EQ(network.hosts()[16777215].address(), "10.255.255.255");
    EXPECT_EQ(network.usableHosts().count(), 16777214);
    EXPECT_EQ(network.usableHosts().front().address(), "10.0.0.1");
    EXPECT_EQ(network.usableHosts().back().address(), "10.255.255.254");
    EXPECT_EQ((*(network.hosts().begin() + 300)).address(), "10.0.1.44");
    EXPECT_EQ(network.hosts().end() - network.hosts().begin(), 16777216);
    EXPECT_THROW(network.hosts()[16777216], std::out_of_range);

    EXPECT_EQ(IPNetworkv4("1.2.3.4/8/99").prefix(), 8);
    EXPECT_EQ(IPNetworkv4("0.0.0.0/1").count(), int64_t{1} << 31);
}

TEST(IPNetworkv4Test, SmallSubnetsHaveNoUsableEdges) {
    const IPNetworkv4 host("1.2.3.4/32");
    EXPECT_EQ(host.count(), 1);
    EXPECT_TRUE(host.usableHosts().empty());

    const IPNetworkv4 pair("1.2.3.5/31");
    EXPECT_EQ(pair.count(), 2);
    EXPECT_EQ(texts(pair.hosts()), (std::vector<std::string>{"1.2.3.4", "1.2.3.5"}));
    EXPECT_TRUE(pair.usableHosts().empty());

    const IPNetworkv4 four("1.2.3.4/30");
    EXPECT_EQ(four.count(), 4);
    EXPECT_EQ(texts(four.usableHosts()), (std::vector<std::string>{"1.2.3.5", "1.2.3.6"}));
}

TEST(IPNetworkv4Test, RangesKeepTheirEndsAsWritten) {
    const IPNetworkv4 range("1.2.3.4-1.2.3.9");
    EXPECT_TRUE(range.isRange());
    EXPECT_EQ(range.count(), 6);
    EXPECT_EQ(range.usableHosts().count(), 6);
    EXPECT_EQ(texts(range.usableHosts()).back(), "1.2.3.9");
    EXPECT_FALSE(range.prefix());
    EXPECT_FALSE(range.netMask());
    EXPECT_FALSE(range.withPrefix());
    EXPECT_FALSE(range.address());

    const IPNetworkv4 reversed("1.2.3.9-1.2.3.4");
    EXPECT_EQ(reversed.count(), 0);
    EXPECT_TRUE(reversed.hosts().empty());
    EXPECT_EQ(reversed.networkAddress().address(), "1.2.3.9");
    EXPECT_EQ(std::distance(reversed.hosts().begin(), reversed.hosts().end()), 0);

    EXPECT_EQ(IPNetworkv4("1.2.3.4-5.6.7.8-9.9.9.9").broadcastAddress().address(), "5.6.7.8");
    EXPECT_EQ(IPNetworkv4("0.0.0.0-255.255.255.255").count(), int64_t{1} << 32);
    EXPECT_EQ(IPNetworkv4("0.0.0.0-255.255.255.255").hosts().back().address(), "255.255.255.255");
}

TEST(IPNetworkv4Test, SingleAddressIsItsOwnUsableHost) {
    const IPNetworkv4 single("+1.2.3.4");
    EXPECT_EQ(single.count(), 1);
    EXPECT_EQ(single.prefix(), 32);
    EXPECT_EQ(single.netMask()->address(), "255.255.255.255");
    EXPECT_EQ(texts(single.usableHosts()), (std::vector<std::string>{"+1.2.3.4"}));
    EXPECT_EQ(single.withPrefix(), "+1.2.3.4/32");
    EXPECT_EQ(single.withNetMask(), "+1.2.3.4/255.255.255.255");
    EXPECT_FALSE(single.address());
}

TEST(IPNetworkv4Test, EveryBadTextIsAnInvalidValue) {
    for (const char* text : {"1.2.3.4/0", "1.2.3.4/33", "1.2.3.4/", "1.2.3.4/abc", "/24",
                             "1.2.3.4-", "-1.2.3.4", "1.2.3.4-x", "256.1.1.1", "1.2.3", "1.2.3.4.5",
                             "1.2.3.-0-1.2.3.4", "", "/", "-", "a/b-c"}) {
        EXPECT_TRUE(rejected(text)) << text;
    }
}

}  // namespace
}  // namespace morvane::ip
