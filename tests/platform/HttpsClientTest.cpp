#include <curl/curl.h>
#include <gtest/gtest.h>

#include "platform/HttpsClient.h"
#include "support/DevServer.h"
#include "support/TestEnvironment.h"

namespace morvane::platform {
namespace {

using test::DevServer;

const std::vector<std::string> kHeaders = {"Content-Type: application/json-rpc"};
const std::string kEnrolment =
    R"({"id":7,"jsonrpc":"2.0","method":"account_add_device","params":{"key":"test-install-key",)"
    R"("name":"n","type":"Tarn","version":"2.0.3"}})";

class HttpsClientTest : public ::testing::Test {
protected:
    void SetUp() override { env_.unset("MORVANECLOUD_CA_FILE"); }
    std::string url(const char* host = "127.0.0.1") const {
        return std::string("https://") + host + ":" + std::to_string(server_.port()) +
               "/api/register";
    }

    test::ScopedEnv env_;
    DevServer server_;
};

TEST_F(HttpsClientTest, CertificatesAreCheckedUnlessTrustedOrWaived) {
    const auto refused = HttpsClient({}).post(url(), kHeaders, kEnrolment);
    ASSERT_TRUE(refused.error);
    EXPECT_EQ(refused.error->code, CURLE_PEER_FAILED_VERIFICATION) << refused.error->description;
    EXPECT_TRUE(server_.requests().empty());

    const HttpsClient waiving({.acceptAnyCertificate = true});
    EXPECT_EQ(waiving.post(url(), kHeaders, kEnrolment).status, 200);
    // Only https is spoken, whatever the URL says.
    const auto plain = waiving.post("http://127.0.0.1:" + std::to_string(server_.port()) + "/",
                                    kHeaders, kEnrolment);
    EXPECT_EQ(plain.error.value_or(HttpsError{}).code, CURLE_UNSUPPORTED_PROTOCOL);

    env_.set("MORVANECLOUD_CA_FILE", server_.certificatePath().string());
    const HttpsClient trusting({});
    const auto trusted = trusting.post(url(), kHeaders, kEnrolment);
    ASSERT_FALSE(trusted.error) << trusted.error->description;
    EXPECT_EQ(nlohmann::json::parse(trusted.body)["id"], 7);
    // Trusting the file waives nothing: the certificate must still name the host.
    EXPECT_TRUE(trusting.post(url("127.0.0.2"), kHeaders, kEnrolment).error);
    EXPECT_EQ(server_.requests().size(), 2u);
}

TEST_F(HttpsClientTest, ASilentServerEndsTheExchangeAfterTheIdleTime) {
    server_.addFault(
        {.mode = DevServer::FaultMode::Stall, .count = 1, .stall = std::chrono::seconds(5)});
    const auto stalled =
        HttpsClient({.acceptAnyCertificate = true, .idleTimeout = std::chrono::seconds(1)})
            .post(url(), kHeaders, kEnrolment);
    ASSERT_TRUE(stalled.error);
    EXPECT_EQ(stalled.error->code, CURLE_OPERATION_TIMEDOUT) << stalled.error->description;
    EXPECT_EQ(server_.requests().size(), 1u);
}

}  // namespace
}  // namespace morvane::platform
