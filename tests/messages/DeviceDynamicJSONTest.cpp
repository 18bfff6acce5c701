#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <limits>

#include "messages/AnyCodable.h"
#include "messages/JSONAny.h"
#include "messages/JSONCoding.h"

namespace morvane {
namespace {

JSONAny decodeAny(const std::string& text) {
    std::string error;
    auto value = decodeJSON<JSONAny>(text, &error);
    EXPECT_TRUE(value) << error << " in " << text;
    return value.value_or(JSONAny{});
}

TEST(DeviceDynamicJSONTest, JSONAnyKeepsTheKindOfEachValueAndTheNesting) {
    const std::pair<const char*, JSONAny::Value> kinds[] = {
        {"1", std::int64_t{1}},
        {"-1", std::int64_t{-1}},
        {"1.5", 1.5},
        {"1.0", 1.0},
        {"true", true},
        {"null", JSONNull{}},
        {"[]", JSONAny::List{}},
        {"{}", JSONAny::Dictionary{}},
        {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
        // Beyond 64 bits there is no integer to hold it.
        {"9223372036854775808", 9223372036854775808.0},
    };
    for (const auto& [text, expected] : kinds) {
        EXPECT_EQ(decodeAny(text).value, expected) << text;
    }

    JSONAny value =
        decodeAny(R"({"b":[1,{"c":null,"d":[[],{}]},"x",false,-0.5],"a":{"z":1e+100}})");
    // Members come back in key order; the values are untouched.
    EXPECT_EQ(encodeJSON(value),
              R"({"a":{"z":1e+100},"b":[1,{"c":null,"d":[[],{}]},"x",false,-0.5]})");
    EXPECT_EQ(decodeAny(*encodeJSON(value)), value);
}

TEST(DeviceDynamicJSONTest, JSONAnyAndJSONNullRefuseWhatTheyCannotHold) {
    std::string error;
    EXPECT_TRUE(decodeJSON<JSONNull>("null"));
    EXPECT_EQ(encodeJSON(JSONNull{}), "null");
    EXPECT_FALSE(decodeJSON<JSONNull>("0", &error));
    EXPECT_EQ(error, "$: Wrong type for JSONNull");
    EXPECT_FALSE(JSONCodingKey::fromInteger(3));

    CodingPath root;
    nlohmann::json binary = nlohmann::json::binary({1, 2});
    try {
        JSONAny::read(binary, root);
        ADD_FAILURE() << "binary decoded";
    } catch (const CodingError& failure) {
        EXPECT_EQ(std::string(failure.what()), "$: Cannot decode JSONAny: not a JSON value");
    }
    EXPECT_FALSE(encodeJSON(JSONAny{std::numeric_limits<double>::infinity()}, &error));
    EXPECT_EQ(error, "Cannot encode JSONAny: a number that is not finite");
}

AnyCodable decodeCodable(const std::string& text) {
    std::string error;
    auto value = decodeJSON<AnyCodable>(text, &error);
    EXPECT_TRUE(value) << error;
    return value.value_or(AnyCodable("decode failed"));
}

template <typename T>
bool holds(const AnyCodable& codable) {
    return std::any_cast<T>(&codable.value) != nullptr;
}

TEST(DeviceDynamicJSONTest, AnyCodableDecodesEachKindInOrder) {
    EXPECT_FALSE(decodeCodable("null").value.has_value());
    EXPECT_TRUE(holds<bool>(decodeCodable("false")));
    EXPECT_TRUE(holds<std::int64_t>(decodeCodable("5")));
    EXPECT_TRUE(holds<std::int64_t>(decodeCodable("-5")));
    EXPECT_TRUE(holds<std::uint64_t>(decodeCodable("18446744073709551615")));
    EXPECT_TRUE(holds<double>(decodeCodable("5.0")));
    EXPECT_TRUE(holds<std::string>(decodeCodable(R"("5")")));

    AnyCodable rule = decodeCodable(R"({"resolvers":["1.1.1.1",null],"domain":"d"})");
    ASSERT_TRUE(holds<AnyCodable::Dictionary>(rule));
    const auto& members = std::any_cast<const AnyCodable::Dictionary&>(rule.value);
    // Inner values are plain values, not wrapped again.
    const auto& resolvers = std::any_cast<const AnyCodable::List&>(members.at("resolvers"));
    EXPECT_EQ(std::any_cast<std::string>(resolvers[0]), "1.1.1.1");
    EXPECT_FALSE(resolvers[1].has_value());
    EXPECT_EQ(encodeJSON(rule), R"({"domain":"d","resolvers":["1.1.1.1",null]})");

    auto dictionary = decodeJSON<std::map<std::string, AnyCodable>>(R"({"a":1,"b":[true]})");
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(dictionary->at("b"), AnyCodable(std::vector<AnyCodable>{true}));
}

struct Opaque {};

TEST(DeviceDynamicJSONTest, AnyCodableEncodesByRunTimeTypeAndFailsOnlyWhenEncoded) {
    using namespace std::chrono;
    const auto date =
        sys_days(year(2024) / 5 / 1) + hours(12) + minutes(3) + seconds(4) + milliseconds(5);
    EXPECT_EQ(encodeJSON(AnyCodable()), "null");
    EXPECT_EQ(encodeJSON(AnyCodable(std::any(std::int8_t{-8}))), "-8");
    EXPECT_EQ(encodeJSON(AnyCodable(std::any(std::uint16_t{16}))), "16");
    EXPECT_EQ(encodeJSON(AnyCodable(std::any(0.1f))), "0.1");
    EXPECT_EQ(encodeJSON(AnyCodable(std::any(2.0))), "2.0");
    EXPECT_EQ(encodeJSON(AnyCodable(std::numeric_limits<std::uint64_t>::max())),
              "18446744073709551615");
    EXPECT_EQ(encodeJSON(AnyCodable(std::any(time_point_cast<system_clock::duration>(date)))),
              R"("2024-05-01T12:03:04Z")");
    EXPECT_EQ(encodeJSON(AnyCodable(std::any(std::filesystem::path("/etc/x.json")))),
              R"("/etc/x.json")");
    AnyCodable nested(std::map<std::string, AnyCodable>{
        {"list", std::vector<AnyCodable>{1, "two", nullptr, AnyCodable(std::any(AnyCodable(3)))}},
        {"empty", std::map<std::string, AnyCodable>{}}});
    EXPECT_EQ(encodeJSON(nested), R"({"empty":{},"list":[1,"two",null,3]})");

    AnyCodable odd(std::any(Opaque{}));  // construction holds it as it is
    for (const AnyCodable& refused :
         {odd, AnyCodable(std::vector<AnyCodable>{1, odd}), AnyCodable(std::any(std::nan("")))}) {
        std::string error;
        EXPECT_FALSE(encodeJSON(refused, &error));
        EXPECT_EQ(error, "AnyCodable value cannot be encoded");
    }
}

TEST(DeviceDynamicJSONTest, AnyCodableEqualityNeedsTheSameType) {
    EXPECT_EQ(AnyCodable(), AnyCodable(nullptr));
    EXPECT_EQ(AnyCodable(1), decodeCodable("1"));
    EXPECT_NE(AnyCodable(1), AnyCodable(1.0));
    EXPECT_NE(AnyCodable(1), AnyCodable(std::any(1)));  // Int and Int32 differ
    EXPECT_NE(AnyCodable(true), AnyCodable(1));
    EXPECT_NE(AnyCodable(), AnyCodable(false));
    EXPECT_EQ(AnyCodable(std::vector<AnyCodable>{1, "a"}), decodeCodable(R"([1,"a"])"));
    EXPECT_NE(AnyCodable(std::vector<AnyCodable>{1, "a"}), decodeCodable(R"([1,"a",null])"));
    EXPECT_EQ(AnyCodable(std::map<std::string, AnyCodable>{{"k", 1}}), decodeCodable(R"({"k":1})"));
    EXPECT_NE(AnyCodable(std::map<std::string, AnyCodable>{{"k", 1}}), decodeCodable(R"({"j":1})"));
    EXPECT_NE(AnyCodable(std::any(Opaque{})), AnyCodable(std::any(Opaque{})));
}

TEST(DeviceDynamicJSONTest, AnyCodableDescriptions) {
    EXPECT_EQ(AnyCodable().description(), "nil");
    EXPECT_EQ(AnyCodable("a\"b").description(), "a\"b");
    EXPECT_EQ(AnyCodable("a\"b").debugDescription(), R"(AnyCodable("a\"b"))");
    EXPECT_EQ(AnyCodable(2.0).description(), "2.0");
    EXPECT_EQ(AnyCodable(-7).debugDescription(), "AnyCodable(-7)");
    EXPECT_EQ(decodeCodable(R"([1,"x",null,{"k":false}])").description(),
              R"([1, "x", nil, ["k": false]])");
    EXPECT_EQ(AnyCodable(std::map<std::string, AnyCodable>{}).description(), "[:]");
    EXPECT_EQ(AnyCodable(std::any(Opaque{})).description(),
              "morvane::(anonymous namespace)::Opaque");
}

}  // namespace
}  // namespace morvane
