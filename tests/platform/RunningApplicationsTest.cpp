#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "platform/RunningApplications.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane::platform {
namespace {

using test::writeFile;

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

TEST(RunningApplications, KernelNameExecutableAndFirstArgumentOfEachProcess) {
    // A folder laid out as /proc is.
    test::TempDir proc;
    const auto& root = proc.path();
    writeFile(root / "101/comm", "sleep\n");
    writeFile(root / "101/cmdline", std::string("Cisco AnyConnect Secure Mobility Client\0"
                                                "600\0",
                                                44));
    std::filesystem::create_symlink("/usr/bin/sleep", root / "101/exe");
    // A kernel thread: a name, no command line, no executable to read.
    writeFile(root / "2/comm", "kworker/0:1\n");
    writeFile(root / "2/cmdline", "");
    // A replaced executable and a path as the first argument; the same name counts once.
    writeFile(root / "77/comm", "vpnagentd\n");
    writeFile(root / "77/cmdline", std::string("/opt/cisco/bin/vpnagentd\0-x\0", 28));
    std::filesystem::create_symlink("/opt/cisco/bin/vpnagentd (deleted)", root / "77/exe");
    writeFile(root / "self/comm", "not a process\n");

    auto names = runningApplicationNames(root);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"Cisco AnyConnect Secure Mobility Client",
                                               "kworker/0:1", "sleep", "vpnagentd"}));
    // A folder that does not exist gives nothing, and no error.
    EXPECT_TRUE(runningApplicationNames(root / "missing").empty());
}

TEST(RunningApplications, ARealProcessIsKnownByItsFirstArgument) {
    const pid_t child = fork();
    if (child == 0) {
        execl("/bin/sleep", "SonicWall Mobile Connect", "600", static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_GT(child, 0);
    EXPECT_TRUE(test::runMainLoopUntil(
        [] { return contains(runningApplicationNames(), "SonicWall Mobile Connect"); }));
    EXPECT_TRUE(contains(runningApplicationNames(), "sleep"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace morvane::platform
