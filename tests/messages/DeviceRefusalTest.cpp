// Every rule of strict decoding, one bad message at a time: each must give no record at all
// and a reason that points at the offending value.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "messages/DeviceConfiguration.h"
#include "messages/DeviceRequestModel.h"
#include "messages/JSONCoding.h"
#include "messages/MainConfiguration.h"
#include "messages/Payload.h"

namespace morvane {
namespace {

struct Refusal {
    const char* what;
    std::string text;
    std::string reason;  // expected within the error text
};

// A policy that decodes, with `runtime` replaced by the given JSON.
std::string policyWithRuntime(const std::string& runtime) {
    return R"({"jsonrpc":"2.0","result":{"cfg":{"runtime":)" + runtime + "}}}";
}

std::string policyWithTarn(const std::string& tarn) {
    return policyWithRuntime(R"({"locations":[{"name":"n","tag":"t"}],"tarn":)" + tarn + "}");
}

template <typename T>
void expectRefused(const Refusal& refusal) {
    std::string error;
    std::optional<T> record = decodeJSON<T>(refusal.text, &error);
    EXPECT_FALSE(record) << refusal.what << ": decoded " << refusal.text;
    EXPECT_NE(error.find(refusal.reason), std::string::npos)
        << refusal.what << ": error was \"" << error << "\"";
}

TEST(DeviceRefusalTest, PolicyFailsAsAWholeOnAnyBadValue) {
    const Refusal refusals[] = {
        {"not JSON", "{\"jsonrpc\":", "parse error"},
        {"trailing garbage", "{} x", "parse error"},
        {"empty input", "", "parse error"},
        {"invalid UTF-8 in a string", "{\"jsonrpc\":\"\xc3\x28\"}", "parse error"},
        {"lone surrogate escape", R"({"jsonrpc":"\ud800"})", "parse error"},
        {"top level is an array", "[]", "$: expected an object, found an array"},
        {"runtime without locations", policyWithRuntime(R"({"user":"u"})"),
         "$.result.cfg.runtime.locations: required key is missing"},
        {"required value null", policyWithRuntime(R"({"locations":null})"),
         "$.result.cfg.runtime.locations: required value is null"},
        {"required key inside a list element",
         policyWithRuntime(R"({"locations":[{"name":"n","tag":"t"},{"name":"m"}]})"),
         "$.result.cfg.runtime.locations[1].tag: required key is missing"},
        {"log level outside its list", policyWithTarn(R"({"log_level":"verbose"})"),
         "$.result.cfg.runtime.tarn.log_level: \"verbose\" is not one of the known values"},
        {"log level in another case", policyWithTarn(R"({"log_level":"Diagnose"})"),
         "is not one of the known values"},
        {"tray type by its case name", policyWithTarn(R"({"tray_type":"defaultType"})"),
         "$.result.cfg.runtime.tarn.tray_type"},
        {"enumeration as a number", policyWithTarn(R"({"log_level":2})"),
         "expected a string, found an integer"},
        {"digits in a string for an integer", policyWithTarn(R"({"ncsi_interval":"60"})"),
         "$.result.cfg.runtime.tarn.ncsi_interval: expected an integer, found a string"},
        {"whole float for an integer", policyWithTarn(R"({"ncsi_timeout":5.0})"),
         "expected an integer, found a floating-point number"},
        {"exponent for an integer", policyWithTarn(R"({"ncsi_timeout":1e3})"),
         "found a floating-point number"},
        {"integer just above the signed range", R"({"id":9223372036854775808})",
         "$.id: integer out of the signed 64-bit range"},
        {"integer far beyond 64 bits", R"({"id":123456789012345678901234567890})",
         "found a floating-point number"},
        {"number beyond the double range", R"({"id":1e400})", "number overflow"},
        {"string for a boolean", policyWithTarn(R"({"unbound_use_syslog":"true"})"),
         "expected a boolean, found a string"},
        {"number for a boolean", policyWithTarn(R"({"unbound_log_queries":1})"),
         "expected a boolean, found an integer"},
        {"null inside a string list", policyWithTarn(R"({"interfaces_to_ignore":["a",null]})"),
         "$.result.cfg.runtime.tarn.interfaces_to_ignore[1]: expected a string, found null"},
        {"string for a list", R"({"result":{"filters":"a"}})", "expected an array"},
        {"list for a record", R"({"result":{"cfg":[]}})", "$.result.cfg: expected an object"},
        {"number for a string", R"({"jsonrpc":2})", "$.jsonrpc: expected a string"},
        {"error without message", R"({"error":{"code":1}})",
         "$.error.message: required key is missing"},
        {"error code as text", R"({"error":{"code":"1","message":"m"}})",
         "$.error.code: expected an integer"},
        {"data nested beyond the limit",
         R"({"error":{"code":1,"message":"m","data":)" + std::string(200, '[') +
             std::string(200, ']') + "}}",
         "Cannot decode JSONAny: nested too deeply"},
        {"location in a move order with a bad flag",
         R"({"result":{"actions":{"move":{"location":{"randomize":"no"}}}}})",
         "$.result.actions.move.location.randomize"},
    };
    for (const Refusal& refusal : refusals) {
        expectRefused<DeviceConfiguration>(refusal);
    }
}

TEST(DeviceRefusalTest, EnrolmentAnswerRequestsAndPayloadNeedTheirRequiredFields) {
    const Refusal refusals[] = {
        {"empty object", "{}", "$.jsonrpc: required key is missing"},
        {"null jsonrpc", R"({"jsonrpc":null})", "$.jsonrpc: required value is null"},
        {"result without type", R"({"jsonrpc":"2.0","result":{"device":"d","name":"n"}})",
         "$.result.type: required key is missing"},
        {"id as text", R"({"jsonrpc":"2.0","id":"417"})", "$.id: expected an integer"},
    };
    for (const Refusal& refusal : refusals) {
        expectRefused<MainConfiguration>(refusal);
    }
    expectRefused<DeviceRequestModel>(
        {"request without device key",
         R"({"jsonrpc":"2.0","method":"device_configure","params":{"device":{}}})",
         "$.params.device.key: required key is missing"});
    expectRefused<DeviceRequestModel>(
        {"nic without description",
         R"({"jsonrpc":"2.0","method":"m","params":{"device":{"key":"k"},)"
         R"("extra":{"nics":[{"enabled":true}],"os":{"type":"t","version":"v"}}}})",
         "$.params.extra.nics[0].description: required key is missing"});
    expectRefused<Payload>({"payload without id",
                            R"({"jsonrpc":"2.0","method":"m","params":{"key":"k","name":"n",)"
                            R"("type":"Tarn","version":"2.0.3"}})",
                            "$.id: required key is missing"});
}

TEST(DeviceRefusalTest, OptionalNullReadsAsAbsent) {
    auto policy = decodeJSON<DeviceConfiguration>(
        R"({"error":null,"id":null,"jsonrpc":null,"result":{"actions":null,"filters":null}})");
    ASSERT_TRUE(policy);
    EXPECT_FALSE(policy->error || policy->id || policy->jsonrpc);
    EXPECT_FALSE(policy->result->actions || policy->result->filters);

    auto refusal = decodeJSON<MainConfiguration>(
        R"({"jsonrpc":"2.0","error":{"code":-1,"message":"m","data":null}})");
    ASSERT_TRUE(refusal && refusal->error);
    EXPECT_FALSE(refusal->error->data);
}

// A record that lists its keys out of order, as a slip in a new record would.
struct Unordered {
    std::string b;
    std::string a;
    void writeFields(JSONWriter& out) const {
        out.field("b", b);
        out.field("a", a);
    }
};

TEST(DeviceRefusalTest, EncodingRefusesWhatJSONCannotHold) {
    std::string error;
    EXPECT_FALSE(encodeJSON(Unordered{"1", "2"}, &error));
    EXPECT_NE(error.find("keys must ascend"), std::string::npos) << error;

    DeviceConfiguration policy;
    // An encoded surrogate, an overlong form, a code point above U+10FFFF, a form cut short.
    for (const char* text : {"2.0\xed\xa0\x80", "\xc0\xaf", "\xf4\x90\x80\x80", "\xe2\x82"}) {
        policy.jsonrpc = text;
        error.clear();
        EXPECT_FALSE(encodeJSON(policy, &error));
        EXPECT_EQ(error, "text is not valid UTF-8");
    }

    policy.jsonrpc.reset();
    policy.error =
        DeviceError{.code = 1, .data = JSONAny{JSONAny::List{JSONAny{NAN}}}, .message = "m"};
    EXPECT_FALSE(encodeJSON(policy, &error));
    EXPECT_EQ(error, "Cannot encode JSONAny: a number that is not finite");
}

}  // namespace
}  // namespace morvane
