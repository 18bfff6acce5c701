#include <gtest/gtest.h>

#include <future>
#include <latch>
#include <mutex>
#include <nlohmann/json.hpp>

#include "device/DeviceConfigManager.h"
#include "device/DeviceServerFixture.h"
#include "messages/JSONCoding.h"
#include "platform/NotificationCenter.h"
#include "settings/Utils.h"

namespace morvane {
namespace {

using test::DevServer;
using Key = MorvaneServerInfoSection;
using Mode = DevServer::FaultMode;

class DeviceConfigManagerTest : public test::DeviceServerFixture {
protected:
    void SetUp() override {
        DeviceServerFixture::SetUp();
        subscription_ = platform::NotificationCenter::defaultCenter()->subscribe(
            "deviceConfigRefreshed", [this](const platform::Notification& notification) {
                published_.push_back(std::any_cast<DeviceConfiguration>(notification.object));
            });
    }

    std::shared_ptr<DeviceConfigManager> manager() {
        return Dependencies::shared()->resolve<DeviceConfigManager>();
    }
    void refresh(bool force = true) {
        std::promise<void> done;
        manager()->refresh(force, [&done] { done.set_value(); });
        done.get_future().wait();
        scheduler_->runPending();
    }
    void configure(const std::string& key) {
        offMainThread([&] { manager()->configure(key); });
        scheduler_->runPending();
    }
    std::string deviceFile() { return test::readFile(*Utils::deviceFileURL()); }
    std::string configFile() { return test::readFile(*Utils::configFileURL()); }
    std::optional<std::string> get(Key key) { return settings()->getValue(key); }
    static MainConfiguration earlierEnrolment() {
        return *decodeJSON<MainConfiguration>(
            R"({"id":1,"jsonrpc":"2.0","result":{"device":"old-key","name":"n","type":"Tarn"}})");
    }

    std::vector<DeviceConfiguration> published_;
    std::shared_ptr<platform::NotificationCenter::Subscription> subscription_;
};

TEST_F(DeviceConfigManagerTest, AFreshMachineEnrolsStoresEverythingAndLaterOnlyConfigures) {
    set(Key::installKey, DevServer::kInstallKey);
    set(Key::deviceName, "lab");
    set(Key::deviceNamePrefix, "acme");
    set(Key::locationName, "Roaming");
    const auto text = output([&] { refresh(); });

    const auto stored = settings()->configFile();
    ASSERT_TRUE(stored && stored->result);
    const std::string key = stored->result->device;
    const auto device = server_->account()["devices"][key];
    EXPECT_EQ(device["name"], "acme-lab");
    // The key lives in the main configuration, which is saved; the install key is spent.
    EXPECT_FALSE(settings()->userDefaults->stringForKey("DEVICE_KEY"));
    EXPECT_FALSE(get(Key::installKey));
    EXPECT_EQ(configFile(), encodeJSON(*stored));
    EXPECT_TRUE(contains(text, "SERVER RESULT:: " + *encodeJSON(*stored)));

    const std::string policy = deviceFile();
    EXPECT_EQ(policy, nlohmann::json::parse(policy).dump()) << "sorted keys";
    ASSERT_EQ(published_.size(), 1u);
    EXPECT_EQ(encodeJSON(published_[0]), policy);
    EXPECT_EQ(nlohmann::json::parse(policy)["result"]["cfg"]["runtime"]["locations"][0]["name"],
              "Roaming");
    EXPECT_EQ(get(Key::userID), published_[0].result->cfg->runtime->locations.front().tag);
    EXPECT_TRUE(contains(
        text, "writing DeviceConfiguration to file://" + Utils::deviceFileURL()->string() + "\n"));

    refresh();
    EXPECT_EQ(server_->requestsTo("/api/register").size(), 1u);
    const auto configured = server_->requestsTo("/api/device");
    ASSERT_EQ(configured.size(), 2u);
    EXPECT_EQ(configured[1]["json"]["params"]["device"]["key"], key);
    EXPECT_EQ(published_.size(), 2u);
}

TEST_F(DeviceConfigManagerTest,
       ARefusedEnrolmentReplacesTheMainConfigurationAndKeepsTheInstallKey) {
    // A device key known only from the stored main configuration is lost with it.
    settings()->setConfigFile(earlierEnrolment());
    set(Key::installKey, DevServer::kInstallKey);
    fault(Mode::Error, DevServer::kRegisterMethod, {.message = "Too many devices"});
    refresh();
    const auto refusal = settings()->configFile();
    ASSERT_TRUE(refusal && refusal->error);
    EXPECT_FALSE(refusal->result || manager()->deviceKey());
    EXPECT_EQ(configFile(), encodeJSON(*refusal));
    EXPECT_EQ(get(Key::installKey), DevServer::kInstallKey);
    EXPECT_TRUE(server_->requestsTo("/api/device").empty());
    EXPECT_TRUE(published_.empty());

    refresh();  // the next one simply enrols again
    ASSERT_TRUE(settings()->configFile()->result);
    EXPECT_FALSE(get(Key::installKey));
    EXPECT_EQ(published_.size(), 1u);
}

TEST_F(DeviceConfigManagerTest, ATransportFailureOrAnUndecodableEnrolmentLeavesTheStoresAlone) {
    const auto previous = earlierEnrolment();
    set(Key::installKey, DevServer::kInstallKey);
    for (const Mode mode : {Mode::Drop, Mode::Undecodable, Mode::EmptyBody}) {
        settings()->setConfigFile(previous);
        fault(mode, DevServer::kRegisterMethod);
        refresh();
        EXPECT_EQ(settings()->configFile(), previous);
        EXPECT_EQ(get(Key::installKey), DevServer::kInstallKey);
    }
    EXPECT_TRUE(server_->requestsTo("/api/device").empty());
    EXPECT_TRUE(published_.empty());
}

TEST_F(DeviceConfigManagerTest, ConfigurationOutcomes) {
    server_->addDeviceKey("dk-1");
    set(Key::deviceKey, "dk-1");
    const std::string old = R"({"jsonrpc":"2.0","result":{"filters":[]}})";
    test::writeFile(*Utils::deviceFileURL(), old);
    test::writeFile(Utils::installerValuesURL(), "INSTALL_KEY=from-installer\n");

    // Neither near-miss of "Unauthorized", nor a failed exchange, changes anything.
    fault(Mode::Error, DevServer::kConfigureMethod, {.message = "Unauthorized "});
    fault(Mode::Error, DevServer::kConfigureMethod, {.message = "unauthorized"});
    fault(Mode::Drop, DevServer::kConfigureMethod);
    fault(Mode::Undecodable, DevServer::kConfigureMethod);
    set(Key::locationName, "");
    for (int i = 0; i < 4; ++i) {
        configure("dk-1");
    }
    EXPECT_EQ(
        server_->requestsTo("/api/device")[0]["json"]["params"]["location"],
        (nlohmann::json{{"name", ComputerNameManager().getComputerName()}, {"randomize", false}}));
    EXPECT_FALSE(get(Key::installKey));
    EXPECT_EQ(deviceFile(), old);
    EXPECT_TRUE(published_.empty());

    // "Unauthorized" brings the installer's values back, for a new enrolment.
    fault(Mode::Unauthorized, DevServer::kConfigureMethod);
    configure("dk-1");
    EXPECT_EQ(get(Key::installKey), "from-installer");
    EXPECT_EQ(deviceFile(), old);
    EXPECT_TRUE(published_.empty());

    // A reply with neither error nor result still replaces the policy; no location, no userID.
    set(Key::userID, "tag-before");
    fault(Mode::Undecodable, DevServer::kConfigureMethod, {.body = R"({"jsonrpc": "2.0"})"});
    configure("dk-1");
    EXPECT_EQ(deviceFile(), R"({"jsonrpc":"2.0"})");
    ASSERT_EQ(published_.size(), 1u);
    EXPECT_FALSE(published_[0].result);

    server_->setPolicy({{"cfg", {{"runtime", {{"locations", nlohmann::json::array()}}}}}}, "dk-1");
    configure("dk-1");
    EXPECT_EQ(get(Key::userID), "tag-before");
    EXPECT_EQ(deviceFile(), R"({"jsonrpc":"2.0","result":{"cfg":{"runtime":{"locations":[]}}}})");
    EXPECT_EQ(published_.size(), 2u);
}

TEST_F(DeviceConfigManagerTest, RefreshesNeverOverlapButAConfigureFromElsewhereMay) {
    server_->addDeviceKey("dk-1");
    set(Key::deviceKey, "dk-1");
    fault(Mode::Stall, DevServer::kConfigureMethod, {.stall = std::chrono::seconds(4)});
    std::mutex mutex;
    std::vector<std::size_t> seenAtCompletion;
    auto seen = [&] {
        std::lock_guard lock(mutex);
        return seenAtCompletion;
    };
    std::latch done(2);
    for (int i = 0; i < 2; ++i) {
        manager()->refresh(true, [&] {
            const auto sent = server_->requestsTo("/api/device").size();
            std::lock_guard lock(mutex);
            seenAtCompletion.push_back(sent);
            done.count_down();
        });
    }
    while (server_->requestsTo("/api/device").empty()) {
        std::this_thread::yield();
    }
    // The first refresh is stalled; a configure from another thread goes past it.
    configure("dk-1");
    EXPECT_EQ(published_.size(), 1u);
    EXPECT_TRUE(seen().empty());
    done.wait();
    // The second refresh sent nothing before the first had finished.
    EXPECT_EQ(seen(), (std::vector<std::size_t>{2, 3}));
}

}  // namespace
}  // namespace morvane
