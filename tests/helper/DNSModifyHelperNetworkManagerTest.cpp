// The DNS settings changer over NetworkManager's connections (sysdns::NetworkManagerServices),
// as the helper runs it where NetworkManager is the network's manager. NetworkManager cannot
// run here: NetworkManagerStandIn stands in for its D-Bus API on a private system bus
// (PrivateSystemBus), and what a profile stores and what its device runs with are read back
// from the stand-in.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TwoConnections.h"
#include "helper/DNSModifyHelper.h"
#include "helper/HelperDefaults.h"
#include "support/TestEnvironment.h"
#include "sysdns/NetworkManagerServices.h"
#include "sysdns/NetworkManagerStandIn.h"
#include "sysdns/PrivateWorld.h"

namespace morvane {
namespace {

using Strings = std::vector<std::string>;
using test::kWired;
using test::kWireless;

const char* const kUnknown = "00000000-0000-0000-0000-000000000000";

/// What a test compares: the DNS part of a stored profile and what its device runs with.
struct Seen {
    Strings dns;
    bool ignoreAutoDns;
    Strings searches;
    Strings applied;
    bool operator==(const Seen&) const = default;
};

void PrintTo(const Seen& seen, std::ostream* out) {
    const auto list = [](const Strings& items) {
        std::string text;
        for (const auto& item : items) {
            text += (text.empty() ? "" : ",") + item;
        }
        return "[" + text + "]";
    };
    *out << "dns " << list(seen.dns) << (seen.ignoreAutoDns ? " ignore-auto-dns" : "") << " search "
         << list(seen.searches) << " applied " << list(seen.applied);
}

class DNSModifyHelperNetworkManagerTest : public test::TwoConnectionsTest {
protected:
    void SetUp() override {
        TwoConnectionsTest::SetUp();
        if (!ready()) {
            return;
        }
        wiredBefore = seen(kWired);
        wirelessBefore = seen(kWireless);
    }

    DNSModifyHelper modifier() {
        sysdns::NetworkManagerServices::Options options;
        options.lockFile = home.sysroot() / "run/morvanecloud/network-services.lock";
        return DNSModifyHelper(std::make_shared<sysdns::NetworkManagerServices>(options));
    }

    Seen seen(const std::string& uuid) {
        const auto profile = networkManager->profile(uuid);
        return {profile.dns, profile.ignoreAutoDns, profile.searches,
                networkManager->appliedServers(uuid)};
    }
    std::optional<nlohmann::json> backup(const std::string& uuid) const {
        return HelperDefaults().objectForKey(DNSModifyHelper::backupKey(uuid));
    }

    Seen wiredBefore;
    Seen wirelessBefore;
};

TEST_F(DNSModifyHelperNetworkManagerTest, SetTwiceThenRollBackReturnsTheProfileToItsFirstState) {
    ASSERT_TRUE(modifier().setResolversForServices(Strings{"127.0.0.153"}, {kWired}));
    EXPECT_EQ(seen(kWired), (Seen{{"127.0.0.153"}, true, {"corp.example", "lan"}, {"127.0.0.153"}}))
        << "stored in the profile, in force on its device, search domains kept";
    ASSERT_TRUE(
        modifier().setResolversForServices(Strings{"198.51.100.7", "198.51.100.8"}, {kWired}));
    EXPECT_EQ(seen(kWired), (Seen{{"198.51.100.7", "198.51.100.8"},
                                  true,
                                  {"corp.example", "lan"},
                                  {"198.51.100.7", "198.51.100.8"}}));
    // The backup is of the state before the first change, not of the first change.
    EXPECT_EQ(backup(kWired), nlohmann::json::parse(R"({"ServerAddresses": ["192.0.2.53"],
                                                        "SearchDomains": ["corp.example", "lan"]})"));
    EXPECT_EQ(seen(kWireless), wirelessBefore);

    ASSERT_TRUE(modifier().rollbackResolversForServices({kWired}));
    EXPECT_EQ(seen(kWired), wiredBefore);
    EXPECT_FALSE(backup(kWired).has_value());
    // A second rollback finds no backup and leaves the profile as it is.
    ASSERT_TRUE(modifier().rollbackResolversForServices({kWired}));
    EXPECT_EQ(seen(kWired), wiredBefore);
    EXPECT_EQ(networkManager->profile(kWired).searches, (Strings{"corp.example", "lan"}));
}

TEST_F(DNSModifyHelperNetworkManagerTest, SearchDomainsChangedMeanwhileStayAfterTheRollback) {
    ASSERT_TRUE(modifier().setResolversForServices(Strings{"127.0.0.153"}, {kWired}));
    // Someone edits the profile's search domains while our servers are in force.
    sysdns::NetworkManagerServices::Options options;
    options.lockFile = home.sysroot() / "run/morvanecloud/network-services.lock";
    sysdns::NetworkManagerServices services(options);
    ASSERT_TRUE(services.setDnsConfiguration(
        kWired, sysdns::DnsConfiguration{{"127.0.0.153"}, {"office.example"}}));
    ASSERT_TRUE(services.commitAndApply());

    ASSERT_TRUE(modifier().rollbackResolversForServices({kWired}));
    // Only the server list comes back from the backup.
    EXPECT_EQ(seen(kWired), (Seen{{"192.0.2.53"}, true, {"office.example"}, {"192.0.2.53"}}));
}

TEST_F(DNSModifyHelperNetworkManagerTest, ADhcpOnlyProfileGoesBackToDhcp) {
    ASSERT_TRUE(modifier().setResolversForServices(Strings{"127.0.0.153"}, {kWireless}));
    EXPECT_EQ(seen(kWireless), (Seen{{"127.0.0.153"}, true, {}, {"127.0.0.153"}}))
        << "servers of its own replace DHCP's";
    EXPECT_EQ(backup(kWireless), nlohmann::json::parse(R"({"ServerAddresses": []})"));

    ASSERT_TRUE(modifier().rollbackResolversForServices({kWireless}));
    EXPECT_EQ(seen(kWireless), wirelessBefore);
    EXPECT_EQ(seen(kWireless).applied, (Strings{"192.0.2.9"})) << "DHCP's server again";
    EXPECT_EQ(seen(kWired), wiredBefore);
}

TEST_F(DNSModifyHelperNetworkManagerTest, AnUnknownServiceIsSkippedAndTheOthersAreLeftAlone) {
    // Only the unknown one: nothing changes anywhere, and nothing is backed up.
    EXPECT_TRUE(modifier().setResolversForServices(Strings{"127.0.0.153"}, {kUnknown}));
    EXPECT_EQ(seen(kWired), wiredBefore);
    EXPECT_EQ(seen(kWireless), wirelessBefore);
    EXPECT_FALSE(backup(kUnknown).has_value());
    EXPECT_FALSE(backup(kWired).has_value());

    // Beside a known one: the known one alone changes.
    EXPECT_TRUE(modifier().setResolversForServices(Strings{"127.0.0.153"}, {kUnknown, kWireless}));
    EXPECT_EQ(seen(kWireless).applied, (Strings{"127.0.0.153"}));
    EXPECT_EQ(seen(kWired), wiredBefore);
    EXPECT_FALSE(backup(kUnknown).has_value());

    EXPECT_TRUE(modifier().rollbackResolversForServices({kUnknown, kWireless}));
    EXPECT_EQ(seen(kWireless), wirelessBefore);
    EXPECT_EQ(seen(kWired), wiredBefore);
}

TEST_F(DNSModifyHelperNetworkManagerTest, AllConnectionsChangeAndComeBackTogether) {
    auto changer = modifier();
    Strings posted;
    changer.notificationObserver = [&](const std::string& name) { posted.push_back(name); };
    ASSERT_TRUE(changer.setResolvers(Strings{"127.0.0.153"}));
    ASSERT_TRUE(changer.setResolvers(Strings{"198.51.100.7"}));
    EXPECT_EQ(seen(kWired).applied, (Strings{"198.51.100.7"}));
    EXPECT_EQ(seen(kWireless).applied, (Strings{"198.51.100.7"}));
    EXPECT_EQ(seen(kWired).searches, (Strings{"corp.example", "lan"}));
    EXPECT_NE(test::readFile(home.root() / "resolv.conf").find("nameserver 198.51.100.7"),
              std::string::npos);

    ASSERT_TRUE(changer.rollbackResolvers());
    EXPECT_EQ(seen(kWired), wiredBefore);
    EXPECT_EQ(seen(kWireless), wirelessBefore);
    EXPECT_EQ(posted,
              (Strings{"CONFIGURATION_CHANGED", "CONFIGURATION_CHANGED", "CONFIGURATION_CHANGED"}));
}

}  // namespace
}  // namespace morvane
