#include <gtest/gtest.h>

#include <fstream>

#include "platform/FileWatch.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

void append(const fs::path& file, const std::string& text) {
    std::ofstream out(file, std::ios::app);
    out << text;
}

TEST(FileWatchTest, AMissingFileCannotBeWatched) {
    test::TempDir dir;
    EXPECT_EQ(FileWatch::start(dir.path() / "nothing.json", [] {}), nullptr);
}

TEST(FileWatchTest, EditsOfTheFileAreReportedOnTheMainThread) {
    test::TempDir dir;
    const auto file = dir.path() / "device.json";
    test::writeFile(file, "{}");
    int events = 0;
    bool onMain = true;
    auto watch = FileWatch::start(file, [&] {
        ++events;
        onMain = onMain && MainQueue::isCurrent();
    });
    ASSERT_NE(watch, nullptr);
    append(file, "\n");
    ASSERT_TRUE(test::runMainLoopUntil([&] { return events >= 1; }));
    const int afterFirst = events;
    fs::permissions(file, fs::perms::owner_read, fs::perm_options::remove);
    ASSERT_TRUE(test::runMainLoopUntil([&] { return events > afterFirst; }));
    EXPECT_TRUE(onMain);
}

TEST(FileWatchTest, AReplacedFileIsReportedOnceAndThenNoLongerHeard) {
    test::TempDir dir;
    const auto file = dir.path() / "device.json";
    test::writeFile(file, "{}");
    int events = 0;
    auto watch = FileWatch::start(file, [&] { ++events; });
    ASSERT_NE(watch, nullptr);
    // The way every whole-file writer replaces a file: a new file renamed over the old one.
    test::writeFile(dir.path() / "device.json.new", "{\"new\":1}");
    fs::rename(dir.path() / "device.json.new", file);
    ASSERT_TRUE(test::runMainLoopUntil([&] { return events >= 1; }));
    const int afterReplace = events;
    append(file, "more");
    // A later edit of the new file must not reach the old watch. Give the loop a moment to
    // deliver anything that would come; no assertion depends on how long that takes.
    test::runMainLoopUntil([] { return false; }, 200ms);
    EXPECT_EQ(events, afterReplace);
}

}  // namespace
}  // namespace morvane::platform
