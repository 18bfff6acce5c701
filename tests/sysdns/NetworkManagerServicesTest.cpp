// NetworkManager's connections as network services, against NetworkManagerStandIn (a stand-in
// of the few D-Bus calls used; NetworkManager cannot run here) on a private system bus.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/TestEnvironment.h"
#include "sysdns/NetworkManagerServices.h"
#include "sysdns/NetworkManagerStandIn.h"
#include "sysdns/PrivateWorld.h"

namespace morvane::sysdns {
namespace {

const char* const kWired = "6b3f0f4e-2f0a-4c4e-9d57-0c6f4d2b8a11";
const char* const kWireless = "a7d2c1e0-5b8f-4a57-8e0d-3f1c9b6e2d44";

class NetworkManagerServicesTest : public ::testing::Test {
protected:
    void SetUp() override {
        bus_ = std::make_unique<test::PrivateSystemBus>(dir_.path() / "bus");
        std::string error;
        if (!bus_->start(error)) {
            GTEST_SKIP() << "no private system bus here: " << error;
        }
        standIn_ = std::make_unique<test::NetworkManagerStandIn>(dir_.path() / "resolv.conf");
        standIn_->addConnection(
            {kWired, "Wired connection 1", "eth0", {"192.0.2.1"}, {}, false, {"example.net"}});
        standIn_->addConnection(
            {kWireless, "Home", "wlan0", {"192.0.2.9"}, {"198.51.100.1"}, true, {}});
        ASSERT_TRUE(standIn_->start(error)) << error;
    }

    NetworkManagerServices::Options options() {
        NetworkManagerServices::Options options;
        options.lockFile = dir_.path() / "run/services.lock";
        return options;
    }

    ::morvane::test::TempDir dir_;
    std::unique_ptr<test::PrivateSystemBus> bus_;
    std::unique_ptr<test::NetworkManagerStandIn> standIn_;
};

TEST_F(NetworkManagerServicesTest, ConnectionsAreTheServicesByUuid) {
    NetworkManagerServices services(options());
    const auto all = services.currentServices();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].identifier, kWired);
    EXPECT_EQ(all[0].name, "Wired connection 1");
    EXPECT_TRUE(all[0].enabled && all[0].hasInterface && all[0].interfaceCarriesDns &&
                all[0].dnsEnabled);
    EXPECT_EQ(services.service(kWireless)->name, "Home");
    EXPECT_FALSE(services.service("00000000-0000-0000-0000-000000000000").has_value());
    EXPECT_FALSE(services.setDnsConfiguration("00000000-0000-0000-0000-000000000000",
                                              DnsConfiguration{{"192.0.2.53"}, {}}));
}

TEST_F(NetworkManagerServicesTest, DnsOfAProfileIsReadSetStoredAndPutIntoForce) {
    NetworkManagerServices services(options());
    // DHCP only, but with a search domain: a configuration all the same.
    auto wired = services.dnsConfiguration(kWired);
    ASSERT_TRUE(wired.has_value());
    EXPECT_TRUE(wired->serverAddresses.empty());
    EXPECT_EQ(wired->searchDomains, std::vector<std::string>{"example.net"});
    EXPECT_EQ(services.dnsConfiguration(kWireless)->serverAddresses,
              std::vector<std::string>{"198.51.100.1"});

    services.lock();
    ASSERT_TRUE(
        services.setDnsConfiguration(kWired, DnsConfiguration{{"127.0.0.153"}, {"example.net"}}));
    // Staged, not stored, until the commit.
    EXPECT_TRUE(standIn_->profile(kWired).dns.empty());
    services.unlock();
    ASSERT_TRUE(services.commitAndApply());
    const auto stored = standIn_->profile(kWired);
    EXPECT_EQ(stored.dns, std::vector<std::string>{"127.0.0.153"});
    EXPECT_TRUE(stored.ignoreAutoDns);
    EXPECT_EQ(stored.searches, std::vector<std::string>{"example.net"});
    EXPECT_EQ(standIn_->appliedServers(kWired), std::vector<std::string>{"127.0.0.153"});
    EXPECT_NE(::morvane::test::readFile(dir_.path() / "resolv.conf").find("nameserver 127.0.0.153"),
              std::string::npos);

    // None takes the profile back to DHCP, search domains and all.
    ASSERT_TRUE(services.setDnsConfiguration(kWired, std::nullopt));
    ASSERT_TRUE(services.commitAndApply());
    const auto back = standIn_->profile(kWired);
    EXPECT_TRUE(back.dns.empty());
    EXPECT_FALSE(back.ignoreAutoDns);
    EXPECT_TRUE(back.searches.empty());
    EXPECT_EQ(standIn_->appliedServers(kWired), std::vector<std::string>{"192.0.2.1"});
    EXPECT_FALSE(services.dnsConfiguration(kWired).has_value());
    // The other profile was not touched.
    EXPECT_EQ(standIn_->profile(kWireless).dns, std::vector<std::string>{"198.51.100.1"});
}

TEST_F(NetworkManagerServicesTest, TheLockMakesASecondChangerWait) {
    NetworkManagerServices first(options());
    NetworkManagerServices second(options());
    first.lock();
    std::atomic<bool> entered{false};
    std::thread waiter([&] {
        second.lock();
        entered = true;
        second.unlock();
    });
    // Not a timing assertion: the waiter cannot get in while the lock is held, however long.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(entered.load());
    first.unlock();
    waiter.join();
    EXPECT_TRUE(entered.load());
}

}  // namespace
}  // namespace morvane::sysdns
