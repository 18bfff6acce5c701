#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <thread>

#include "core/TarnLogger.h"
#include "logging/LogCenter.h"
#include "messages/JSONCoding.h"
#include "platform/ManualScheduler.h"
#include "platform/UserDefaults.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

class TarnLoggerTest : public ::testing::Test {
protected:
    void TearDown() override { logging::LogCenter::removeAllDestinations(); }

    std::filesystem::path logFile() const { return home_.dataHome() / "MorvaneCloud/Tarn.log"; }

    /// Runs the main queue, then waits for the file to hold `count` lines.
    std::vector<std::string> fileLines(std::size_t count) {
        scheduler_->runPending();
        std::vector<std::string> lines;
        test::runMainLoopUntil([&] {
            // Only whole lines count: the writer may be in the middle of one.
            const std::string text = test::readFile(logFile());
            lines = linesOf(text.substr(0, text.rfind('\n') + 1));
            return lines.size() >= count;
        });
        return lines;
    }

    test::TempHome home_;
    std::shared_ptr<platform::ManualScheduler> scheduler_ =
        std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler installed_{scheduler_};
    std::shared_ptr<TarnLogger> logger_ = std::make_shared<TarnLogger>();
};

TEST_F(TarnLoggerTest, EachLevelReachesItsOutputsStampedAndWarningsGoNowhere) {
    testing::internal::CaptureStdout();
    logger_->log("started", LogLevel::production);
    logger_->log("quiet", LogLevel::warning);
    logger_->log("deep", LogLevel::diagnose);
    EXPECT_FALSE(logger_->hasSetup);  // nothing happens on the caller's thread
    const auto lines = fileLines(2);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(logger_->hasSetup);
    const std::string stamp = TarnLogger::versionStamp();
    EXPECT_NE(output.find("verbose " + stamp + "started\n"), std::string::npos);
    EXPECT_NE(output.find("diagnose " + stamp + "deep\n"), std::string::npos);
    EXPECT_EQ(output.find("quiet"), std::string::npos);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(std::regex_match(
        lines[0],
        std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} VERBOSE: )" +
                   std::regex_replace(stamp + "started", std::regex(R"([().])"), R"(\$&)"))))
        << lines[0];
    EXPECT_NE(lines[1].find(" DEBUG: " + stamp + "deep"), std::string::npos);
}

TEST_F(TarnLoggerTest, LinesOfOneThreadKeepTheirOrderInBothOutputs) {
    constexpr int kLines = 300;
    testing::internal::CaptureStdout();
    std::thread([&] {
        for (int i = 0; i < kLines; ++i) {
            logger_->log("line " + std::to_string(i), LogLevel::production);
        }
    }).join();
    const auto lines = fileLines(kLines);
    std::vector<std::string> printed;
    for (const auto& line : linesOf(testing::internal::GetCapturedStdout())) {
        if (line.starts_with("verbose ")) {
            printed.push_back(line);
        }
    }
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kLines));
    ASSERT_EQ(printed.size(), static_cast<std::size_t>(kLines));
    for (int i = 0; i < kLines; ++i) {
        const std::string expected = TarnLogger::versionStamp() + "line " + std::to_string(i);
        EXPECT_TRUE(lines[i].ends_with(expected)) << lines[i];
        EXPECT_EQ(printed[i], "verbose " + expected);
    }
}

TEST_F(TarnLoggerTest, TheServersLevelDrivesTheLogDebugDefault) {
    const auto defaults = platform::UserDefaults::standard();
    defaults->removeObjectForKey("LogDebug");
    const auto withLevel = [](const char* level) {
        return decodeJSON<DeviceConfiguration>(
            std::string(R"({"result":{"cfg":{"runtime":{"locations":[],"tarn":{"log_level":")") +
            level + R"("}}}}})");
    };
    ASSERT_TRUE(withLevel("warning"));

    logger_->setDeviceConfigResponse(decodeJSON<DeviceConfiguration>(R"({"result":{}})"));
    EXPECT_EQ(logger_->effectiveLevel(), LogLevel::production);
    EXPECT_FALSE(defaults->stringForKey("LogDebug").has_value());  // no tarn section: untouched

    logger_->setDeviceConfigResponse(withLevel("warning"));
    EXPECT_EQ(logger_->effectiveLevel(), LogLevel::production);
    EXPECT_TRUE(defaults->boolForKey("LogDebug"));
    // The user turns debugging off in the menu; the next call turns it on again, and so
    // does the next log line.
    defaults->removeObjectForKey("LogDebug");
    logger_->effectiveLevel();
    EXPECT_TRUE(defaults->boolForKey("LogDebug"));
    defaults->setBool(false, "LogDebug");
    logger_->log("debugging back on", LogLevel::production);
    EXPECT_TRUE(defaults->boolForKey("LogDebug"));

    logger_->setDeviceConfigResponse(withLevel("none"));
    logger_->effectiveLevel();
    EXPECT_FALSE(defaults->stringForKey("LogDebug").has_value());
    defaults->setBool(true, "LogDebug");
    logger_->effectiveLevel();
    EXPECT_FALSE(defaults->stringForKey("LogDebug").has_value());

    logger_->setDeviceConfigResponse(withLevel("diagnose"));
    logger_->effectiveLevel();
    EXPECT_TRUE(defaults->boolForKey("LogDebug"));
    defaults->removeObjectForKey("LogDebug");
}

TEST_F(TarnLoggerTest, BelowTheEffectiveLevelTheDestinationsComeButNothingIsWritten) {
    // Without a server configuration the effective level is production, and a logger
    // working at level none lets nothing through.
    logger_->logLevel = LogLevel::none;
    testing::internal::CaptureStdout();
    logger_->log("gone", LogLevel::production);
    scheduler_->runPending();
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("gone"), std::string::npos);
    EXPECT_TRUE(logger_->hasSetup);
    EXPECT_EQ(test::readFile(logFile()).find("gone"), std::string::npos);
}

TEST_F(TarnLoggerTest, ALoggerThatIsGoneDropsItsQueuedLines) {
    testing::internal::CaptureStdout();
    logger_->log("late", LogLevel::production);
    logger_.reset();
    scheduler_->runPending();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(TarnLoggerTitleTest, EachLevelHasItsMenuTitle) {
    EXPECT_EQ(TarnLogger::debugTitle(LogLevel::none).title, "No Debugging");
    EXPECT_FALSE(TarnLogger::debugTitle(LogLevel::none).enabled);
    EXPECT_EQ(TarnLogger::debugTitle(LogLevel::warning).title, "warning");
    EXPECT_EQ(TarnLogger::debugTitle(LogLevel::production).title, "Logging Debug Info");
    EXPECT_EQ(TarnLogger::debugTitle(LogLevel::diagnose).title, "Log Diagnostic Info");
    EXPECT_TRUE(TarnLogger::debugTitle(LogLevel::diagnose).enabled);
    EXPECT_EQ(TarnLogger::versionStamp(), "2.1.0 (1) :  ");
}

}  // namespace
}  // namespace morvane
