// The stored proxy configuration: what a save writes is what a load gives back, across
// processes; a torn, damaged or foreign file is no configuration and never a crash.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "provider/ProxyConfigurationStore.h"
#include "support/TestEnvironment.h"

namespace morvane::provider {
namespace {

ProxyConfiguration sampleConfiguration() {
    ProxyConfiguration configuration;
    configuration.enabled = true;
    configuration.serverAddress = "9.9.9.9";
    configuration.providerBundleIdentifier = "com.tarn.lorvaxHQ.TarnDNSProxy";
    configuration.providerConfiguration = {
        {"locationTag", "tag-1"},
        {"uuid", "user-1"},
        {"resolvers", {"9.9.9.9"}},
        {"localDNS", nlohmann::json::array()},
        {"filters", {{{"filter", {{{"resolvers", {"9.9.9.9"}}}}}}}}};
    configuration.localizedDescription = "Tarn DNS Proxy ";
    configuration.ownerUid = 1000;
    return configuration;
}

class ProxyConfigurationStoreTest : public ::testing::Test {
protected:
    test::TempHome home;
    ProxyConfigurationStore store{ProxyConfigurationStore::defaultFile()};
};

TEST_F(ProxyConfigurationStoreTest, LivesUnderTheSysrootAndRoundTripsEveryKey) {
    EXPECT_EQ(store.file(), home.sysroot() / "var/lib/morvanecloud/dnsproxy.json");
    std::string problem;
    EXPECT_FALSE(store.load(problem));
    EXPECT_EQ(problem, "") << "a missing file is simply no configuration";

    std::string error;
    ASSERT_TRUE(store.save(sampleConfiguration(), error)) << error;
    std::optional<ProxyConfiguration> loaded = store.load(problem);
    ASSERT_TRUE(loaded) << problem;
    EXPECT_EQ(*loaded, sampleConfiguration());

    struct stat status {};
    ASSERT_EQ(::stat(store.file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u) << "only root reads the policy";
    for (const auto& entry : std::filesystem::directory_iterator(store.file().parent_path())) {
        EXPECT_EQ(entry.path().filename(), "dnsproxy.json") << "no temporary file is left behind";
    }

    ProxyConfiguration disabled = sampleConfiguration();
    disabled.enabled = false;
    disabled.serverAddress.reset();
    ASSERT_TRUE(store.save(disabled, error)) << error;
    EXPECT_EQ(store.load(problem), disabled) << "a second save replaces the first whole";

    EXPECT_TRUE(store.remove(error));
    EXPECT_FALSE(store.load(problem));
    EXPECT_TRUE(store.remove(error)) << "removing what is not there succeeds";
}

TEST_F(ProxyConfigurationStoreTest, TornOrForeignFilesAreNoConfiguration) {
    std::string error;
    ASSERT_TRUE(store.save(sampleConfiguration(), error)) << error;
    const std::string whole = test::readFile(store.file());
    const std::vector<std::string> damaged = {
        whole.substr(0, whole.size() / 2),  // cut off by a power failure
        "",
        std::string("\0\0\0\0", 4),
        "[1, 2, 3]",
        R"({"enabled": "yes", "providerBundleIdentifier": "x", "providerConfiguration": {}, "ownerUid": 0})",
        R"({"enabled": true, "providerBundleIdentifier": "x", "providerConfiguration": {}})",
        R"({"enabled": true, "providerBundleIdentifier": "x", "providerConfiguration": [], "ownerUid": 0})",
        R"({"enabled": true, "providerBundleIdentifier": "x", "providerConfiguration": {}, "ownerUid": -1})",
    };
    for (const std::string& content : damaged) {
        test::writeFile(store.file(), content);
        std::string problem;
        EXPECT_FALSE(store.load(problem)) << content;
        EXPECT_NE(problem, "") << "the reason is told: " << content;
    }

    // Set aside, the evidence stays for the administrator and the place is free again.
    std::optional<std::filesystem::path> aside = store.setAside(error);
    ASSERT_TRUE(aside) << error;
    EXPECT_TRUE(std::filesystem::exists(*aside));
    std::string problem;
    EXPECT_FALSE(store.load(problem));
    EXPECT_EQ(problem, "");

    // A link planted in the file's place is not followed.
    std::filesystem::create_symlink(*aside, store.file());
    EXPECT_FALSE(store.load(problem));
    EXPECT_NE(problem, "");
}

TEST(ProxyConfigurationTest, SaveArgumentsAreReadStrictly) {
    std::string error;
    nlohmann::json arguments = sampleConfiguration().toArguments();
    EXPECT_FALSE(arguments.contains("ownerUid")) << "the owner never travels on the wire";
    std::optional<ProxyConfiguration> read = ProxyConfiguration::fromArguments(arguments, error);
    ASSERT_TRUE(read) << error;
    EXPECT_EQ(read->ownerUid, 0u);

    arguments["serverAddress"] = nullptr;
    arguments.erase("localizedDescription");
    read = ProxyConfiguration::fromArguments(arguments, error);
    ASSERT_TRUE(read) << error;
    EXPECT_FALSE(read->serverAddress);
    EXPECT_EQ(read->localizedDescription, "");

    for (const char* key : {"enabled", "providerBundleIdentifier", "providerConfiguration"}) {
        nlohmann::json missing = sampleConfiguration().toArguments();
        missing.erase(key);
        error.clear();
        EXPECT_FALSE(ProxyConfiguration::fromArguments(missing, error)) << key;
        EXPECT_NE(error.find(key), std::string::npos) << error;
    }
    nlohmann::json wrong = sampleConfiguration().toArguments();
    wrong["serverAddress"] = 9;
    EXPECT_FALSE(ProxyConfiguration::fromArguments(wrong, error));
    EXPECT_FALSE(ProxyConfiguration::fromArguments(nlohmann::json::array(), error));
}

}  // namespace
}  // namespace morvane::provider
