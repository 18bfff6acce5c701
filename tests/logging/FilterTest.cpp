#include <gtest/gtest.h>

#include <memory>

#include "logging/BaseDestination.h"
#include "logging/FilterValidator.h"
#include "logging/Filters.h"

namespace morvane::logging {
namespace {

using Validator = FilterValidator;

TEST(CompareFilter, Comparisons) {
    using M = Filters::Message;
    EXPECT_TRUE(M::startsWith({"zz", "ab"}, true)->apply("abc"));
    EXPECT_FALSE(M::startsWith({"AB"}, true)->apply("abc"));
    EXPECT_TRUE(M::startsWith({"AB"}, false)->apply("abc"));
    EXPECT_TRUE(M::contains({"ÄRGER"}, false)->apply("kein ärger hier"));
    EXPECT_FALSE(M::contains({"ÄRGER"}, true)->apply("kein ärger hier"));
    EXPECT_TRUE(M::endsWith({".swift"}, true)->apply("Observer.swift"));
    EXPECT_TRUE(M::equals({"x", "Main"}, false)->apply("main"));
    EXPECT_FALSE(M::equals({"Main"}, true)->apply("main"));
    // Excludes matches a value that lacks at least one of its strings.
    EXPECT_TRUE(M::excludes({"a", "q"}, true)->apply("abc"));
    EXPECT_FALSE(M::excludes({"a", "b"}, true)->apply("abc"));
    EXPECT_TRUE(M::custom([](std::string_view v) { return v.size() == 3; })->apply("abc"));
    EXPECT_FALSE(M::custom(nullptr)->apply("abc"));

    for (const auto& filter :
         {M::startsWith({}), M::contains({}), M::excludes({}), M::endsWith({}), M::equals({})}) {
        EXPECT_FALSE(filter->apply("anything"));
    }
    EXPECT_FALSE(M::contains({""})->apply(std::nullopt));
    EXPECT_TRUE(M::excludes({"x"})->isExcluded());
    EXPECT_FALSE(M::contains({"x"})->isExcluded());
}

TEST(FilterValidator, CountsConditionAndLevelMatches) {
    std::vector<std::shared_ptr<FilterType>> filters = {
        Filters::Path::contains({"core"}, true, false, Level::info),      // both
        Filters::Function::equals({"run()"}, true, false, Level::error),  // condition only
        Filters::Path::contains({"ui"}, true, false, Level::debug),       // level only
        Filters::Function::equals({"x"}, true, false, Level::error),      // neither
        Filters::Path::contains({"core"}, true, true, Level::verbose),    // required
    };
    const auto result =
        Validator::validate(filters, Validator::ValidationType::nonRequired, Level::warning,
                            "/src/core/a.cpp", "run()", std::nullopt);
    const auto* some = std::get_if<Validator::SomeFiltersMatch>(&result);
    ASSERT_NE(some, nullptr);
    EXPECT_EQ(some->data.fullMatchCount, 1);
    EXPECT_EQ(some->data.conditionMatchCount, 1);
    EXPECT_EQ(some->data.logLevelMatchCount, 1);

    EXPECT_TRUE(std::holds_alternative<Validator::AllFiltersMatch>(
        Validator::validate(filters, Validator::ValidationType::required, Level::warning,
                            "/src/core/a.cpp", "", std::nullopt)));
    EXPECT_TRUE(std::holds_alternative<Validator::NoFiltersMatchingType>(Validator::validate(
        filters, Validator::ValidationType::excluded, Level::warning, "", "", std::nullopt)));
}

TEST(FilterValidator, MessageFilterWithoutTextFailsWithoutBeingAsked) {
    int asked = 0;
    std::vector<std::shared_ptr<FilterType>> filters = {Filters::Message::custom(
        [&asked](std::string_view) {
            ++asked;
            return true;
        },
        true)};
    const auto result = Validator::validate(filters, Validator::ValidationType::required,
                                            Level::error, "p", "f", std::nullopt);
    ASSERT_TRUE(std::holds_alternative<Validator::SomeFiltersMatch>(result));
    EXPECT_EQ(std::get<Validator::SomeFiltersMatch>(result).data.logLevelMatchCount, 1);
    EXPECT_EQ(asked, 0);
}

class PassesFilters : public ::testing::Test {
protected:
    bool passes(Level level, const std::string& message = "text") {
        return destination.passesFilters(level, "/src/core/Observer.swift", "onChange()", message);
    }
    std::string printed(Level level, const std::string& message = "text") {
        ::testing::internal::CaptureStdout();
        passes(level, message);
        return ::testing::internal::GetCapturedStdout();
    }

    BaseDestination destination;
};

TEST_F(PassesFilters, WithoutFiltersTheDestinationLevelDecides) {
    destination.setMinLevel(Level::info);
    EXPECT_TRUE(passes(Level::info));
    EXPECT_TRUE(passes(Level::error));
    EXPECT_FALSE(passes(Level::debug));

    destination.setDebugPrint(true);
    EXPECT_EQ(printed(Level::info), "filters are empty and level >= minLevel\n");
    EXPECT_EQ(printed(Level::verbose), "filters are empty and level < minLevel\n");
}

TEST_F(PassesFilters, ExclusionDropsALineThatHasAllItsStrings) {
    destination.addFilter(Filters::Message::excludes({"password", "token"}, true));
    destination.setDebugPrint(true);
    EXPECT_FALSE(passes(Level::error, "password and token"));
    EXPECT_EQ(printed(Level::error, "password and token"),
              "filters are not empty and message was excluded\n");
    // Lacking one string, the exclusion matches and the line goes on to the level.
    destination.setMinLevel(Level::warning);
    EXPECT_TRUE(passes(Level::error, "password only"));
    EXPECT_FALSE(passes(Level::info, "password only"));
}

TEST_F(PassesFilters, RequiredFiltersOverrideTheDestinationLevel) {
    destination.setMinLevel(Level::error);
    destination.addFilter(Filters::Path::contains({"/core/"}, true, true, Level::verbose));
    EXPECT_TRUE(passes(Level::verbose));

    // The condition holds but the filter's own level is above the line.
    BaseDestination strict;
    strict.addFilter(Filters::Path::contains({"/core/"}, true, true, Level::error));
    EXPECT_FALSE(strict.passesFilters(Level::warning, "/src/core/a", "f()", std::nullopt));
    EXPECT_TRUE(strict.passesFilters(Level::error, "/src/core/a", "f()", std::nullopt));
}

TEST_F(PassesFilters, NonRequiredFilters) {
    destination.setMinLevel(Level::error);
    const auto core = Filters::Path::contains({"/core/"}, true, false, Level::verbose);
    const auto ui = Filters::Path::contains({"/ui/"}, true, false, Level::verbose);
    destination.addFilter(ui);
    destination.addFilter(core);
    // One full match is enough, even below the destination's level.
    EXPECT_TRUE(passes(Level::debug));

    destination.removeFilter(core);
    destination.addFilter(Filters::Function::equals({"onChange()"}, true, false, Level::error));
    // Only the condition holds for the function filter: dropped.
    EXPECT_FALSE(passes(Level::warning));

    BaseDestination levelOnly;
    levelOnly.setMinLevel(Level::warning);
    levelOnly.addFilter(Filters::Path::contains({"/ui/"}, true, false, Level::verbose));
    EXPECT_TRUE(levelOnly.passesFilters(Level::warning, "/core/", "", std::nullopt));
    EXPECT_FALSE(levelOnly.passesFilters(Level::info, "/core/", "", std::nullopt));
}

TEST_F(PassesFilters, RemoveFilterTakesOnlyThatObject) {
    const auto first = Filters::Message::contains({"a"});
    const auto twin = Filters::Message::contains({"a"});
    destination.addFilter(first);
    destination.addFilter(twin);
    destination.addFilter(first);
    destination.removeFilter(first);
    ASSERT_EQ(destination.filters().size(), 2u);
    EXPECT_EQ(destination.filters()[0], twin);
    EXPECT_EQ(destination.filters()[1], first);
    destination.removeFilter(Filters::Message::contains({"a"}));
    destination.addFilter(nullptr);
    EXPECT_EQ(destination.filters().size(), 2u);
    EXPECT_TRUE(destination.hasMessageFilters());

    BaseDestination pathOnly;
    pathOnly.addFilter(Filters::Path::contains({"a"}));
    EXPECT_FALSE(pathOnly.hasMessageFilters());
}

}  // namespace
}  // namespace morvane::logging
