// The resolv.conf switch on real files in a temporary folder (its path is injectable), and the
// guard that applies it again when another program rewrites the file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sysdns/ResolvConfSwitch.h"
#include "sysdns/SwitchGuard.h"

namespace morvane::sysdns {
namespace {

namespace fs = std::filesystem;

const std::string kOriginal =
    "# from the DHCP client\nnameserver 192.0.2.1\nnameserver 127.0.0.53\nnameserver 192.0.2.2\n"
    "search example.net\noptions edns0 trust-ad\n";

template <typename Condition>
bool waitFor(Condition condition, std::chrono::seconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

class ResolvConfSwitchTest : public ::testing::Test {
protected:
    void SetUp() override {
        file_ = dir_.path() / "etc/resolv.conf";
        test::writeFile(file_, kOriginal);
        fs::permissions(file_, fs::perms(0644));
    }

    ResolvConfSwitch::Options options() {
        ResolvConfSwitch::Options options;
        options.path = file_;
        options.stateDirectory = dir_.path() / "run/switch";
        options.durableDirectory = dir_.path() / "var/switch";
        options.log = [this](const std::string& line) {
            std::lock_guard lock(logMutex_);
            log_ += line + "\n";
        };
        return options;
    }

    std::string logText() {
        std::lock_guard lock(logMutex_);
        return log_;
    }

    test::TempDir dir_;
    fs::path file_;
    std::mutex logMutex_;
    std::string log_;
};

TEST_F(ResolvConfSwitchTest, NamesTheProxyAndPutsBackTheSameBytes) {
    ResolvConfSwitch dnsSwitch(options());
    std::string error;
    ASSERT_TRUE(dnsSwitch.apply({"127.0.0.153", 53}, error)) << error;
    const auto switched = test::readFile(file_);
    EXPECT_NE(switched.find("\nnameserver 127.0.0.153\n"), std::string::npos);
    EXPECT_EQ(switched.find("192.0.2.1"), std::string::npos);
    EXPECT_NE(switched.find("search example.net\n"), std::string::npos);
    EXPECT_NE(switched.find("options edns0 trust-ad\n"), std::string::npos);
    // The stub in front of another resolver is never one of the network's own servers.
    EXPECT_EQ(dnsSwitch.originalServers(), (std::vector<std::string>{"192.0.2.1", "192.0.2.2"}));

    // Applying again must not take the switched file for the original.
    ASSERT_TRUE(dnsSwitch.apply({"127.0.0.153", 53}, error)) << error;
    ASSERT_TRUE(dnsSwitch.restore(error)) << error;
    EXPECT_EQ(test::readFile(file_), kOriginal);
    EXPECT_EQ(fs::status(file_).permissions(), fs::perms(0644));
    EXPECT_TRUE(fs::is_empty(dir_.path() / "run/switch"));
    // A second restore has nothing to do.
    EXPECT_TRUE(dnsSwitch.restore(error)) << error;
    EXPECT_EQ(test::readFile(file_), kOriginal);
}

TEST_F(ResolvConfSwitchTest, ASymlinkComesBackAsTheSameSymlink) {
    test::writeFile(dir_.path() / "run/nm/resolv.conf", kOriginal);
    fs::remove(file_);
    fs::create_symlink("../run/nm/resolv.conf", file_);
    ResolvConfSwitch dnsSwitch(options());
    std::string error;
    ASSERT_TRUE(dnsSwitch.apply({"127.0.0.153", 53}, error)) << error;
    EXPECT_FALSE(fs::is_symlink(file_));
    EXPECT_EQ(test::readFile(dir_.path() / "run/nm/resolv.conf"), kOriginal);
    ASSERT_TRUE(dnsSwitch.restore(error)) << error;
    ASSERT_TRUE(fs::is_symlink(file_));
    EXPECT_EQ(fs::read_symlink(file_), "../run/nm/resolv.conf");
}

TEST_F(ResolvConfSwitchTest, NoFileBeforeMeansNoFileAfter) {
    fs::remove(file_);
    ResolvConfSwitch dnsSwitch(options());
    std::string error;
    ASSERT_TRUE(dnsSwitch.apply({"127.0.0.153", 53}, error)) << error;
    EXPECT_TRUE(fs::exists(file_));
    ASSERT_TRUE(dnsSwitch.restore(error)) << error;
    EXPECT_FALSE(fs::exists(file_));
}

TEST_F(ResolvConfSwitchTest, APortOtherThan53IsRefusedAndNothingChanges) {
    ResolvConfSwitch dnsSwitch(options());
    std::string error;
    EXPECT_FALSE(dnsSwitch.apply({"127.0.0.153", 5353}, error));
    EXPECT_NE(error.find("port 53"), std::string::npos) << error;
    EXPECT_EQ(test::readFile(file_), kOriginal);
    EXPECT_FALSE(fs::exists(dir_.path() / "run/switch/resolv.conf.json"));
}

TEST_F(ResolvConfSwitchTest, ANewProcessRestoresWhatACrashedOneLeft) {
    {
        ResolvConfSwitch crashed(options());
        std::string error;
        ASSERT_TRUE(crashed.apply({"127.0.0.153", 53}, error)) << error;
    }  // gone without restoring, as after kill -9
    ResolvConfSwitch next(options());
    EXPECT_EQ(next.originalServers(), (std::vector<std::string>{"192.0.2.1", "192.0.2.2"}));
    std::string error;
    ASSERT_TRUE(next.restore(error)) << error;
    EXPECT_EQ(test::readFile(file_), kOriginal);
}

TEST_F(ResolvConfSwitchTest, AfterAPowerCutTheDurableCopyRestores) {
    {
        ResolvConfSwitch before(options());
        std::string error;
        ASSERT_TRUE(before.apply({"127.0.0.153", 53}, error)) << error;
    }
    fs::remove_all(dir_.path() / "run");  // /run is a tmpfs: empty after the reboot
    ResolvConfSwitch after(options());
    std::string error;
    ASSERT_TRUE(after.restore(error)) << error;
    EXPECT_EQ(test::readFile(file_), kOriginal);
    EXPECT_FALSE(fs::exists(dir_.path() / "var/switch/resolv.conf.json"));
}

TEST_F(ResolvConfSwitchTest, AFileRewrittenByAnotherProgramAfterACrashIsLeftAlone) {
    {
        ResolvConfSwitch crashed(options());
        std::string error;
        ASSERT_TRUE(crashed.apply({"127.0.0.153", 53}, error)) << error;
    }
    const std::string fresh = "nameserver 198.51.100.7\n";
    test::writeFile(file_, fresh);
    ResolvConfSwitch next(options());
    std::string error;
    ASSERT_TRUE(next.restore(error)) << error;
    EXPECT_EQ(test::readFile(file_), fresh);
    EXPECT_NE(logText().find("rewritten by another program"), std::string::npos);
    EXPECT_FALSE(fs::exists(dir_.path() / "run/switch/resolv.conf.json"));
}

TEST_F(ResolvConfSwitchTest, AFileThatAlreadyNamesTheProxyWithoutARecordIsNotTakenAsOriginal) {
    test::writeFile(file_, ResolvConfSwitch::render("127.0.0.153", kOriginal));
    ResolvConfSwitch dnsSwitch(options());
    std::string error;
    EXPECT_FALSE(dnsSwitch.apply({"127.0.0.153", 53}, error));
    EXPECT_NE(error.find("already names the proxy"), std::string::npos) << error;
}

TEST_F(ResolvConfSwitchTest, TheGuardUndoesARewriteAndStopsFightingAtItsCap) {
    ResolvConfSwitch dnsSwitch(options());
    SwitchGuard::Options guardOptions;
    guardOptions.maxReasserts = 3;
    guardOptions.window = std::chrono::minutes(10);
    guardOptions.log = options().log;
    SwitchGuard guard(dnsSwitch, guardOptions);
    std::string error;
    ASSERT_TRUE(guard.engage({"127.0.0.153", 53}, error)) << error;
    const auto switched = test::readFile(file_);

    // A DHCP client's way: a new file renamed over it.
    test::writeFile(dir_.path() / "etc/.new", "nameserver 203.0.113.9\n");
    fs::rename(dir_.path() / "etc/.new", file_);
    EXPECT_TRUE(waitFor([&] { return test::readFile(file_) == switched; }));
    EXPECT_EQ(guard.reasserts(), 1);

    // In place, as through a bind mount.
    test::writeFile(file_, "nameserver 203.0.113.10\n");
    EXPECT_TRUE(waitFor([&] { return test::readFile(file_) == switched; }));
    test::writeFile(file_, "nameserver 203.0.113.11\n");
    EXPECT_TRUE(waitFor([&] { return test::readFile(file_) == switched; }));
    EXPECT_EQ(guard.reasserts(), 3);

    // The fourth within the window is the fighter's: logged, and left for now.
    test::writeFile(file_, "nameserver 203.0.113.12\n");
    EXPECT_TRUE(waitFor([&] { return logText().find("keeps changing") != std::string::npos; }));
    EXPECT_EQ(test::readFile(file_), "nameserver 203.0.113.12\n");
    EXPECT_EQ(guard.reasserts(), 3);

    // Released, the original comes back whatever the fighter wrote last.
    test::writeFile(file_, switched);
    ASSERT_TRUE(guard.release(error)) << error;
    EXPECT_EQ(test::readFile(file_), kOriginal);
}

}  // namespace
}  // namespace morvane::sysdns
