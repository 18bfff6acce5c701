#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iterator>
#include <thread>

#include "app/DepenencyInjection.h"
#include "messages/JSONCoding.h"
#include "platform/ManualScheduler.h"
#include "settings/FileSetup.h"
#include "settings/Settings.h"
#include "settings/Utils.h"
#include "support/ChildProcess.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

namespace fs = std::filesystem;
using Key = MorvaneServerInfoSection;

constexpr const char* kMainConfiguration =
    R"({"id":417,"jsonrpc":"2.0","result":{"device":"dev-key-1","name":"alice@box.local","type":"Tarn"}})";
constexpr const char* kDeviceConfiguration =
    R"({"jsonrpc":"2.0","result":{"cfg":{"persistent":{"key":"p"},"runtime":{"locations":[{"name":"Home","tag":"loc-1"}],"user":"u-1"}},"filters":[{"domain":"corp.example","resolvers":["10.0.0.53"],"rule":"10.0.0.0/8"}]}})";

/// Each test runs in a fresh home with a fresh container, as a fresh agent would.
class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        Dependencies::build(DepenencyInjection::serviceTable());
        forgetStoredValues();
    }
    void TearDown() override {
        scheduler_->runPending();
        forgetStoredValues();
        Dependencies::build(std::vector<Service>{});
    }

    // The standard defaults outlive a test: when the suites share one process, values of
    // earlier tests would otherwise leak into later ones.
    void forgetStoredValues() {
        for (const Key key : server_info::allCases) {
            settings_.userDefaults->removeObjectForKey(std::string(rawValue(key)));
        }
    }

    fs::path supportFolder() const { return home_.dataHome() / "MorvaneCloud"; }

    /// Reloads both documents; gives what was said meanwhile.
    std::string reload() {
        testing::internal::CaptureStdout();
        settings_.reloadConfiguration();
        scheduler_->runPending();
        return testing::internal::GetCapturedStdout();
    }

    std::string importInstallerFiles() {
        FileSetup setup;
        testing::internal::CaptureStdout();
        EXPECT_TRUE(setup.importInstallerConfiguration());
        scheduler_->runPending();
        return testing::internal::GetCapturedStdout();
    }

    test::TempHome home_;
    std::shared_ptr<platform::ManualScheduler> scheduler_ =
        std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler installed_{scheduler_};
    // The standard defaults object lives for the whole process; these tests use their own.
    Settings settings_;
};

TEST_F(SettingsTest, ADeviceKeyGoesIntoTheEnrolmentAnswerWhileOneIsInMemory) {
    MainConfiguration answer;
    answer.jsonrpc = "2.0";
    answer.result = DCResult{"old-key", "n", "Tarn"};
    settings_.setConfigFile(answer);
    settings_.setValue("new-key", Key::deviceKey);
    EXPECT_EQ(settings_.configFile()->result->device, "new-key");
    EXPECT_FALSE(settings_.userDefaults->stringForKey("DEVICE_KEY").has_value());
    EXPECT_EQ(settings_.saveDictionary().count("DEVICE_KEY"), 0u);

    // An answer without a result swallows the key entirely.
    answer.result.reset();
    settings_.setConfigFile(answer);
    settings_.setValue("lost-key", Key::deviceKey);
    EXPECT_FALSE(settings_.getValue(Key::deviceKey).has_value());

    // Without an answer in memory the key is stored like any other.
    settings_.setConfigFile(std::nullopt);
    settings_.setValue("stored-key", Key::deviceKey);
    EXPECT_EQ(settings_.userDefaults->stringForKey("DEVICE_KEY"), "stored-key");
    EXPECT_EQ(settings_.saveDictionary().at("DEVICE_KEY"), "stored-key");
}

TEST_F(SettingsTest, GetValuePrefersTheDefaultsThenFallsBackToTheEnrolmentAnswer) {
    EXPECT_EQ(settings_.getValue(Key::identifier), "0");
    EXPECT_FALSE(settings_.getValue(Key::deviceKey).has_value());

    auto answer = decodeJSON<MainConfiguration>(kMainConfiguration);
    ASSERT_TRUE(answer);
    settings_.setConfigFile(answer);
    EXPECT_EQ(settings_.getValue(Key::identifier), "417");
    EXPECT_EQ(settings_.getValue(Key::deviceKey), "dev-key-1");

    settings_.userDefaults->setValue("from-defaults", "DEVICE_KEY");
    EXPECT_EQ(settings_.getValue(Key::deviceKey), "from-defaults");
    settings_.userDefaults->removeObjectForKey("DEVICE_KEY");
    EXPECT_FALSE(settings_.getValue(Key::locationName).has_value());
}

TEST_F(SettingsTest, UserNameNeverEntersTheHandOverValues) {
    settings_.setValue("Alice Example", Key::userName);
    settings_.setValue("https://rpc.example.net", Key::rpcURL);
    EXPECT_EQ(settings_.saveDictionary(),
              (std::map<std::string, std::string>{{"RPC_URL", "https://rpc.example.net"}}));
    EXPECT_EQ(settings_.getValue(Key::userName), "Alice Example");
}

TEST_F(SettingsTest, TrayTypeIsOneForAnythingButAnUnsignedNumber) {
    EXPECT_EQ(settings_.trayType(), 1u);
    settings_.userDefaults->registerDefaults({{"TRAY_TYPE", std::string("2")}});
    EXPECT_EQ(settings_.trayType(), 2u);
    const std::pair<const char*, std::uint32_t> cases[] = {
        {"3", 3}, {"4294967295", 4294967295u}, {"4294967296", 1}, {"-1", 1}, {"", 1}, {"2x", 1},
        {" 2", 1}};
    for (const auto& [text, expected] : cases) {
        settings_.userDefaults->setValue(text, "TRAY_TYPE");
        EXPECT_EQ(settings_.trayType(), expected) << '"' << text << '"';
    }
}

TEST_F(SettingsTest, MissingOrUndecodableDocumentsLeaveABareAnswerAndSayWhy) {
    settings_.saveConfig(false, false);  // no answer yet: no file
    EXPECT_FALSE(fs::exists(supportFolder() / "config.json"));

    EXPECT_NE(reload().find("missing config file "), std::string::npos);
    ASSERT_TRUE(settings_.configFile().has_value());
    EXPECT_EQ(settings_.configFile()->jsonrpc, "2.0");
    EXPECT_FALSE(settings_.configFile()->result.has_value());
    EXPECT_FALSE(settings_.configFile()->id.has_value());
    EXPECT_FALSE(settings_.deviceConfig().has_value());

    test::writeFile(supportFolder() / "config.json", R"({"jsonrpc":2})");
    test::writeFile(supportFolder() / "device.json", "not json at all");
    const std::string output = reload();
    EXPECT_NE(output.find("missing config file "), std::string::npos);
    EXPECT_NE(
        output.find("device config doesnt exist at ~Library/Caches/config.json. Recreating\n"),
        std::string::npos);
    EXPECT_FALSE(settings_.deviceConfig().has_value());
    // Nothing on disk was touched by reading.
    EXPECT_EQ(test::readFile(supportFolder() / "device.json"), "not json at all");
}

TEST_F(SettingsTest, TheTestOverlayReplacesTheStoredCfgOnlyWhenBothAreThere) {
    const std::string overlay =
        R"({"runtime":{"locations":[{"name":"Lab","tag":"lab-1"}],"user":"tester"}})";
    settings_.userDefaults->setValue(overlay, "TEST_DEVICE_CONFIG");
    EXPECT_FALSE(Utils::readDeviceConfigurationWithOverlay(settings_).has_value());

    test::writeFile(supportFolder() / "device.json", kDeviceConfiguration);
    auto overlaid = Utils::readDeviceConfigurationWithOverlay(settings_);
    ASSERT_TRUE(overlaid && overlaid->result && overlaid->result->cfg);
    EXPECT_EQ(overlaid->result->cfg->runtime->user, "tester");
    EXPECT_FALSE(overlaid->result->cfg->persistent.has_value());
    EXPECT_EQ(resolverList(*overlaid), std::vector<std::string>{"10.0.0.53"});

    settings_.userDefaults->setValue("{broken", "TEST_DEVICE_CONFIG");
    EXPECT_EQ(Utils::readDeviceConfigurationWithOverlay(settings_),
              Utils::readDeviceConfiguration());
}

TEST_F(SettingsTest, TheTestConfigurationFileIsReadWhenNamedAndDecodable) {
    EXPECT_FALSE(Utils::readTestDeviceConfiguration(settings_).has_value());
    const auto file = home_.root() / "test-device.json";
    settings_.userDefaults->setValue(file.string(), "TEST_DEVICE_CONFIG_PATH");
    EXPECT_FALSE(Utils::readTestDeviceConfiguration(settings_).has_value());  // silently
    test::writeFile(file, "[]");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Utils::readTestDeviceConfiguration(settings_).has_value());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Failed to read JSON config for device config\n");
    test::writeFile(file, kDeviceConfiguration);
    EXPECT_TRUE(Utils::readTestDeviceConfiguration(settings_).has_value());
}

TEST_F(SettingsTest, InstallerFilesAreImportedAndLeftInPlaceAndNoneIsNoError) {
    EXPECT_NE(importInstallerFiles().find(
                  "Config file doesnt exist at ~Library/Caches/config.json. Recreating"),
              std::string::npos);
    EXPECT_FALSE(fs::exists(supportFolder() / "config.json"));

    const auto values = home_.home() / ".cache/com.lorvex.tarnConfig";
    test::writeFile(values,
                    "RPC_URL=https://rpc.example.net:8443\nINSTALL_KEY=abc\nBOGUS=1\n"
                    "LOCATION_NAME=a=b\n\nINSTALL_KEY=def\n");
    test::writeFile(home_.home() / ".cache/config.json", kMainConfiguration);
    EXPECT_NE(importInstallerFiles().find(
                  "getValuesFromInstaller:  saving value abc for key INSTALL_KEY\n"),
              std::string::npos);
    auto stored = Dependencies::shared()->resolve<Settings>();
    EXPECT_EQ(stored->getValue(Key::installKey), "def");  // the later line wins
    EXPECT_EQ(stored->getValue(Key::rpcURL), "https://rpc.example.net:8443");
    EXPECT_FALSE(stored->getValue(Key::locationName).has_value());
    EXPECT_EQ(test::readFile(supportFolder() / "config.json"), kMainConfiguration);
    EXPECT_TRUE(fs::exists(values));
}

// --- what survives the end of the process -------------------------------------------------

MORVANE_CHILD_ROLE(storeEverything) {
    Dependencies::build(DepenencyInjection::serviceTable());
    auto scheduler = std::make_shared<platform::ManualScheduler>();
    platform::MainQueue::setScheduler(scheduler);
    auto settings = Dependencies::shared()->resolve<Settings>();
    settings->userDefaults->registerDefaults({{"TRAY_TYPE", std::string("2")}});
    settings->setValue("https://rpc.example.net:8443", Key::rpcURL);
    settings->setValue("Lab", Key::locationName);
    settings->setConfigFile(decodeJSON<MainConfiguration>(kMainConfiguration));
    settings->saveConfig(true, false);
    auto writer = Dependencies::shared()->resolve<ConfigFileWriter>();
    writer->saveConfigFile(kDeviceConfiguration, *Utils::deviceFileURL());
    scheduler->runPending();
    std::_Exit(0);  // no destructors: what is on disk is what a crash would leave
}

TEST_F(SettingsTest, ValuesAndBothDocumentsSurviveARestartButRegisteredDefaultsAreNotStored) {
    ASSERT_EQ(test::runChild("storeEverything", {}), 0);
    platform::UserDefaults defaults(platform::UserDefaults::standardPath());
    EXPECT_EQ(defaults.stringForKey("RPC_URL"), "https://rpc.example.net:8443");
    EXPECT_EQ(defaults.stringForKey("LOCATION_NAME"), "Lab");
    EXPECT_FALSE(defaults.stringForKey("TRAY_TYPE").has_value());
    defaults.registerDefaults({{"TRAY_TYPE", std::string("2")}});
    EXPECT_EQ(defaults.stringForKey("TRAY_TYPE"), "2");

    // Sorted keys, compact, exactly what was decoded.
    EXPECT_EQ(test::readFile(supportFolder() / "config.json"), kMainConfiguration);
    EXPECT_EQ(decodeJSON<DeviceConfiguration>(test::readFile(supportFolder() / "device.json")),
              decodeJSON<DeviceConfiguration>(kDeviceConfiguration));
}

// A writer killed in the middle of a large write leaves the old file whole.
MORVANE_CHILD_ROLE(writeForever) {
    Dependencies::build(DepenencyInjection::serviceTable());
    platform::MainQueue::setScheduler(std::make_shared<platform::ManualScheduler>());
    ConfigFileWriter writer;
    const std::string big(16 << 20, 'x');
    for (;;) {
        writer.saveConfigFile(big, *Utils::configFileURL());
    }
}

TEST_F(SettingsTest, AKilledWriterNeverLeavesHalfAFile) {
    const auto file = supportFolder() / "config.json";
    test::writeFile(file, kMainConfiguration);
    const pid_t child = test::startChild("writeForever", {});
    ASSERT_GT(child, 0);
    // Wait until a temporary file beside the target shows that a write is under way.
    const auto entries = [&] { return std::distance(fs::directory_iterator(supportFolder()), {}); };
    bool writing = entries() > 1;
    for (int i = 0; i < 12000 && !writing; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        writing = entries() > 1;
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(writing) << "the writer never started";
    const std::string content = test::readFile(file);
    EXPECT_TRUE(content == kMainConfiguration || content == std::string(16 << 20, 'x'))
        << "config.json holds " << content.size() << " bytes of a partial write";
}

}  // namespace
}  // namespace morvane
