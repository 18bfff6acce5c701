#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <regex>

#include "logging/BaseDestination.h"
#include "logging/ConsoleDestination.h"

namespace morvane::logging {
namespace {

std::string render(BaseDestination& destination, const std::string& format,
                   const std::string& message = "hello", Level level = Level::info,
                   BaseDestination::Context context = std::nullopt) {
    destination.setFormat(format);
    return destination.renderLine(level, message, "logcenter-queue-1", "/src/core/Observer.swift",
                                  "onChange()", 42, context);
}

TEST(LineRendering, LiteralTextAndUnknownCodes) {
    BaseDestination destination;
    EXPECT_EQ(render(destination, "plain text   "), "plain text");
    EXPECT_EQ(render(destination, ""), "");
    EXPECT_EQ(render(destination, "a$$b"), "ab");
    EXPECT_EQ(render(destination, "$Qtext"), "Qtext");
    EXPECT_EQ(render(destination, "$-M"), "-M");
    EXPECT_EQ(render(destination, "x$é!"), "xé!");
    // A width with nothing after it, or one too large to read, loses only its "$".
    EXPECT_EQ(render(destination, "x$12"), "x12");
    EXPECT_EQ(render(destination, "$99999999999M"), "99999999999M");
    EXPECT_EQ(render(destination, "$-10001M"), "-10001M");
    EXPECT_EQ(render(destination, "$10000M").size(), 10000u);
}

TEST(LineRendering, PaddingBothWaysCountsCharacters) {
    BaseDestination destination;
    EXPECT_EQ(render(destination, "$5L"), " INFO");
    EXPECT_EQ(render(destination, "$-5L|"), "INFO |");
    EXPECT_EQ(render(destination, "$2L"), "INFO");
    EXPECT_EQ(render(destination, "[$3M]", "é"), "[  é]");
    EXPECT_EQ(render(destination, "[$-4M]", "日本"), "[日本  ]");
    EXPECT_EQ(render(destination, "[$0M]", "x"), "[x]");
    // Colour codes are never padded.
    EXPECT_EQ(render(destination, "[$9C$9c]"), "[]");
}

TEST(LineRendering, SourceFieldsAndContext) {
    BaseDestination destination;
    EXPECT_EQ(render(destination, "$N|$n|$F|$l|$T|$M"),
              "Observer|Observer.swift|onChange()|42|logcenter-queue-1|hello");
    destination.setFormat("$N|$n");
    EXPECT_EQ(destination.renderLine(Level::info, "", "", "a.b.c", "", 1, std::nullopt), "a|a.b.c");
    EXPECT_EQ(destination.renderLine(Level::info, "", "", "dir/", "", 1, std::nullopt), "|");
    EXPECT_EQ(render(destination, "[$X]", "m", Level::info, " \n ctx\tvalue \n"), "[ctx\tvalue]");
    EXPECT_EQ(render(destination, "[$X]"), "[]");
}

TEST(LineRendering, TrailingWhiteSpaceOnlyAtTheEnd) {
    BaseDestination destination;
    EXPECT_EQ(render(destination, "$L $M", "     "), "INFO");
    EXPECT_EQ(render(destination, "$M", " a  b \t\n\u00a0\u2028"), " a  b");
    EXPECT_EQ(render(destination, "$M", "   "), "");
}

TEST(LineRendering, LevelWordsAndColours) {
    BaseDestination destination;
    destination.setEscape("<");
    destination.setReset(">");
    destination.setLevelColor({"v", "d", "i", "w", "e"});
    EXPECT_EQ(render(destination, "$C$L$c", "", Level::error), "<eERROR>");
    EXPECT_EQ(render(destination, "$C$L$c", "", Level::verbose), "<vVERBOSE>");

    ConsoleDestination console;
    EXPECT_EQ(render(console, "$C$L$c", "", Level::info), "\U0001F499 INFO");
    console.setUseTerminalColors(true);
    EXPECT_EQ(render(console, "$C$L$c", "", Level::warning), "\x1b[38;5;178mWARNING\x1b[0m");
    // Switching back brings the hearts, but keeps the escape and reset texts.
    console.setUseTerminalColors(false);
    EXPECT_EQ(render(console, "$C$L$c", "", Level::debug), "\x1b[38;5;\U0001F49A DEBUG\x1b[0m");
}

class DefaultTimeZone : public ::testing::Test {
protected:
    // Forces a default zone away from UTC, so that a switch to UTC shows.
    void SetUp() override {
        saved_.reset(icu::TimeZone::createDefault());
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("Asia/Kolkata"));
    }
    void TearDown() override { icu::TimeZone::adoptDefault(saved_.release()); }

private:
    std::unique_ptr<icu::TimeZone> saved_;
};

TEST_F(DefaultTimeZone, UtcDateGovernsLaterDatesOfTheSameDestination) {
    BaseDestination destination;
    EXPECT_EQ(render(destination, "$DZZZZZ$d"), "+05:30");
    EXPECT_EQ(render(destination, "$DZZZZZ$d|$ZZZZZZ$z|$DZZZZZ$d"), "+05:30|Z|Z");
    EXPECT_EQ(render(destination, "$DZZZZZ"), "Z");

    BaseDestination other;
    EXPECT_EQ(render(other, "$DZZZZZ"), "+05:30");
    EXPECT_EQ(other.formatNow("ZZZZZ", "EST"), "-05:00");
    // An unknown abbreviation means the default zone.
    EXPECT_EQ(other.formatNow("ZZZZZ", "NOT-A-ZONE"), "+05:30");
}

TEST(LineRendering, DatePatternAndPadding) {
    BaseDestination destination;
    const std::string line = render(destination, "$Dyyyy-MM-dd HH:mm:ss.SSS$d $L: $M");
    EXPECT_TRUE(
        std::regex_match(line, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} INFO: hello)")))
        << line;
    EXPECT_TRUE(std::regex_match(render(destination, "[$6Dyy$d]"), std::regex(R"(\[    \d\d\])")));
    EXPECT_TRUE(std::regex_match(render(destination, "[$-6Dyy$d]"), std::regex(R"(\[\d\d    \])")));
}

TEST(LineRendering, Uptime) {
    EXPECT_EQ(BaseDestination::formatUptime(0), "00:00:00.000");
    EXPECT_EQ(BaseDestination::formatUptime(3725.5), "01:02:05.500");
    EXPECT_EQ(BaseDestination::formatUptime(59.999), "00:00:59.999");
    EXPECT_EQ(BaseDestination::formatUptime(360000.25), "100:00:00.250");

    BaseDestination destination;
    EXPECT_TRUE(
        std::regex_match(render(destination, "up $U!"), std::regex(R"(up 00:00:\d\d\.\d{3}!)")));
}

TEST(LineRendering, JsonFormIgnoresTheRestOfTheTemplate) {
    BaseDestination destination;
    destination.setFormat("$J $L $M never rendered");
    const auto line = destination.send(Level::warning, "hi \"there\"", "thread", "/a/b.cpp",
                                       "run()", 7, std::nullopt);
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->find('\n'), std::string::npos);
    const auto object = nlohmann::json::parse(*line);
    std::vector<std::string> keys;
    for (const auto& item : object.items()) {
        keys.push_back(item.key());
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"file", "function", "level", "line", "message",
                                              "thread", "timestamp"}));
    EXPECT_EQ(object["level"], 3);
    EXPECT_EQ(object["line"], 7);
    EXPECT_EQ(object["message"], "hi \"there\"");
    EXPECT_TRUE(object["timestamp"].is_number_float());

    const auto withContext = destination.send(Level::verbose, "m", "", "", "", 1, "  ctx ");
    ASSERT_TRUE(withContext.has_value());
    EXPECT_EQ(nlohmann::json::parse(*withContext)["context"], "  ctx ");
}

TEST(LineRendering, JsonFormFailsOnTextThatIsNotUtf8) {
    BaseDestination destination;
    destination.setFormat("$J");
    ::testing::internal::CaptureStdout();
    const auto line = destination.send(Level::info, "bad \xff byte", "", "", "", 1, std::nullopt);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_FALSE(line.has_value());
    EXPECT_EQ(printed, "LogCenter could not create JSON from dict.\n");

    ConsoleDestination console;
    console.setFormat("$J");
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(console.send(Level::info, "\xc3", "", "", "", 1, std::nullopt).has_value());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "LogCenter could not create JSON from dict.\n");
}

TEST(LineRendering, ConsoleWritesTheLineToStandardOutput) {
    ConsoleDestination console;
    console.setFormat("$L $M   ");
    ::testing::internal::CaptureStdout();
    const auto line = console.send(Level::error, "boom", "", "", "", 1, std::nullopt);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "ERROR boom\n");
    EXPECT_EQ(line, "ERROR boom");
}

}  // namespace
}  // namespace morvane::logging
