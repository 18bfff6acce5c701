#include <gtest/gtest.h>

#include "app/DepenencyInjection.h"
#include "platform/ManualScheduler.h"
#include "settings/InstallerHelper.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

using Key = MorvaneServerInfoSection;

class InstallerHelperTest : public ::testing::Test {
protected:
    void SetUp() override {
        Dependencies::build(DepenencyInjection::serviceTable());
        settings_ = Dependencies::shared()->resolve<Settings>();
        helper_ = Dependencies::shared()->resolve<InstallerHelper>();
        for (const Key key : server_info::allCases) {
            settings_->userDefaults->removeObjectForKey(std::string(rawValue(key)));
        }
    }
    void TearDown() override {
        scheduler_->runPending();
        Dependencies::build(std::vector<Service>{});
    }

    /// Parses and validates the arguments as the install command does; gives the result and
    /// what went to standard output, log lines included.
    std::pair<bool, std::string> validate(const std::vector<std::string>& arguments) {
        helper_->saveInstallerDict = InstallerHelper::parseArguments(arguments);
        testing::internal::CaptureStdout();
        const bool valid = helper_->validateAndStoreParameters();
        scheduler_->runPending();
        return {valid, testing::internal::GetCapturedStdout()};
    }

    std::optional<std::string> stored(Key key) {
        return settings_->userDefaults->stringForKey(std::string(rawValue(key)));
    }

    test::TempHome home_;
    std::shared_ptr<platform::ManualScheduler> scheduler_ =
        std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler installed_{scheduler_};
    std::shared_ptr<Settings> settings_;
    std::shared_ptr<InstallerHelper> helper_;
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(InstallerHelperTest, ParsingKeepsKnownKeysOfOneEqualsSignAndTheLastOfARepeat) {
    const auto parsed = InstallerHelper::parseArguments(
        {"/usr/bin/morvanecloud", "RPC_URL=https://a.example.net/?x=1", "INSTALL_KEY=one",
         "INSTALL_KEY=two", "UNKNOWN=1", "LOCATION_NAME=", "noequals"});
    const std::map<Key, std::string> expected = {{Key::installKey, "two"}, {Key::locationName, ""}};
    EXPECT_EQ(parsed, expected);
}

TEST_F(InstallerHelperTest, AMissingOrCapitalisedServerAddressFailsAndStoresNothing) {
    const auto [missing, why] = validate({"INSTALL_KEY=k"});
    EXPECT_FALSE(missing);
    EXPECT_TRUE(
        contains(why, "Missing value for RPC_URL. Please provide a URL in the command line"));
    EXPECT_TRUE(contains(why, "failed to validate a required setting: bailing"));
    EXPECT_FALSE(stored(Key::installKey));

    const auto [valid, output] = validate({"RPC_URL=https://Rpc.example.net", "INSTALL_KEY=k"});
    EXPECT_FALSE(valid);
    EXPECT_TRUE(contains(
        output, " RPC_URL value \"https://Rpc.example.net\" is invalid, please check again\n"));
    EXPECT_FALSE(stored(Key::rpcURL));
}

TEST_F(InstallerHelperTest, ResetAloneSkipsEverythingElse) {
    const auto [valid, output] =
        validate({"RESET=true", "RPC_URL=https://rpc.example.net", "INSTALL_KEY=k"});
    EXPECT_TRUE(valid);
    EXPECT_EQ(stored(Key::reset), "true");
    EXPECT_FALSE(stored(Key::rpcURL));
    EXPECT_FALSE(stored(Key::installKey));
    EXPECT_EQ(settings_->saveDictionary(), (std::map<std::string, std::string>{{"RESET", "true"}}));
}

TEST_F(InstallerHelperTest, StopAndResetAreBothStored) {
    const auto [valid, output] = validate({"STOP=TRUE", "RESET=true"});
    EXPECT_TRUE(valid);
    EXPECT_EQ(stored(Key::stop), "TRUE");
    EXPECT_EQ(stored(Key::reset), "true");
}

TEST_F(InstallerHelperTest, EitherKeyIsEnoughAndAnInstallKeyWinsOverADeviceKey) {
    const auto [valid, output] = validate({"RPC_URL=https://rpc.example.net", "DEVICE_KEY=dk"});
    EXPECT_TRUE(valid);
    EXPECT_TRUE(contains(output, "Missing install Key"));
    EXPECT_EQ(stored(Key::deviceKey), "dk");
    EXPECT_FALSE(stored(Key::installKey));

    const auto [neither, why] = validate({"RPC_URL=https://rpc.example.net"});
    EXPECT_FALSE(neither);
    EXPECT_TRUE(contains(why, "failed to validate a required setting: bailing"));

    settings_->userDefaults->removeObjectForKey("DEVICE_KEY");
    EXPECT_TRUE(
        validate({"RPC_URL=https://rpc.example.net", "INSTALL_KEY=ik", "DEVICE_KEY=dk"}).first);
    EXPECT_EQ(stored(Key::installKey), "ik");
    EXPECT_FALSE(stored(Key::deviceKey));
}

TEST_F(InstallerHelperTest, OptionalValuesGetTheirDefaultsAndABadEmailIsNoError) {
    const auto [valid, output] = validate({"RPC_URL=http://10.0.0.1:8443/", "INSTALL_KEY=k",
                                           "DEVICE_NAME=laptop", "DEVICE_NAME_PREFIX=corp",
                                           "CUSTOMER_EMAIL=not-an-address", "ALLOW_WEAK_KEY=true"});
    EXPECT_TRUE(valid);
    EXPECT_TRUE(contains(output, " Email is in invalid format, please try again\n"));
    EXPECT_FALSE(stored(Key::customerEmail));
    EXPECT_EQ(stored(Key::deviceName), "corp-laptop");
    EXPECT_EQ(stored(Key::locationName), "");
    EXPECT_EQ(stored(Key::trayType), "1");
    EXPECT_EQ(stored(Key::showTestMenu), "TRUE");
    EXPECT_EQ(stored(Key::allowWeakKey), "true");
    EXPECT_FALSE(stored(Key::rpcPort));
    EXPECT_FALSE(stored(Key::importCert));

    const auto [good, quiet] = validate({"RPC_URL=http://10.0.0.1", "INSTALL_KEY=k",
                                         "CUSTOMER_EMAIL=it@example.com", "DEVICE_NAME_PREFIX=p"});
    EXPECT_TRUE(good);
    EXPECT_EQ(stored(Key::customerEmail), "it@example.com");
    EXPECT_FALSE(contains(quiet, "Email is in invalid format"));
}

TEST_F(InstallerHelperTest, AnInstallKeyIsPendingUntilADeviceKeyIsKnown) {
    testing::internal::CaptureStdout();
    EXPECT_FALSE(helper_->needToGetMainConfig());
    scheduler_->runPending();
    EXPECT_TRUE(contains(testing::internal::GetCapturedStdout(),
                         "needToGetMainConfig:: no install key in settings.getValue, checking "
                         "for device key"));
    settings_->setValue("ik", Key::installKey);
    EXPECT_TRUE(helper_->needToGetMainConfig());
    settings_->setValue("dk", Key::deviceKey);
    EXPECT_FALSE(helper_->needToGetMainConfig());
    settings_->userDefaults->removeObjectForKey("DEVICE_KEY");
    MainConfiguration enrolled;
    enrolled.jsonrpc = "2.0";
    enrolled.result = DCResult{"from-answer", "n", "Tarn"};
    settings_->setConfigFile(enrolled);
    EXPECT_FALSE(helper_->needToGetMainConfig());
}

TEST_F(InstallerHelperTest, SavedDefaultsAreLoggedInKeyOrderWithoutTheDeviceKey) {
    settings_->setValue("https://rpc.example.net", Key::rpcURL);
    settings_->setValue("dk", Key::deviceKey);
    settings_->setValue("ik", Key::installKey);
    testing::internal::CaptureStdout();
    helper_->logSavedDefaults();
    scheduler_->runPending();
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(contains(
        output, "\nSaved as default::\nRPC_URL = https://rpc.example.net\nINSTALL_KEY = ik\n"));
    EXPECT_FALSE(contains(output, "DEVICE_KEY"));
}

}  // namespace
}  // namespace morvane
