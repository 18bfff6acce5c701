// The reading side of the shared defaults: the owner's file, decoded as the agent wrote it,
// and nothing that is not the owner's own file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "provider/SharedDefaultsReader.h"
#include "support/TestEnvironment.h"

namespace morvane::provider {
namespace {

const char* kDevice =
    R"({"result":{"filters":[{"domain":"corp.example","resolvers":["10.0.0.53"]}]}})";

class SharedDefaultsReaderTest : public ::testing::Test {
protected:
    std::filesystem::path file() const {
        return home.configHome() / "MorvaneCloud" / "QN8XK2TR5V.com.lorvex.DNSProxy.app-group.json";
    }
    void writeShared(const nlohmann::json& content) { test::writeFile(file(), content.dump()); }

    test::TempHome home;
};

TEST_F(SharedDefaultsReaderTest, ReadsTheOwnersDeviceConfiguration) {
    std::string problem;
    EXPECT_EQ(SharedDefaultsReader::fileFor(::geteuid(), problem), file())
        << "the provider's own uid honours XDG_CONFIG_HOME";
    EXPECT_FALSE(SharedDefaultsReader::read(::geteuid(), problem));
    EXPECT_NE(problem, "");

    writeShared({{"network_extension_key", kDevice}});
    std::optional<DeviceConfiguration> read = SharedDefaultsReader::read(::geteuid(), problem);
    ASSERT_TRUE(read) << problem;
    ASSERT_TRUE(read->result && read->result->filters);
    EXPECT_EQ(read->result->filters->at(0).domain, "corp.example");
}

TEST_F(SharedDefaultsReaderTest, AnythingElseIsNoConfiguration) {
    const std::vector<std::string> contents = {
        "{",
        "[]",
        R"({"other_key": "x"})",
        R"({"network_extension_key": {"result": {}}})",
        R"({"network_extension_key": "{\"result\": 5}"})",
    };
    for (const std::string& content : contents) {
        test::writeFile(file(), content);
        std::string problem;
        EXPECT_FALSE(SharedDefaultsReader::read(::geteuid(), problem)) << content;
        EXPECT_NE(problem, "") << content;
    }
}

TEST_F(SharedDefaultsReaderTest, OnlyTheOwnersOwnRegularFileIsRead) {
    // Another user's home comes from the user database, never from our environment.
    std::string problem;
    if (::geteuid() != 0) {
        auto rootFile = SharedDefaultsReader::fileFor(0, problem);
        ASSERT_TRUE(rootFile) << problem;
        EXPECT_FALSE(rootFile->string().starts_with(home.root().string()));
    }

    // A link to somebody else's file is not followed.
    const std::filesystem::path target = home.root() / "elsewhere.json";
    test::writeFile(target, nlohmann::json{{"network_extension_key", kDevice}}.dump());
    std::filesystem::create_directories(file().parent_path());
    std::filesystem::create_symlink(target, file());
    EXPECT_FALSE(SharedDefaultsReader::read(::geteuid(), problem));
    std::filesystem::remove(file());

    // A file that belongs to another uid is not read, wherever it lies.
    writeShared({{"network_extension_key", kDevice}});
    EXPECT_FALSE(SharedDefaultsReader::readFile(file(), ::geteuid() + 1, problem));
    EXPECT_NE(problem.find("not a regular file of uid"), std::string::npos) << problem;
}

}  // namespace
}  // namespace morvane::provider
