#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "settings/Utils.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

namespace fs = std::filesystem;

TEST(UtilsTest, SupportFolderIsMadeInTheUsersDataFolder) {
    test::TempHome home;
    const auto url = Utils::configFileURL();
    ASSERT_TRUE(url.has_value());
    EXPECT_EQ(*url, home.dataHome() / "MorvaneCloud/config.json");
    EXPECT_TRUE(fs::is_directory(home.dataHome() / "MorvaneCloud"));
    EXPECT_EQ(Utils::deviceFileURL(), home.dataHome() / "MorvaneCloud/device.json");
}

TEST(UtilsTest, AnUncreatableSupportFolderGivesNoPathAndSaysWhy) {
    test::TempHome home;
    test::writeFile(home.root() / "blocker", "a file where a folder should be");
    home.env().set("XDG_DATA_HOME", (home.root() / "blocker").string());
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Utils::supportFileURL("config.json").has_value());
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("failed to create directory at ", 0),
              0u);
}

TEST(UtilsTest, TheHomeIsTheFirstTwoFoldersOfPWDAndOnlyRootsHomeIsRedirectedThere) {
    test::ScopedEnv env;
    env.unset("MORVANECLOUD_SYSROOT");
    for (const auto& [pwd, home] : {std::pair{"/home/someone/Downloads/deeper", "/home/someone"},
                                    {"/home/someone", "/home/someone"},
                                    {"/srv", "/srv"}}) {
        env.set("PWD", pwd);
        EXPECT_EQ(Utils::homeFromPWD(), fs::path(home)) << pwd;
    }
    env.set("PWD", "/home/alice/Work/x");
    EXPECT_EQ(Utils::redirectedOutOfRootsHome("/root/.local/share"),
              fs::path("/home/alice/.local/share"));
    EXPECT_EQ(Utils::redirectedOutOfRootsHome("/root"), fs::path("/home/alice"));
    // A name that merely starts like root's home is somebody else's folder.
    EXPECT_EQ(Utils::redirectedOutOfRootsHome("/rootfs/data"), fs::path("/rootfs/data"));
    EXPECT_EQ(Utils::redirectedOutOfRootsHome("/home/bob/.local/share"),
              fs::path("/home/bob/.local/share"));
    env.unset("PWD");
    EXPECT_FALSE(Utils::homeFromPWD().has_value());
    EXPECT_EQ(Utils::redirectedOutOfRootsHome("/root/.local/share"),
              fs::path("/root/.local/share"));
}

TEST(UtilsTest, RedirectionWorksInsideASysroot) {
    test::TempHome home;
    const auto sysroot = home.sysroot();
    home.env().set("PWD", (sysroot / "home/alice/Downloads").string());
    EXPECT_EQ(Utils::homeFromPWD(), sysroot / "home/alice");
    EXPECT_EQ(Utils::redirectedOutOfRootsHome(sysroot / "root/.local/share"),
              sysroot / "home/alice/.local/share");
}

TEST(UtilsTest, CommandLineRunIsRecognisedBySudoOrPWDAndTheEnvironmentIsListed) {
    test::ScopedEnv env;
    env.unset("PWD");
    env.unset("SUDO_COMMAND");
    env.set("MORVANE_MARKER", "a=b");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Utils::wasRunFromCommandLine());
    EXPECT_NE(testing::internal::GetCapturedStdout().find("key MORVANE_MARKER value a=b\n"),
              std::string::npos);
    env.set("SUDO_COMMAND", "/usr/bin/morvanecloud RPC_URL=x");
    testing::internal::CaptureStdout();
    EXPECT_TRUE(Utils::wasRunFromCommandLine());
    env.unset("SUDO_COMMAND");
    env.set("PWD", "/home/alice");
    EXPECT_TRUE(Utils::wasRunFromCommandLine());
    testing::internal::GetCapturedStdout();
}

TEST(UtilsTest, InstallerFilesAreInTheCacheFolderOfTheHome) {
    test::TempHome home;
    EXPECT_EQ(Utils::installerValuesURL(), home.home() / ".cache/com.lorvex.tarnConfig");
    EXPECT_EQ(Utils::installerConfigurationURL(), home.home() / ".cache/config.json");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Utils::readInstallerValues().has_value());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Log file doesnt exist at ~Library/Caches/config.json. Recreating\n");
    test::writeFile(Utils::installerValuesURL(), "RPC_URL=https://a.example.net\n");
    EXPECT_EQ(Utils::readInstallerValues(), "RPC_URL=https://a.example.net\n");
}

// The whole road of a run under sudo: root's data folder is redirected into the home named by
// "PWD", and the folder and file end up owned by that user.
TEST(UtilsTest, RunAsRootWritesIntoTheUsersFolderOwnedByTheUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give files to another account";
    }
    const passwd* nobody = ::getpwnam("nobody");
    if (nobody == nullptr) {
        GTEST_SKIP() << "no unprivileged account named nobody on this machine";
    }
    test::TempHome home;
    const auto sysroot = home.sysroot();
    home.env().set("XDG_DATA_HOME", (sysroot / "root/.local/share").string());
    home.env().set("PWD", (sysroot / "home/nobody/Downloads").string());
    const auto url = Utils::configFileURL();
    ASSERT_TRUE(url.has_value());
    EXPECT_EQ(*url, sysroot / "home/nobody/.local/share/MorvaneCloud/config.json");
    struct stat info {};
    ASSERT_EQ(::stat(url->parent_path().c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, nobody->pw_uid);
    EXPECT_FALSE(fs::exists(sysroot / "root/.local/share/MorvaneCloud"));
}

}  // namespace
}  // namespace morvane
