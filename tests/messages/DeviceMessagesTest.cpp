#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "messages/DeviceConfiguration.h"
#include "messages/DeviceRequestModel.h"
#include "messages/JSONCoding.h"
#include "messages/MainConfiguration.h"
#include "messages/Payload.h"
#include "messages/ServerMethods.h"

namespace morvane {
namespace {

// Text already in the stored form: compact, keys ascending at every level, no null.
bool isCanonical(const std::string& text) {
    return nlohmann::json::parse(text).dump() == text;
}

// Decodes `text` as T and encodes the record again.
template <typename T>
std::string reencode(const std::string& text) {
    std::string error;
    auto record = decodeJSON<T>(text, &error);
    EXPECT_TRUE(record) << error << "\n in " << text;
    if (!record) {
        return {};
    }
    auto encoded = encodeJSON(*record, &error);
    EXPECT_TRUE(encoded) << error;
    return encoded.value_or("");
}

const std::string kPolicy = R"({"id":7,"jsonrpc":"2.0","result":{"actions":{"disable":false,)"
                            R"("move":{"key":"k2","location":{"name":"lab","randomize":false},)"
                            R"("rpc":"https://next.example:9443"},"shutdown":false,)"
                            R"("uninstall":false,"upgrade":{"args":"-q","url":"https://d/p",)"
                            R"("version":"2.1.0"}},"cfg":{"persistent":{"key":"p-1"},)"
                            R"("runtime":{"locations":[{"name":"Office","rule":"r","tag":"t-1"},)"
                            R"({"name":"Home","tag":"t-2"}],"reconfigure":300,"tarn":{)"
                            R"("interfaces_to_ignore":["utun","wg"],"log_level":"diagnose",)"
                            R"("ncsi_echo_resolver":"9.9.9.9","ncsi_event_delay":5,)"
                            R"("ncsi_interval":60,"ncsi_interval_disconnected":10,)"
                            R"("ncsi_timeout":3,"ncsi_url":"http://probe/","tray_type":"default",)"
                            R"("unbound_log_queries":true,"unbound_use_syslog":false},)"
                            R"("user":"u-42"}},"filters":[{"domain":"corp.example"},)"
                            R"({"resolvers":["10.0.0.1","10.0.0.2"],"rule":"10.0.0.0/8"},)"
                            R"({"domain":"x.example","resolvers":["10.0.0.1"]}]}})";

TEST(DeviceMessagesTest, EveryRecordReencodesToTheSameText) {
    EXPECT_EQ(reencode<DeviceConfiguration>(kPolicy), kPolicy);

    const std::string refused =
        R"({"error":{"code":-32000,"data":{"n":[1,2.5,"x",null,true]},"message":"Unauthorized"},"id":3,"jsonrpc":"2.0"})";
    EXPECT_EQ(reencode<DeviceConfiguration>(refused), refused);
    EXPECT_EQ(reencode<MainConfiguration>(refused), refused);

    const std::string enrolled =
        R"({"id":417,"jsonrpc":"2.0","result":{"device":"dk-1","name":"acme-lab","type":"Tarn"}})";
    EXPECT_EQ(reencode<MainConfiguration>(enrolled), enrolled);

    const std::string request =
        R"({"jsonrpc":"2.0","method":"device_configure","params":{"device":{"key":"dk-1","version":"2.0.3"},)"
        R"("extra":{"nics":[{"description":"wlan0","enabled":true,"ipv4":"a","ipv6":"b"},)"
        R"({"description":"eth0","enabled":false}],"os":{"type":"Linux","version":"6.1"},)"
        R"("public_ip":{"ipv4":"1.2.3.4","ipv6":"::1"}},"location":{"name":"lab","randomize":false},)"
        R"("user":{"email":"a@b.c","name":"Ann","uuid":"u"}}})";
    EXPECT_EQ(reencode<DeviceRequestModel>(request), request);

    const std::string rule = R"({"domain":"d","resolvers":[],"rule":"1.2.3.4"})";
    EXPECT_EQ(reencode<ForwardingRule>(rule), rule);
    EXPECT_EQ(reencode<DeviceConfiguration>("{}"), "{}");
    const std::string extremes =
        R"({"error":{"code":-9223372036854775808,"message":""},"id":9223372036854775807})";
    EXPECT_EQ(reencode<DeviceConfiguration>(extremes), extremes);

    for (const std::string& text : {kPolicy, refused, enrolled, request}) {
        EXPECT_TRUE(isCanonical(text));
    }
}

TEST(DeviceMessagesTest, DecodedPolicyHoldsWhatTheServerSent) {
    auto policy = decodeJSON<DeviceConfiguration>(kPolicy);
    ASSERT_TRUE(policy && policy->result && policy->result->cfg);
    const Runtime& runtime = *policy->result->cfg->runtime;
    EXPECT_EQ(runtime.locations.front().tag, "t-1");
    EXPECT_EQ(runtime.locations.back().rule, std::nullopt);
    EXPECT_EQ(runtime.tarn->logLevel, LogLevel::diagnose);
    EXPECT_EQ(runtime.tarn->trayType, UITrayIconDisplayType::defaultType);
    EXPECT_EQ(runtime.tarn->ncsiIntervalDisconnected, 10);
    EXPECT_EQ(policy->result->actions->move->location->randomize, false);
    EXPECT_EQ(policy->id, 7);

    // Levels filter by verbosity, so their order is part of the meaning.
    EXPECT_LT(LogLevel::none, LogLevel::warning);
    EXPECT_LT(LogLevel::warning, LogLevel::production);
    EXPECT_GE(LogLevel::diagnose, LogLevel::production);
    EXPECT_EQ(enumFromRawValue<LogLevel>("production"), LogLevel::production);
    EXPECT_EQ(enumFromRawValue<ServerMethods>("device_configure"), ServerMethods::configDevice);
    EXPECT_EQ(enumFromRawValue<ServerMethods>("Device_configure"), std::nullopt);
}

TEST(DeviceMessagesTest, ReencodingDropsUnlistedKeysAndNulls) {
    const std::string sent =
        R"({"zeta":1,"jsonrpc":"2.0","error":null,"result":{"cfg":{"runtime":{"user":null,)"
        R"("locations":[{"tag":"t","name":"n","extra":[1]}],"tarn":{"colour":"red",)"
        R"("log_level":"none"}}},"filters":[{"domain":"d","weight":3,"rule":null}],"more":{}}})";
    EXPECT_EQ(
        reencode<DeviceConfiguration>(sent),
        R"({"jsonrpc":"2.0","result":{"cfg":{"runtime":{"locations":[{"name":"n","tag":"t"}],)"
        R"("tarn":{"log_level":"none"}}},"filters":[{"domain":"d"}]}})");
}

TEST(DeviceMessagesTest, TextIsEscapedAsTheStoredFormReadsBack) {
    ForwardingRule rule{.domain = std::string("q\"\\/\b\f\n\r\t\x01\x1f\x7f é 🙂")};
    auto text = encodeJSON(rule);
    ASSERT_TRUE(text);
    EXPECT_EQ(*text, R"({"domain":"q\"\\/\b\f\n\r\t\u0001\u001f)"
                     "\x7f"
                     R"( é 🙂"})");
    EXPECT_TRUE(isCanonical(*text));
    EXPECT_EQ(decodeJSON<ForwardingRule>(*text), rule);
}

TEST(DeviceMessagesTest, RequestWithoutLocationNameSendsOnlyRandomize) {
    DeviceRequestModel request;
    request.params.device = {.key = "dk", .version = std::string(kClientVersion)};
    request.params.extra = Extra{.nics = {}, .os = {.type = "Linux", .version = "6.1"}};
    request.params.location = Location{.randomize = true};
    request.params.user = User{.email = "a@b.c.local"};
    EXPECT_EQ(encodeJSON(request),
              R"({"jsonrpc":"2.0","method":"device_configure","params":{"device":{"key":"dk",)"
              R"("version":"2.0.3"},"extra":{"nics":[],"os":{"type":"Linux","version":"6.1"}},)"
              R"("location":{"randomize":true},"user":{"email":"a@b.c.local"}}})");
}

TEST(DeviceMessagesTest, EnrolmentPayloadDrawsItsIdentifierAndGoesOutThroughItsDictionary) {
    // Each enrolment draws its own identifier, within 1...999.
    std::set<std::int64_t> seen;
    for (int i = 0; i < 200; ++i) {
        const std::int64_t id = Payload::make("k", "n").identifier;
        ASSERT_GE(id, 1);
        ASSERT_LE(id, 999);
        seen.insert(id);
    }
    EXPECT_GT(seen.size(), 1u);

    Payload payload = Payload::make("install-key", "acme-lab");
    std::string error;
    auto data = payload.toData(&error);
    ASSERT_TRUE(data) << error;
    EXPECT_EQ(Payload::fromData(*data), payload);
    EXPECT_EQ(PayloadParams::fromData(*payload.params.toData()), payload.params);

    payload.params.name = "bad\xff";
    EXPECT_FALSE(payload.toData(&error));
    EXPECT_EQ(error.rfind("JSONSerialization error -1: ", 0), 0u) << error;
}

TEST(DeviceMessagesTest, ResolverListConcatenatesRulesInOrder) {
    auto policy = decodeJSON<DeviceConfiguration>(
        R"({"result":{"filters":[{"domain":"only"},{"resolvers":["a","b"]},{"resolvers":["c","a"]}]}})");
    ASSERT_TRUE(policy);
    EXPECT_EQ(resolverList(*policy), (std::vector<std::string>{"a", "b", "c", "a"}));
    EXPECT_TRUE(resolverList(*decodeJSON<DeviceConfiguration>("{}")).empty());
    EXPECT_TRUE(resolverList(*decodeJSON<DeviceConfiguration>(R"({"result":{}})")).empty());
}

}  // namespace
}  // namespace morvane
