#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "logging/FileDestination.h"
#include "platform/DispatchQueue.h"
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

// Lines queued while the destination's queue is busy are sent together, as one burst.
void sendAsOneBurst(const std::shared_ptr<FileDestination>& destination,
                    const std::vector<std::string>& messages) {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    destination->execute(false, [released] { released.wait(); });
    for (const auto& message : messages) {
        destination->enqueue({Level::info, message, "", "/a/b.cpp", "f()", 1, std::nullopt}, false);
    }
    release.set_value();
    destination->queue()->waitUntilIdle();
}

TEST_F(FileDestinationTest, LinesQueuedTogetherArriveWholeAndInOrder) {
    const fs::path file = home.root() / "logs/Tarn.log";
    auto destination = std::make_shared<FileDestination>(file);
    destination->setFormat("$M");
    // More than one append's worth, so the burst is split on a line boundary.
    std::vector<std::string> messages;
    std::string expected;
    for (int i = 0; i < 3000; ++i) {
        messages.push_back("line " + std::to_string(i) + " " + std::string(40, 'x'));
        expected += messages.back() + "\n";
    }
    sendAsOneBurst(destination, messages);
    EXPECT_EQ(readFile(file), expected);

    // Removed between bursts: the next burst makes it anew.
    fs::remove(file);
    sendAsOneBurst(destination, {"after", "removal"});
    EXPECT_EQ(readFile(file), "after\nremoval\n");
}

TEST_F(FileDestinationTest, ABurstThatCannotBeWrittenReportsEachLine) {
    const fs::path blocker = home.root() / "blocker";
    writeFile(blocker, "not a folder");
    const fs::path file = blocker / "Tarn.log";
    auto destination = std::make_shared<FileDestination>(file);
    destination->setFormat("$M");

    ::testing::internal::CaptureStdout();
    sendAsOneBurst(destination, {"one", "two", "three"});
    const std::string report =
        "LogCenter File Destination could not write to file " + file.string() + ".\n";
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), report + report + report);

    fs::remove(blocker);
    sendAsOneBurst(destination, {"written"});
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
