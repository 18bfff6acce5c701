// The DNS settings changer over network preferences held in memory (InMemoryNetworkServices
// stands in for NetworkManager and systemd-resolved): backups made once, rollbacks, search
// domains, services that cannot take DNS, and backups that outlive the process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "InMemoryNetworkServices.h"
#include "helper/DNSModifyHelper.h"
#include "helper/HelperDefaults.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

using sysdns::DnsConfiguration;
using test::InMemoryNetworkServices;
using ::testing::HasSubstr;

class DNSModifyHelperTest : public ::testing::Test {
protected:
    DNSModifyHelperTest() : services(std::make_shared<InMemoryNetworkServices>()) {}

    std::string helperLog() const {
        return test::readFile(home.sysroot() / "var/lib/morvanecloud/tarnHelper.log");
    }
    DNSModifyHelper modifier() { return DNSModifyHelper(services); }

    test::TempHome home;
    std::shared_ptr<InMemoryNetworkServices> services;
};

TEST_F(DNSModifyHelperTest, SetTwiceThenRollBackRestoresTheStateBeforeTheFirstChange) {
    services->add("wifi", DnsConfiguration{{"192.0.2.1"}, {"corp.example", "lan"}});
    services->add("wired");  // DHCP: no configuration
    std::vector<std::string> posted;
    {
        auto changer = modifier();
        changer.notificationObserver = [&](const std::string& name) { posted.push_back(name); };
        ASSERT_TRUE(changer.setResolvers(std::vector<std::string>{"127.0.0.153"}));
        ASSERT_TRUE(changer.setResolvers(std::vector<std::string>{"198.51.100.7", "198.51.100.8"}));
    }
    EXPECT_EQ(posted, (std::vector<std::string>{"CONFIGURATION_CHANGED", "CONFIGURATION_CHANGED"}));
    EXPECT_EQ(*services->stored("wifi"),
              (DnsConfiguration{{"198.51.100.7", "198.51.100.8"}, {"corp.example", "lan"}}))
        << "search domains survive a change";
    EXPECT_EQ(*services->stored("wired"), (DnsConfiguration{{"198.51.100.7", "198.51.100.8"}, {}}));
    EXPECT_THAT(helperLog(), HasSubstr("Service wifi's configuration is backed up, values: "
                                       "{\"SearchDomains\":[\"corp.example\",\"lan\"],"
                                       "\"ServerAddresses\":[\"192.0.2.1\"]}"));
    EXPECT_THAT(helperLog(),
                HasSubstr("Service wifi's configuration was already there won't overwrite"));
    EXPECT_THAT(helperLog(),
                HasSubstr("Setting Service wired's resolvers to [198.51.100.7, 198.51.100.8]"));

    // The backups live in the helper's defaults file and outlive this object and process.
    ASSERT_TRUE(modifier().rollbackResolvers());
    EXPECT_EQ(*services->stored("wifi"),
              (DnsConfiguration{{"192.0.2.1"}, {"corp.example", "lan"}}));
    EXPECT_EQ(services->stored("wired"), std::nullopt) << "back to DHCP";
    EXPECT_THAT(helperLog(), HasSubstr("Setting Service wired's resolvers to DHCP"));
    EXPECT_EQ(HelperDefaults().objectForKey(DNSModifyHelper::backupKey("wifi")), std::nullopt);

    // A second rollback finds nothing and changes nothing.
    services->staged["wifi"].dns = DnsConfiguration{{"203.0.113.9"}, {"kept"}};
    services->commitAndApply();
    ASSERT_TRUE(modifier().rollbackResolvers());
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"203.0.113.9"}, {"kept"}}));
}

TEST_F(DNSModifyHelperTest, RollbackKeepsTheSearchDomainsOfThatTimeAndOnlyServersReturn) {
    services->add("wifi", DnsConfiguration{{"192.0.2.1"}, {"old.example"}});
    ASSERT_TRUE(
        modifier().setResolversForServices(std::vector<std::string>{"127.0.0.153"}, {"wifi"}));
    services->staged["wifi"].dns->searchDomains = {"new.example"};
    ASSERT_TRUE(modifier().rollbackResolversForServices({"wifi"}));
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"192.0.2.1"}, {"new.example"}}));
}

TEST_F(DNSModifyHelperTest, EmptyOrMissingAddressesMeanDHCPAndStillBackUp) {
    services->add("wifi", DnsConfiguration{{"192.0.2.1"}, {}});
    services->add("wired");
    ASSERT_TRUE(modifier().setResolversForServices(std::vector<std::string>{}, {"wifi"}));
    EXPECT_EQ(services->stored("wifi"), std::nullopt);
    ASSERT_TRUE(modifier().setResolversForServices(std::nullopt, {"wired"}));
    EXPECT_EQ(services->stored("wired"), std::nullopt);
    EXPECT_EQ(HelperDefaults().objectForKey(DNSModifyHelper::backupKey("wired")),
              nlohmann::json({{"ServerAddresses", nlohmann::json::array()}}));
    ASSERT_TRUE(modifier().rollbackResolversForServices({"wifi", "wired"}));
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"192.0.2.1"}, {}}));
    EXPECT_EQ(services->stored("wired"), std::nullopt);
}

TEST_F(DNSModifyHelperTest, ServicesThatCannotTakeDNSMakeTheRunFalseButTheOthersChange) {
    services->add("wifi", DnsConfiguration{{"192.0.2.1"}, {}});
    services->add("off", std::nullopt, /*enabled=*/false);
    services->add("nodns", std::nullopt, true, /*dnsEnabled=*/false);
    EXPECT_FALSE(modifier().setResolvers(std::vector<std::string>{"127.0.0.153"}));
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"127.0.0.153"}, {}}));
    EXPECT_THAT(helperLog(), HasSubstr("Service nodns is disabled"));
    EXPECT_THAT(helperLog(), ::testing::Not(HasSubstr("Service off")));
    EXPECT_EQ(HelperDefaults().objectForKey(DNSModifyHelper::backupKey("nodns")), std::nullopt);

    // Unknown identifiers are skipped and leave the result true.
    EXPECT_TRUE(modifier().setResolversForServices(std::vector<std::string>{"127.0.0.153"},
                                                   {"no-such-service", "wifi"}));
    EXPECT_TRUE(modifier().rollbackResolvers());
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"192.0.2.1"}, {}}));

    // A refused change is false and is committed with the rest.
    services->refuseSets = true;
    const int commits = services->commits;
    EXPECT_FALSE(modifier().setResolversForServices(std::vector<std::string>{"1.1.1.1"}, {"wifi"}));
    EXPECT_EQ(services->commits, commits + 1);
    EXPECT_THAT(helperLog(), HasSubstr("DynamicStore updated"));
}

TEST_F(DNSModifyHelperTest, ADamagedBackupFileCountsAsNoBackupAndIsReplaced) {
    services->add("wifi", DnsConfiguration{{"192.0.2.1"}, {}});
    test::writeFile(HelperDefaults().path(), "{ torn");
    ASSERT_TRUE(
        modifier().setResolversForServices(std::vector<std::string>{"127.0.0.153"}, {"wifi"}));
    ASSERT_TRUE(modifier().rollbackResolversForServices({"wifi"}));
    EXPECT_EQ(*services->stored("wifi"), (DnsConfiguration{{"192.0.2.1"}, {}}));
}

}  // namespace
}  // namespace morvane
