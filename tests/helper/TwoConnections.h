#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/TestEnvironment.h"
#include "sysdns/NetworkManagerStandIn.h"
#include "sysdns/PrivateWorld.h"

namespace morvane::test {

/// The machine of the helper's tests against NetworkManager: a wired connection whose own
/// servers replace DHCP's, with search domains of its own, and a wireless one on DHCP alone.
inline constexpr const char* kWired = "6b3f0f4e-2f0a-4c4e-9d57-0c6f4d2b8a11";
inline constexpr const char* kWireless = "a7d2c1e0-5b8f-4a57-8e0d-3f1c9b6e2d44";

/// A temporary home and sysroot, a private system bus, and NetworkManagerStandIn on it with
/// those two connections (NetworkManager itself cannot run here), writing the resolv.conf its
/// devices run with to "resolv.conf" of the home's folder. Skipped where no dbus-daemon runs.
class TwoConnectionsTest : public ::testing::Test {
protected:
    void SetUp() override {
        bus = std::make_unique<sysdns::test::PrivateSystemBus>(home.root() / "bus");
        std::string error;
        if (!bus->start(error)) {
            GTEST_SKIP() << "no private system bus here: " << error;
        }
        networkManager =
            std::make_unique<sysdns::test::NetworkManagerStandIn>(home.root() / "resolv.conf");
        networkManager->addConnection({kWired,
                                       "Wired connection 1",
                                       "eth0",
                                       {"192.0.2.1"},
                                       {"192.0.2.53"},
                                       true,
                                       {"corp.example", "lan"}});
        networkManager->addConnection({kWireless, "Home", "wlan0", {"192.0.2.9"}, {}, false, {}});
        ASSERT_TRUE(networkManager->start(error)) << error;
    }
    /// For a derived SetUp: whether this one got everything running.
    bool ready() const { return !IsSkipped() && !HasFatalFailure(); }

    TempHome home;
    std::unique_ptr<sysdns::test::PrivateSystemBus> bus;
    std::unique_ptr<sysdns::test::NetworkManagerStandIn> networkManager;
};

}  // namespace morvane::test
