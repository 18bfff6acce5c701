#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "messages/JSONCoding.h"
#include "proxy/ExtensionBundle.h"
#include "proxy/LocalAddress.h"
#include "messages/NetworkExtConfig.h"
#include "proxy/SharedDefaultsManager.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

namespace fs = std::filesystem;

InterfaceAddressEntry entry(const std::string& name, const char* ipv4 = nullptr,
                            bool ipv6 = false) {
    InterfaceAddressEntry result{name, std::nullopt};
    sockaddr_storage storage{};
    if (ipv4 != nullptr) {
        auto* address = reinterpret_cast<sockaddr_in*>(&storage);
        address->sin_family = AF_INET;
        inet_pton(AF_INET, ipv4, &address->sin_addr);
        result.address = storage;
    } else if (ipv6) {
        auto* address = reinterpret_cast<sockaddr_in6*>(&storage);
        address->sin6_family = AF_INET6;
        inet_pton(AF_INET6, "fe80::1", &address->sin6_addr);
        result.address = storage;
    }
    return result;
}

TEST(LocalAddressTest, NamesOfWiredWirelessAndMobileInterfacesOnly) {
    for (const char* name : {"eth0", "eno1", "enp0s31f6", "ens33", "enx00e04c680001", "wlan0",
                             "wlp2s0", "wwan0", "wwp0s20f0u6"}) {
        EXPECT_TRUE(isLocalAddressInterface(name)) << name;
    }
    for (const char* name : {"lo", "tun0", "wg0", "docker0", "br-1a2b", "virbr0", "veth1234", "en",
                             "eth", "wl", "ww", "", "tap0", "lxcbr0"}) {
        EXPECT_FALSE(isLocalAddressInterface(name)) << name;
    }
}

TEST(LocalAddressTest, FirstIPv4OfAListedInterfaceInListOrder) {
    EXPECT_EQ(firstLocalIPv4Address({entry("lo", "127.0.0.1"), entry("wlp2s0"),
                                     entry("wlp2s0", nullptr, true), entry("tun0", "10.8.0.2"),
                                     entry("wlp2s0", "192.168.1.20"), entry("eth0", "10.0.0.5")}),
              "192.168.1.20");
    EXPECT_EQ(firstLocalIPv4Address({entry("lo", "127.0.0.1"), entry("docker0", "172.17.0.1")}),
              std::nullopt);
    EXPECT_EQ(firstLocalIPv4Address({}), std::nullopt);
    // The machine's own list: whatever it holds, the answer is an IPv4 text or nothing.
    if (const auto own = localIPv4Address()) {
        in_addr parsed{};
        EXPECT_EQ(inet_pton(AF_INET, own->c_str(), &parsed), 1) << *own;
    }
}

TEST(NetworkExtConfigTest, EveryKeyIsRequiredAndTheTextRoundTrips) {
    const std::string text =
        R"({"UDDID":"u-1","deviceConfig":{"id":1},"locationKey":"loc","resolvers":["9.9.9.9"]})";
    const auto config = decodeJSON<NetworkExtConfig>(text);
    ASSERT_TRUE(config);
    EXPECT_EQ(config->UDDID, "u-1");
    EXPECT_EQ(encodeJSON(*config), text);
    for (const char* key : {"UDDID", "deviceConfig", "locationKey", "resolvers"}) {
        auto object = nlohmann::json::parse(text);
        object.erase(key);
        EXPECT_FALSE(decodeJSON<NetworkExtConfig>(object.dump())) << key;
    }
}

TEST(ExtensionBundleTest, TheFirstVisibleEntryOrAnOrderlyFailure) {
    test::TempDir dir;
    const auto extensions = dir.path() / "SystemExtensions";
    auto lookup = ExtensionBundle::find(extensions);
    EXPECT_FALSE(lookup.bundle);
    EXPECT_TRUE(
        lookup.failure.starts_with("Failed to get the contents of " + extensions.string() + ": "))
        << lookup.failure;

    fs::create_directories(extensions / ".hidden");
    lookup = ExtensionBundle::find(extensions);
    EXPECT_EQ(lookup.failure, "Failed to find any system extensions");

    const auto damaged = extensions / "a.damaged";
    test::writeFile(damaged / "Info.json", "{\"CFBundleVersion\": ");
    lookup = ExtensionBundle::find(extensions);
    EXPECT_EQ(lookup.failure, "Failed to create a bundle with URL " + damaged.string());
    fs::remove_all(damaged);

    // The bundle the build puts beside the agent.
    fs::create_directories(extensions);
    fs::copy(test::binaryDir() / "apps/morvanecloud/SystemExtensions", extensions,
             fs::copy_options::recursive);
    lookup = ExtensionBundle::find(extensions);
    ASSERT_TRUE(lookup.bundle) << lookup.failure;
    EXPECT_EQ(machServiceName(*lookup.bundle), "QN8XK2TR5V.com.tarn.lorvaxHQ.TarnDNSProxy");
    EXPECT_EQ(lookup.bundle->bundleIdentifier(), "com.tarn.lorvaxHQ.TarnDNSProxy");

    // A bundle without the service name opens, but names no socket.
    test::writeFile(extensions / "b/Info.json", R"({"NetworkExtension": {"Other": 1}})");
    auto bare = ExtensionBundle::open(extensions / "b");
    ASSERT_TRUE(bare);
    EXPECT_FALSE(machServiceName(*bare));

    // Where the agent looks: beside its executable in the build tree, else under the sysroot.
    test::TempHome home;
    EXPECT_EQ(ExtensionBundle::extensionsDirectory(),
              home.sysroot() / "usr/lib/morvanecloud/SystemExtensions");
}

class SharedDefaultsTest : public ::testing::Test {
protected:
    test::TempHome home_;
    SharedDefaultsManager manager_;
    fs::path suite_ =
        home_.configHome() / "MorvaneCloud" / "QN8XK2TR5V.com.lorvex.DNSProxy.app-group.json";
};

TEST_F(SharedDefaultsTest, StoresThePolicyAsTextUnderTheKeyForItsOwnerOnly) {
    EXPECT_EQ(manager_.suiteURL(), suite_);
    auto configuration = decodeJSON<DeviceConfiguration>(
        R"({"id":3,"result":{"filters":[{"domain":"corp.example"}]}})");
    ASSERT_TRUE(configuration);
    test::writeFile(suite_, R"({"other": 1})");
    manager_.storeDeviceConfiguration(*configuration);
    const auto suite = nlohmann::json::parse(test::readFile(suite_));
    EXPECT_EQ(suite["other"], 1);
    EXPECT_EQ(suite["network_extension_key"], *encodeJSON(*configuration));
    struct stat info {};
    ASSERT_EQ(::stat(suite_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(manager_.readDeviceConfiguration(), configuration);

    // The next one replaces it; a torn file is started afresh.
    configuration->id = 4;
    test::writeFile(suite_, "{\"network_extension_key\": \"");
    manager_.storeDeviceConfiguration(*configuration);
    EXPECT_EQ(manager_.readDeviceConfiguration()->id, 4);
    for (const auto& item : fs::directory_iterator(suite_.parent_path())) {
        EXPECT_EQ(item.path(), suite_) << "a temporary file was left behind";
    }
    manager_.removeDeviceConfiguration();
    EXPECT_FALSE(manager_.readDeviceConfiguration());
}

TEST_F(SharedDefaultsTest, ASuiteThatCannotBeOpenedMakesEveryCallANoOp) {
    // The configuration folder is a file: nothing can be created under it.
    test::writeFile(home_.root() / "blocked", "not a folder");
    home_.env().set("XDG_CONFIG_HOME", (home_.root() / "blocked").string());
    DeviceConfiguration configuration;
    manager_.storeDeviceConfiguration(configuration);
    EXPECT_FALSE(manager_.readDeviceConfiguration());
    EXPECT_EQ(test::readFile(home_.root() / "blocked"), "not a folder");
}

}  // namespace
}  // namespace morvane
