#include <gtest/gtest.h>

#include <filesystem>

#include "logging/FileDestination.h"
#include "platform/ProcessInfo.h"
#include "support/TestEnvironment.h"

namespace morvane::logging {
namespace {

namespace fs = std::filesystem;
using morvane::test::readFile;
using morvane::test::writeFile;

class FileDestinationTest : public ::testing::Test {
protected:
    std::optional<std::string> send(FileDestination& destination, const std::string& message,
                                    Level level = Level::info) {
        return destination.send(level, message, "", "/a/b.cpp", "f()", 1, std::nullopt);
    }

    morvane::test::TempHome home;
};

TEST_F(FileDestinationTest, AppendsLinesCreatingParentFolders) {
    const fs::path file = home.root() / "deep/er/Tarn.log";
    FileDestination destination(file);
    destination.setFormat("$L: $M");
    EXPECT_EQ(send(destination, "one   "), "INFO: one");
    EXPECT_EQ(send(destination, "two", Level::error), "ERROR: two");
    EXPECT_EQ(readFile(file), "INFO: one\nERROR: two\n");

    // Existing content is kept, and a file moved away is not written through a stale handle.
    FileDestination again(file);
    again.setFormat("$M");
    send(again, "three");
    fs::rename(file, home.root() / "moved.log");
    send(again, "four");
    EXPECT_EQ(readFile(home.root() / "moved.log"), "INFO: one\nERROR: two\nthree\n");
    EXPECT_EQ(readFile(file), "four\n");
}

TEST_F(FileDestinationTest, WithoutAFileTheLineIsOnlyRendered) {
    FileDestination destination(home.root() / "unused.log");
    destination.setLogFileURL(std::nullopt);
    destination.setFormat("$M");
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(send(destination, "kept"), "kept");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(fs::exists(home.root() / "unused.log"));
    EXPECT_TRUE(destination.deleteLogFile());
}

TEST_F(FileDestinationTest, DefaultFileIsInTheCacheFolderOfTheExecutable) {
    const std::string executable = platform::executableName();
    ASSERT_FALSE(executable.empty());
    EXPECT_EQ(FileDestination().logFileURL(), home.cacheHome() / executable / "logcenter.log");
    EXPECT_TRUE(fs::is_directory(home.cacheHome() / executable));

    home.env().unset("XDG_CACHE_HOME");
    EXPECT_EQ(FileDestination().logFileURL(),
              home.home() / ".cache" / executable / "logcenter.log");
    home.env().set("XDG_CACHE_HOME", "relative/cache");
    EXPECT_EQ(FileDestination().logFileURL(),
              home.home() / ".cache" / executable / "logcenter.log");
}

TEST_F(FileDestinationTest, CacheFolderThatCannotBeMadeFallsBackToTheCacheDirectory) {
    const std::string executable = platform::executableName();
    writeFile(home.cacheHome() / executable, "a file where the folder should be");
    ::testing::internal::CaptureStdout();
    FileDestination destination;
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Warning! Could not create folder /Library/Caches/" + executable + "\n");
    EXPECT_EQ(destination.logFileURL(), home.cacheHome() / "logcenter.log");
}

TEST_F(FileDestinationTest, FailedWriteIsReportedAndTheNextLineTriesAgain) {
    const fs::path blocker = home.root() / "blocker";
    writeFile(blocker, "not a folder");
    const fs::path file = blocker / "Tarn.log";
    FileDestination destination(file);
    destination.setFormat("$M");

    ::testing::internal::CaptureStdout();
    EXPECT_EQ(send(destination, "lost"), "lost");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "LogCenter File Destination could not write to file " + file.string() + ".\n");

    fs::remove(blocker);
    send(destination, "written");
    EXPECT_EQ(readFile(file), "written\n");
}

TEST_F(FileDestinationTest, DeleteLogFile) {
    const fs::path file = home.root() / "Tarn.log";
    FileDestination destination(file);
    EXPECT_TRUE(destination.deleteLogFile());
    send(destination, "x");
    ASSERT_TRUE(fs::exists(file));
    EXPECT_TRUE(destination.deleteLogFile());
    EXPECT_FALSE(fs::exists(file));

    // A folder with content where the file should be cannot be removed.
    writeFile(file / "inside", "x");
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(destination.deleteLogFile());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "LogCenter File Destination could not remove file " + file.string() + ".\n");
    EXPECT_TRUE(fs::exists(file / "inside"));
}

TEST_F(FileDestinationTest, ColoursOnlyWhenColored) {
    FileDestination destination(home.root() / "c.log");
    destination.setFormat("$C$L$c: $M");
    EXPECT_EQ(send(destination, "m", Level::warning), "WARNING: m");
    destination.setColored(true);
    EXPECT_EQ(send(destination, "m", Level::error), "\x1b[38;5;197mERROR\x1b[0m: m");
    destination.setColored(false);
    EXPECT_EQ(send(destination, "m", Level::error), "ERROR: m");
    EXPECT_TRUE(destination.reset().empty() && destination.escape().empty());
}

}  // namespace
}  // namespace morvane::logging
