// The helper's files: the rights table, config.ini edits, its own log and its rotation, the
// rights database, and atomic replacement that survives a kill in the middle of a write.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "helper/Common.h"
#include "helper/HelperFiles.h"
#include "helper/RightsDatabase.h"
#include "helper/TarnConfigHelper.h"
#include "helper/TarnLogHelper.h"
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

using test::readFile;
using test::writeFile;
using ::testing::HasSubstr;

class HelperFilesTest : public ::testing::Test {
protected:
    std::filesystem::path support() const { return home.sysroot() / "var/lib/morvanecloud"; }
    std::filesystem::path ini() const { return support() / "config.ini"; }
    std::string helperLog() const { return readFile(support() / "tarnHelper.log"); }

    test::TempHome home;
};

TEST(CommonTest, NineRowsAllowedByDefaultAndAFlushRightOfItsOwn) {
    const auto& table = Common::commandInfo();
    ASSERT_EQ(table.size(), 9u);
    for (const auto& [command, info] : table) {
        EXPECT_EQ(info.authRightDefault, "allow") << command;
        EXPECT_THAT(info.authRightName, ::testing::StartsWith("com.lorvex.tarnHelper."));
        EXPECT_EQ(Common::authorizationRightForCommand(command), info.authRightName);
    }
    EXPECT_EQ(table.at("rollbackDNS:withReply:").authRightDescription,
              "Morvane Cloud is trying to rollback DNS");
    EXPECT_EQ(Common::authorizationRightForCommand("flushDNSwithAuthorization:withReply:"),
              "com.lorvex.tarnHelper.flushDNS");
    EXPECT_EQ(Common::authorizationRightForCommand("flushDNS"), std::nullopt);

    std::set<std::string> names;
    Common::enumerateRightsUsingBlock([&](const std::string&, const Common::RightInfo& info) {
        names.insert(info.authRightName);
    });
    EXPECT_EQ(names.size(), 10u);
}

TEST_F(HelperFilesTest, SetupDefinesOnlyMissingRightsAndAdministratorsDenialHolds) {
    RightsDatabase rights;
    EXPECT_EQ(rights.rightGet("com.lorvex.tarnHelper.modifyDNS"), Common::kRightNotDefined);
    EXPECT_EQ(rights.copyRight("com.lorvex.tarnHelper.modifyDNS"), -60005);
    ASSERT_EQ(rights.rightSet("com.lorvex.tarnHelper.modifyDNS", "deny", "changed by the admin",
                              "Common"),
              0);
    Common::setupAuthorizationRights(rights);
    const auto stored = nlohmann::json::parse(readFile(rights.path()));
    EXPECT_EQ(stored.size(), 10u);
    EXPECT_EQ(stored["com.lorvex.tarnHelper.modifyDNS"]["description"], "changed by the admin");
    EXPECT_EQ(rights.copyRight("com.lorvex.tarnHelper.modifyDNS"), -60005);
    EXPECT_EQ(rights.copyRight("com.lorvex.tarnHelper.setTrayType"), 0);
    EXPECT_EQ(stored["com.lorvex.tarnHelper.setTrayType"]["description"],
              "Morvane Cloud is trying to modify the tray type");

    // A damaged database refuses and is not replaced.
    writeFile(rights.path(), "{ not json");
    EXPECT_NE(rights.copyRight("com.lorvex.tarnHelper.setTrayType"), 0);
    EXPECT_NE(rights.rightSet("x", "allow", "", ""), 0);
    EXPECT_EQ(readFile(rights.path()), "{ not json");
}

TEST_F(HelperFilesTest, ConfigKeysAreUpdatedWhereverTheyStandAndNewOnesOpenTheirSection) {
    EXPECT_FALSE(TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "LogDebug", "x"))
        << "a missing file";
    writeFile(ini(), "");
    EXPECT_FALSE(TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "LogDebug", "x"))
        << "an empty file";

    writeFile(ini(),
              "TrayType=1\n[ApplicationSettings]\nLogDebug=false\n[Other]\nLogDebug=true\n"
              "[MorvaneServerInfoSection]\nName=a.b\n");
    ASSERT_TRUE(TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "TrayType", "3"));
    ASSERT_TRUE(TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "LogDebug", "no"));
    EXPECT_EQ(readFile(ini()),
              "TrayType=3\n[ApplicationSettings]\nLogDebug=no\n[Other]\nLogDebug=no\n"
              "[MorvaneServerInfoSection]\nName=a.b\n");

    // A value with other than word characters is not found: a new line goes in front.
    ASSERT_TRUE(TarnConfigHelper::updateConfigFileSection("MorvaneServerInfoSection", "Name", "c"));
    EXPECT_THAT(readFile(ini()), HasSubstr("[MorvaneServerInfoSection]\nName=c\nName=a.b\n"));
    EXPECT_THAT(helperLog(), HasSubstr("Name updated successfully"));

    // Other letter case is not found, so a line is added; with the exact spelling present as
    // well, the case-insensitive replacement changes both.
    writeFile(ini(), "[ApplicationSettings]\nlogdebug=true\n");
    ASSERT_TRUE(TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "LogDebug", "x"));
    EXPECT_EQ(readFile(ini()), "[ApplicationSettings]\nLogDebug=x\nlogdebug=true\n");
    ASSERT_TRUE(TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "LogDebug", "y"));
    EXPECT_EQ(readFile(ini()), "[ApplicationSettings]\nLogDebug=y\nLogDebug=y\n");

    // A last line without its newline does not match.
    writeFile(ini(), "[ApplicationSettings]\nTrayType=2");
    ASSERT_TRUE(TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "TrayType", "0"));
    EXPECT_EQ(readFile(ini()), "[ApplicationSettings]\nTrayType=0\nTrayType=2");
}

TEST_F(HelperFilesTest, MissingSectionWritesNothingAndValuesAreTakenLiterally) {
    writeFile(ini(), "[ApplicationSettings]\nLogDebug=true\n");
    EXPECT_FALSE(
        TarnConfigHelper::updateConfigFileSection("MorvaneServerInfoSection", "LocationKey", "k"));
    EXPECT_EQ(readFile(ini()), "[ApplicationSettings]\nLogDebug=true\n");
    EXPECT_THAT(helperLog(), HasSubstr("Unable to find file section: MorvaneServerInfoSection"));

    // "$1" and "\" are written as given, never read as a template; a key is never a pattern.
    ASSERT_TRUE(
        TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "LogDebug", "a$1\\b$"));
    EXPECT_EQ(readFile(ini()), "[ApplicationSettings]\nLogDebug=a$1\\b$\n");
    ASSERT_TRUE(TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "Log.*", "z"));
    EXPECT_EQ(readFile(ini()), "[ApplicationSettings]\nLog.*=z\nLogDebug=a$1\\b$\n");
}

TEST_F(HelperFilesTest, LogRotatesAtStartOnlyAboveOneMebibyte) {
    const auto log = support() / "tarnHelper.log";
    const auto backup = support() / "tarnHelper.log.bak";
    TarnLogHelper first(log);
    EXPECT_TRUE(std::filesystem::exists(log));
    first.log("hello");
    EXPECT_THAT(readFile(log),
                ::testing::MatchesRegex(
                    R"(\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\] hello
)"));

    writeFile(log, std::string(TarnLogHelper::kMaxLogBytes, 'a'));
    writeFile(backup, "old backup");
    TarnLogHelper exactly(log);
    EXPECT_EQ(std::filesystem::file_size(log), TarnLogHelper::kMaxLogBytes);
    EXPECT_EQ(readFile(backup), "old backup");

    // Between starts the file may grow past the limit; the next start moves it.
    exactly.log("x");
    TarnLogHelper over(log);
    EXPECT_EQ(std::filesystem::file_size(log), 0u);
    EXPECT_GT(std::filesystem::file_size(backup), TarnLogHelper::kMaxLogBytes);
    over.log("after");
    EXPECT_THAT(readFile(log), HasSubstr("] after\n"));

    // A log that cannot be opened loses the line quietly.
    std::filesystem::remove(log);
    over.log("lost");
    EXPECT_FALSE(std::filesystem::exists(log));
}

// Writes two alternating large versions of config.ini until it is killed.
MORVANE_CHILD_ROLE(iniWriter) {
    for (int round = 0;; ++round) {
        const char letter = round % 2 == 0 ? 'a' : 'b';
        TarnConfigHelper::updateConfigFileSection("ApplicationSettings", "Value",
                                                  std::string(512 * 1024, letter));
    }
    return 0;
}

TEST_F(HelperFilesTest, KillDuringAnIniWriteLeavesTheOldOrTheNewFile) {
    const std::string head = "[ApplicationSettings]\nValue=";
    const std::string tail = "\n[End]\nLast=1\n";
    const auto version = [&](char letter) { return head + std::string(512 * 1024, letter) + tail; };
    writeFile(ini(), version('a'));
    for (int attempt = 0; attempt < 5; ++attempt) {
        const int pid = test::startChild("iniWriter", {});
        ASSERT_GT(pid, 0);
        // Let it get into its writing, at a different point each time.
        const auto start = std::filesystem::last_write_time(ini());
        for (int i = 0; i < 2000 && std::filesystem::last_write_time(ini()) == start; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(7 * attempt));
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        const std::string content = readFile(ini());
        EXPECT_TRUE(content == version('a') || content == version('b'))
            << "torn file of " << content.size() << " bytes";
    }
}

}  // namespace
}  // namespace morvane
