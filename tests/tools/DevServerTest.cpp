#include <curl/curl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <optional>
#include <thread>

#include "support/DevServer.h"

namespace morvane::test {
namespace {

struct Reply {
    CURLcode result = CURLE_OK;
    long status = 0;
    std::string body;

    nlohmann::json json() const { return nlohmann::json::parse(body); }
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* reply) {
    static_cast<Reply*>(reply)->body.append(data, size * count);
    return size * count;
}

// What the agent sends, with the certificate of the server trusted or, with none given, only
// the system's authorities.
Reply post(const std::string& url, const nlohmann::json& message,
           const std::optional<std::filesystem::path>& trusted) {
    static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    EXPECT_TRUE(initialised);
    Reply reply;
    CURL* curl = curl_easy_init();
    const std::string body = message.dump();
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json-rpc");
    headers = curl_slist_append(headers, "Accept: application/json; charset=utf-8");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (trusted) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, trusted->c_str());
    }
    reply.result = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return reply;
}

nlohmann::json enrolment(const std::string& installKey) {
    return {{"jsonrpc", "2.0"},
            {"id", 417},
            {"method", "account_add_device"},
            {"params",
             {{"key", installKey}, {"name", "alice"}, {"type", "Tarn"}, {"version", "2.0.3"}}}};
}

nlohmann::json configuration(const std::string& deviceKey) {
    return {{"jsonrpc", "2.0"},
            {"method", "device_configure"},
            {"params", {{"device", {{"key", deviceKey}}}, {"location", {{"randomize", true}}}}}};
}

TEST(DevServerTest, EnrolsAndConfiguresOverHttpsWithItsOwnCertificate) {
    DevServer server;
    const auto refused =
        post(server.baseUrl() + "/api/register", enrolment(DevServer::kInstallKey), std::nullopt);
    EXPECT_EQ(refused.result, CURLE_PEER_FAILED_VERIFICATION);

    const auto enrolled = post(server.baseUrl() + "/api/register",
                               enrolment(DevServer::kInstallKey), server.certificatePath());
    ASSERT_EQ(enrolled.result, CURLE_OK) << curl_easy_strerror(enrolled.result);
    EXPECT_EQ(enrolled.status, 200);
    const std::string deviceKey = enrolled.json()["result"]["device"];
    const auto configured =
        post(server.baseUrl() + "/api/device", configuration(deviceKey), server.certificatePath());
    EXPECT_FALSE(configured.json()["result"]["cfg"]["runtime"]["locations"].empty());

    // The refused handshake never became a request.
    const auto records = server.requests();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]["path"], "/api/register");
    EXPECT_EQ(records[0]["headers"]["Content-Type"], "application/json-rpc");
    EXPECT_EQ(records[0]["json"], enrolment(DevServer::kInstallKey));
    EXPECT_EQ(server.requestsTo("/api/device").size(), 1u);
    EXPECT_TRUE(server.account()["devices"].contains(deviceKey));
}

TEST(DevServerTest, FaultsKeysAndPoliciesGoThroughTheFixture) {
    DevServer::Options options;
    options.deviceKeys = {"dk-seeded"};
    options.policy = nlohmann::json::parse(
        R"({"filters": [{"domain": "corp.example", "resolvers": ["10.0.0.53"]}]})");
    options.faults = {{.mode = DevServer::FaultMode::Undecodable,
                       .method = DevServer::kConfigureMethod,
                       .count = 1,
                       .body = "{\"jsonrpc\": 2}",
                       .status = 502}};
    DevServer server(options);
    const auto configure = [&server](const std::string& key) {
        return post(server.baseUrl() + "/api/device", configuration(key), server.certificatePath());
    };

    auto reply = configure("dk-seeded");
    EXPECT_EQ(reply.status, 502);
    EXPECT_EQ(reply.body, "{\"jsonrpc\": 2}");
    EXPECT_EQ(configure("dk-seeded").json()["result"], *options.policy);

    server.addFault({.mode = DevServer::FaultMode::Unauthorized,
                     .method = DevServer::kConfigureMethod,
                     .count = 1});
    server.addFault({.mode = DevServer::FaultMode::EmptyBody, .count = 1});
    EXPECT_EQ(server.pendingFaults().size(), 2u);
    EXPECT_EQ(configure("dk-seeded").json()["error"]["message"], "Unauthorized");
    reply = configure("dk-seeded");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "");

    server.addFault({.mode = DevServer::FaultMode::Status500});
    EXPECT_EQ(configure("dk-seeded").status, 500);
    server.clearFaults();
    server.removeDeviceKey("dk-seeded");
    server.addDeviceKey("dk-other");
    server.setPolicy({{"filters", nlohmann::json::array()}}, "dk-other");
    EXPECT_EQ(configure("dk-seeded").json()["error"]["message"], "Unauthorized");
    EXPECT_EQ(configure("dk-other").json()["result"]["filters"], nlohmann::json::array());

    EXPECT_THROW(server.addFault(
                     {.mode = DevServer::FaultMode::Stall, .stall = std::chrono::milliseconds(-1)}),
                 std::runtime_error);
    server.clearRequests();
    EXPECT_TRUE(server.requests().empty());
}

TEST(DevServerTest, TakesItsProcessAlongEvenWithAStalledRequest) {
    auto server = std::make_unique<DevServer>();
    const auto pid = static_cast<pid_t>(server->processId());
    ASSERT_GT(pid, 0);
    server->addFault(
        {.mode = DevServer::FaultMode::Stall, .stall = std::chrono::milliseconds(600000)});
    std::optional<Reply> stalled;
    std::thread client([&, url = server->baseUrl(), cert = server->certificatePath()] {
        stalled = post(url + "/api/register", enrolment(DevServer::kInstallKey), cert);
    });
    while (server->requests().empty()) {
        std::this_thread::yield();
    }
    server.reset();
    client.join();
    ASSERT_TRUE(stalled);
    EXPECT_NE(stalled->result, CURLE_OK);  // closed, never answered
    EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

}  // namespace
}  // namespace morvane::test
