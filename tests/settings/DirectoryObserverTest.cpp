#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "app/DepenencyInjection.h"
#include "platform/ManualScheduler.h"
#include "settings/ConfigFileWriter.h"
#include "settings/DirectoryObserver.h"
#include "settings/FileSetup.h"
#include "settings/Utils.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kPolicy =
    R"({"jsonrpc":"2.0","result":{"cfg":{"runtime":{"locations":[{"name":"Home","tag":"t1"}],"user":"u1"}}}})";

class DirectoryObserverTest : public ::testing::Test {
protected:
    void SetUp() override {
        Dependencies::build(DepenencyInjection::serviceTable());
        settings_ = Dependencies::shared()->resolve<Settings>();
        settings_->userDefaults->removeObjectForKey("RPC_URL");
        settings_->userDefaults->removeObjectForKey("INSTALL_KEY");
        // Every event that reaches the bus is counted, with or without a policy.
        subscription_ = platform::NotificationCenter::defaultCenter()->subscribe(
            "deviceConfigEditedLocally", [this](const platform::Notification& notification) {
                events_.push_back(notification.object.has_value());
            });
    }
    void TearDown() override {
        observer_.reset();
        Dependencies::build(std::vector<Service>{});
    }

    std::string tick() {
        testing::internal::CaptureStdout();
        observer_->checkHandOverFile();
        test::runMainLoopUntil([] { return false; }, 50ms);
        return testing::internal::GetCapturedStdout();
    }

    test::TempHome home_;
    std::shared_ptr<Settings> settings_;
    std::shared_ptr<DirectoryObserver> observer_ = std::make_shared<DirectoryObserver>();
    std::shared_ptr<platform::NotificationCenter::Subscription> subscription_;
    std::vector<bool> events_;
};

TEST_F(DirectoryObserverTest, AHandOverFileFromBeforeTheStartIsTakenOnceAtTheFirstTick) {
    const auto file = ConfigFileWriter::handOverFileURL();
    test::writeFile(file, "RPC_URL=https://127.0.0.1:1\nNOT_A_KEY=x\nLOCATION_NAME=a=b\n");
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                              fs::perms::others_read);
    fs::last_write_time(file, fs::file_time_type::clock::now() - 1h);
    const std::string first = tick();
    EXPECT_NE(
        first.find("getValuesFromInstaller:  saving value https://127.0.0.1:1 for key RPC_URL"),
        std::string::npos);
    EXPECT_NE(first.find("Install params have changed"), std::string::npos);
    EXPECT_NE(first.find("reConfiguring server"), std::string::npos);
    EXPECT_EQ(settings_->getValue(MorvaneServerInfoSection::rpcURL), "https://127.0.0.1:1");
    EXPECT_FALSE(settings_->getValue(MorvaneServerInfoSection::locationName).has_value());

    // The same date again: nothing at all happens.
    settings_->userDefaults->removeObjectForKey("RPC_URL");
    EXPECT_EQ(tick().find("Install params have changed"), std::string::npos);
    EXPECT_FALSE(settings_->getValue(MorvaneServerInfoSection::rpcURL).has_value());
}

TEST_F(DirectoryObserverTest, AHandOverFileOthersCanWriteIsIgnored) {
    const auto file = ConfigFileWriter::handOverFileURL();
    test::writeFile(file, "RPC_URL=https://evil.example.net\n");
    ::chmod(file.c_str(), 0666);
    const std::string output = tick();
    EXPECT_NE(output.find("ignoring the hand-over file"), std::string::npos);
    EXPECT_EQ(output.find("Install params have changed"), std::string::npos);
    EXPECT_FALSE(settings_->getValue(MorvaneServerInfoSection::rpcURL).has_value());
}

TEST_F(DirectoryObserverTest, AHandOverFileOfAnotherUserIsIgnored) {
    const passwd* nobody = ::getpwnam("nobody");
    if (::geteuid() != 0 || nobody == nullptr) {
        GTEST_SKIP() << "needs root and an account named nobody to plant another user's file";
    }
    const auto file = ConfigFileWriter::handOverFileURL();
    test::writeFile(file, "RPC_URL=https://evil.example.net\n");
    ::chmod(file.c_str(), 0644);
    ASSERT_EQ(::chown(file.c_str(), nobody->pw_uid, nobody->pw_gid), 0);
    EXPECT_NE(tick().find("ignoring the hand-over file"), std::string::npos);
    EXPECT_FALSE(settings_->getValue(MorvaneServerInfoSection::rpcURL).has_value());
}

TEST_F(DirectoryObserverTest, EditsAndAReplacementOfAWatchedFileBecomeEvents) {
    const auto device = *Utils::deviceFileURL();
    observer_->watch(device);  // created empty: an event now carries no policy
    ASSERT_TRUE(fs::exists(device));
    std::ofstream(device, std::ios::app) << "not a policy";
    ASSERT_TRUE(test::runMainLoopUntil([&] { return !events_.empty(); }));
    EXPECT_FALSE(events_.back());

    const std::size_t before = events_.size();
    test::writeFile(device.parent_path() / "device.json.new", kPolicy);
    fs::rename(device.parent_path() / "device.json.new", device);
    ASSERT_TRUE(test::runMainLoopUntil([&] { return events_.size() > before; }));
    EXPECT_TRUE(events_.back());  // the new file is readable: the event carries it
}

TEST_F(DirectoryObserverTest, RootsCopyIsCopiedIntoTheUsersFolderWithoutOverwriting) {
    FileSetup setup;
    setup.directoryObserver = observer_;
    const auto rootDevice = FileSetup::rootSupportFolder() / "device.json";
    fs::create_directories(rootDevice.parent_path());
    setup.watchRootFiles();
    ASSERT_TRUE(fs::exists(rootDevice));
    test::writeFile(rootDevice, kPolicy);  // in place, as an edit would
    ASSERT_TRUE(test::runMainLoopUntil([&] { return !events_.empty(); }));
    EXPECT_EQ(test::readFile(*Utils::deviceFileURL()), kPolicy);
    EXPECT_TRUE(events_.back());

    // The user's copy exists now: a later change of root's copy does not replace it.
    const std::size_t before = events_.size();
    std::ofstream(rootDevice, std::ios::app) << " ";
    ASSERT_TRUE(test::runMainLoopUntil([&] { return events_.size() > before; }));
    EXPECT_EQ(test::readFile(*Utils::deviceFileURL()), kPolicy);
}

}  // namespace
}  // namespace morvane
