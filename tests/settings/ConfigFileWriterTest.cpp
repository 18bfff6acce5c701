#include <gtest/gtest.h>
#include <sys/stat.h>

#include <iterator>

#include "app/DepenencyInjection.h"
#include "platform/ManualScheduler.h"
#include "settings/ConfigFileWriter.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

namespace fs = std::filesystem;

class ConfigFileWriterTest : public ::testing::Test {
protected:
    void SetUp() override { Dependencies::build(DepenencyInjection::serviceTable()); }
    void TearDown() override { Dependencies::build(std::vector<Service>{}); }

    test::TempHome home_;
    std::shared_ptr<platform::ManualScheduler> scheduler_ =
        std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler installed_{scheduler_};
    ConfigFileWriter writer_;
};

TEST_F(ConfigFileWriterTest, HandOverFileInTmpIsReplacedWholeAndReadableOnlyAsWritten) {
    const auto file = ConfigFileWriter::handOverFileURL();
    EXPECT_EQ(file, home_.sysroot() / "tmp/.tarncookie");
    testing::internal::CaptureStdout();
    writer_.writeHandOverFile({{"RPC_URL", "https://10.0.0.1"}, {"INSTALL_KEY", "abc"}});
    // Nothing was there to delete the first time.
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "failed to delete item at path /tmp with No such file or directory\n");
    EXPECT_EQ(test::readFile(file), "INSTALL_KEY=abc\nRPC_URL=https://10.0.0.1\n");
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u) << "the user reads it; nobody else may write it";

    writer_.writeHandOverFile({{"RESET", "true"}});
    EXPECT_EQ(test::readFile(file), "RESET=true\n");
    // No temporary file is left beside it.
    EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), 1);
}

// An administrator's shell may run sudo with umask 000 or 002: the agent would then distrust
// the hand-over file, and other users could read the device key.
TEST_F(ConfigFileWriterTest, ModesDoNotFollowTheUmask) {
    const mode_t saved = ::umask(0);
    testing::internal::CaptureStdout();
    writer_.writeHandOverFile({{"INSTALL_KEY", "abc"}});
    const bool written = writer_.saveConfigFile("{}", home_.root() / "support/config.json");
    testing::internal::GetCapturedStdout();
    ::umask(saved);
    ASSERT_TRUE(written);
    struct stat info {};
    ASSERT_EQ(::stat(ConfigFileWriter::handOverFileURL().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    ASSERT_EQ(::stat((home_.root() / "support/config.json").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

// Kept apart from the read-only case, which root cannot run.
TEST_F(ConfigFileWriterTest, AWriteWhereNoFolderCanBeMadeFailsWithoutATrace) {
    // A missing folder is made; one whose parent is a plain file cannot be, even by root.
    test::writeFile(home_.root() / "plain", "");
    const auto target = home_.root() / "plain/folder/config.json";
    testing::internal::CaptureStdout();
    EXPECT_FALSE(writer_.saveConfigFile("{}", target));
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("A write error occured ", 0), 0u);
    EXPECT_FALSE(fs::exists(target));
}

TEST_F(ConfigFileWriterTest, AFailedWriteSaysSoAndKeepsTheOldFile) {
    const auto target = home_.root() / "kept/config.json";
    test::writeFile(target, "{\"old\":true}");
    ASSERT_EQ(::chmod(target.parent_path().c_str(), 0555), 0);
    if (::access(target.parent_path().c_str(), W_OK) == 0) {
        ::chmod(target.parent_path().c_str(), 0755);
        GTEST_SKIP() << "running as root: a read-only folder does not stop root's writes";
    }
    testing::internal::CaptureStdout();
    EXPECT_FALSE(writer_.saveConfigFile("{\"new\":true}", target));
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("A write error occured ", 0), 0u);
    ::chmod(target.parent_path().c_str(), 0755);
    EXPECT_EQ(test::readFile(target), "{\"old\":true}");
}

}  // namespace
}  // namespace morvane
