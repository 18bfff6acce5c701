#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "platform/RunningInstances.h"
#include "support/ChildProcess.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

// A second copy of this executable that waits to be ended: an instance of "this program".
MORVANE_CHILD_ROLE(idleInstance) {
    ::pause();
    return 0;
}

namespace morvane::platform {
namespace {

bool listed(const std::vector<pid_t>& pids, pid_t pid) {
    return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

struct Child {
    explicit Child(const std::string& sysroot)
        : pid(test::startChild("idleInstance", {{"MORVANECLOUD_SYSROOT", sysroot}})) {}
    ~Child() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    pid_t pid;
};

// Tests run side by side, each with its own sysroot: an install command of one must not end
// the agent of another, as an agent of the machine must not end a demo's.
TEST(RunningInstances, CountOnlyCopiesOfThisProgramUnderTheSameSysroot) {
    test::ScopedEnv env;
    env.set("MORVANECLOUD_SYSROOT", "/tmp/morvane-instances-a");
    const Child same("/tmp/morvane-instances-a");
    const Child other("/tmp/morvane-instances-b");
    ASSERT_GT(same.pid, 0);
    ASSERT_GT(other.pid, 0);
    EXPECT_TRUE(test::runMainLoopUntil([&] { return listed(otherInstances(), same.pid); }));
    EXPECT_FALSE(listed(otherInstances(), other.pid));
    EXPECT_FALSE(listed(otherInstances(), ::getpid()));
    // The role travels in the environment: its command line is the program's name alone, as
    // an agent's is.
    EXPECT_TRUE(listed(runningAgents(), same.pid));

    env.unset("MORVANECLOUD_SYSROOT");
    EXPECT_FALSE(listed(otherInstances(), same.pid));
    EXPECT_FALSE(listed(otherInstances(), other.pid));
}

}  // namespace
}  // namespace morvane::platform
