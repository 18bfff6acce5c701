// The machine's own answers: interfaces from a sysfs tree, the kernel's version, accounts.
#include <gtest/gtest.h>

#include "platform/NetworkInterfaces.h"
#include "platform/OperatingSystem.h"
#include "platform/SystemAccountQueries.h"
#include "support/TestEnvironment.h"

namespace morvane::platform {
namespace {

namespace fs = std::filesystem;

TEST(NetworkInterfacesTest, EveryInterfaceButLoopbackInIndexOrder) {
    test::TempDir sysfs;
    const struct {
        const char* name;
        const char* type;
        const char* index;
        const char* wirelessMark;
    } interfaces[] = {
        {"lo", "772", "1", nullptr},         {"wlan1", "1", "5", "wireless"},
        {"eth0", "1", "2", nullptr},         {"wlp2s0", "1", "3", "phy80211"},
        {"wg0", "65534", "4", nullptr},      {"ppp0", "512", "7", nullptr},
        {"odd0", nullptr, nullptr, nullptr}, {"can0", "280", "6", nullptr},
    };
    for (const auto& i : interfaces) {
        const auto folder = sysfs.path() / i.name;
        fs::create_directories(folder);
        if (i.type != nullptr) {
            test::writeFile(folder / "type", std::string(i.type) + "\n");
            test::writeFile(folder / "ifindex", std::string(i.index) + "\n");
        }
        if (i.wirelessMark != nullptr) {
            fs::create_directories(folder / i.wirelessMark);
        }
    }
    EXPECT_EQ(networkInterfaces(sysfs.path()),
              (std::vector<InterfaceDescription>{{"eth0", "eth0", "Ethernet"},
                                                 {"wlp2s0", "wlp2s0", "WI-FI"},
                                                 {"wg0", "wg0", "Tunnel"},
                                                 {"wlan1", "wlan1", "WI-FI"},
                                                 {"can0", "can0", "ARPHRD 280"},
                                                 {"ppp0", "ppp0", "PPP"},
                                                 {"odd0", "odd0", std::nullopt}}));
    EXPECT_TRUE(networkInterfaces(sysfs.path() / "missing").empty());
}

TEST(OperatingSystemTest, MajorAndMinorOfAReleaseText) {
    const std::pair<const char*, const char*> cases[] = {
        {"6.1.0-18-amd64", "6.1"},
        {"5.15.0", "5.15"},
        {"4.19-rc1", "4.19"},
        {"6", "6.0"},
        {"6.x", "6.0"},
        {"", "0.0"},
        {"abc", "0.0"},
        {"99999999999999999999999.1", "0.0"},
    };
    for (const auto& [release, expected] : cases) {
        EXPECT_EQ(majorMinorVersion(release), expected) << '"' << release << '"';
    }
}

TEST(SystemAccountQueriesTest, LocalFileAndNameServicesAnswerSeparately) {
    test::TempDir folder;
    const auto file = folder.path() / "passwd";
    test::writeFile(file,
                    "alice:x:1000:1000:Alice Example,,,:/home/alice:/bin/bash\n"
                    "# a comment\n"
                    "bobby:x:1001:1001::/home/bobby:/bin/sh");
    const SystemAccountQueries queries(file.string());
    EXPECT_TRUE(queries.isInLocalAccountFiles("alice"));
    EXPECT_TRUE(queries.isInLocalAccountFiles("bobby"));
    for (const char* name : {"ali", "bob", "", "root", "# a comment"}) {
        EXPECT_FALSE(queries.isInLocalAccountFiles(name)) << '"' << name << '"';
    }
    // Every machine's name services know root, and none this name.
    EXPECT_EQ(queries.lookUp("root").account.value_or(AccountQueries::Account{}).name, "root");
    const auto nobody = queries.lookUp("no-such-morvane-user");
    EXPECT_FALSE(nobody.account);
    EXPECT_EQ(nobody.errorCode, 0);
}

}  // namespace
}  // namespace morvane::platform
