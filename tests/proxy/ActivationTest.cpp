#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <atomic>
#include <mutex>
#include <thread>

#include "proxy/ChildProcessActivation.h"
#include "proxy/SystemdActivation.h"
#include "support/ChildProcess.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"
#include "sys/MessageServer.h"
#include "sys/UnixSocket.h"

namespace morvane {
namespace {

using namespace std::chrono_literals;

/// Hears the outcome of one request, from whichever thread it comes.
class Outcome : public ExtensionRequestDelegate {
public:
    void requestNeedsUserApproval() override {
        std::lock_guard lock(mutex);
        approvals++;
    }
    int actionForReplacingExtension(const std::string&, const std::string&) override { return 1; }
    void requestDidFinishWithResult(const std::string&, long long value) override {
        std::lock_guard lock(mutex);
        result = value;
        onMainThread = platform::MainQueue::isCurrent();
    }
    void requestDidFailWithError(const std::string&, const ProxyError& failure) override {
        std::lock_guard lock(mutex);
        error = failure;
        onMainThread = platform::MainQueue::isCurrent();
    }
    bool settled() {
        std::lock_guard lock(mutex);
        return result.has_value() || error.has_value();
    }
    bool wait() {
        return test::runMainLoopUntil([this] { return settled(); }, 60s);
    }

    std::mutex mutex;
    int approvals = 0;
    std::optional<long long> result;
    std::optional<ProxyError> error;
    bool onMainThread = false;
};

// A stand-in for the provider's program as the child process backend sees it: it answers on
// the control socket until it is told to stop.
MORVANE_CHILD_ROLE(controlSocketStandIn) {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    sys::MessageServer::Options options;
    options.path = sys::runtimeDirectory() / "dnsproxy.control";
    options.mode = 0666;
    options.acceptPeer = [](const sys::PeerCredentials&) { return true; };
    options.handler = [](const sys::MessageServer::Connection&, const sys::Message&) {
        return sys::MessageServer::Outcome::replyWith({{"enabled", false}});
    };
    sys::MessageServer server(std::move(options));
    std::string error;
    if (!server.start(error)) {
        return 2;
    }
    int received = 0;
    sigwait(&stopSignals, &received);
    return 0;
}

class ChildProcessActivationTest : public ::testing::Test {
protected:
    ChildProcessActivation::Options options(std::optional<std::filesystem::path> program) {
        ChildProcessActivation::Options result;
        result.program = std::move(program);
        result.controlSocket = sys::runtimeDirectory() / "dnsproxy.control";
        result.startTimeout = 30s;
        return result;
    }
    test::TempHome home_;
};

TEST_F(ChildProcessActivationTest, StartsTheProviderAndStopsOnlyItsOwnChild) {
    home_.env().set("MORVANE_TEST_CHILD_ROLE", "controlSocketStandIn");
    auto activation = std::make_shared<ChildProcessActivation>(options("/proc/self/exe"));
    auto started = std::make_shared<Outcome>();
    activation->submitRequest(ExtensionActivation::Kind::activation, "id", started);
    ASSERT_TRUE(started->wait());
    EXPECT_EQ(started->result, 0) << (started->error ? started->error->localizedDescription : "");
    EXPECT_TRUE(started->onMainThread);
    const auto pid = activation->childPid();
    ASSERT_TRUE(pid);

    // A second backend finds the socket answering and starts nothing.
    auto other = std::make_shared<ChildProcessActivation>(options(std::nullopt));
    auto already = std::make_shared<Outcome>();
    other->submitRequest(ExtensionActivation::Kind::activation, "id", already);
    ASSERT_TRUE(already->wait());
    EXPECT_EQ(already->result, 0);
    EXPECT_FALSE(other->childPid());
    auto leaves = std::make_shared<Outcome>();
    other->submitRequest(ExtensionActivation::Kind::deactivation, "id", leaves);
    ASSERT_TRUE(leaves->wait());
    EXPECT_EQ(::kill(*pid, 0), 0) << "a provider it did not start is left running";

    auto stopped = std::make_shared<Outcome>();
    activation->submitRequest(ExtensionActivation::Kind::deactivation, "id", stopped);
    ASSERT_TRUE(stopped->wait());
    EXPECT_EQ(stopped->result, 0);
    EXPECT_FALSE(stopped->onMainThread);
    EXPECT_FALSE(activation->childPid());
    EXPECT_NE(::kill(*pid, 0), 0) << "its own child is gone and reaped";
}

TEST_F(ChildProcessActivationTest, AMissingOrFailingProgramFailsTheRequest) {
    auto missing = std::make_shared<ChildProcessActivation>(options(std::nullopt));
    auto outcome = std::make_shared<Outcome>();
    missing->submitRequest(ExtensionActivation::Kind::activation, "id", outcome);
    ASSERT_TRUE(outcome->wait());
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->code, 4);
    EXPECT_EQ(outcome->error->localizedDescription,
              "The DNS proxy provider's program morvanecloud-dnsproxy was not found");

    auto failing = std::make_shared<ChildProcessActivation>(options("/bin/false"));
    outcome = std::make_shared<Outcome>();
    failing->submitRequest(ExtensionActivation::Kind::activation, "id", outcome);
    ASSERT_TRUE(outcome->wait());
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->localizedDescription,
              "The DNS proxy provider ended at its start with status 1");
    EXPECT_FALSE(failing->childPid());

    home_.env().set("MORVANECLOUD_DNSPROXY_PROGRAM", (home_.root() / "nothing").string());
    EXPECT_FALSE(ChildProcessActivation::findProgram());
    home_.env().set("MORVANECLOUD_DNSPROXY_PROGRAM", "/bin/true");
    EXPECT_EQ(ChildProcessActivation::findProgram(), "/bin/true");
}

/// Stands in for systemd's manager object on a private bus (this machine does not run
/// systemd as its first process): StartUnit, StopUnit, GetUnit and the unit's ActiveState,
/// with polkit's three answers as a policy: allow, ask (refused unless asking is allowed) and
/// deny.
class SystemdStandIn : public QDBusVirtualObject {
public:
    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const auto member = message.member();
        QDBusMessage reply;
        if (member == "StartUnit" || member == "StopUnit") {
            calls.push_back(member.toStdString() +
                            (message.isInteractiveAuthorizationAllowed() ? " interactive" : ""));
            if (message.arguments().value(0).toString() != "morvanecloud-dnsproxy.service") {
                reply = message.createErrorReply("org.freedesktop.systemd1.NoSuchUnit", "no unit");
            } else if (policy == "deny") {
                reply = message.createErrorReply("org.freedesktop.DBus.Error.AccessDenied",
                                                 "Access denied");
            } else if (policy == "ask" && !message.isInteractiveAuthorizationAllowed()) {
                reply = message.createErrorReply(
                    "org.freedesktop.DBus.Error.InteractiveAuthorizationRequired",
                    "Interactive authentication required.");
            } else {
                loaded = true;
                state = member == "StartUnit" ? startState : "inactive";
                reply = message.createReply(
                    QVariant::fromValue(QDBusObjectPath("/org/freedesktop/systemd1/job/7")));
            }
        } else if (member == "GetUnit") {
            reply = loaded ? message.createReply(QVariant::fromValue(QDBusObjectPath(kUnitPath)))
                           : message.createErrorReply("org.freedesktop.systemd1.NoSuchUnit",
                                                      "Unit not loaded.");
        } else if (member == "Get" && message.path() == kUnitPath) {
            reply = message.createReply(
                QVariant::fromValue(QDBusVariant(QString::fromStdString(state))));
        } else {
            return false;
        }
        connection.send(reply);
        return true;
    }

    void reset() {
        policy = "allow";
        startState = "active";
        state = "inactive";
        loaded = false;
        calls.clear();
    }

    static constexpr const char* kUnitPath =
        "/org/freedesktop/systemd1/unit/morvanecloud_2ddnsproxy_2eservice";
    std::string policy = "allow";
    std::string startState = "active";
    std::string state = "inactive";
    bool loaded = false;
    std::vector<std::string> calls;
};

class SystemdActivationTest : public ::testing::Test {
protected:
    // One private bus for the whole suite: the process keeps its first system bus connection.
    static void SetUpTestSuite() {
        if (::access("/usr/bin/dbus-daemon", X_OK) != 0) {
            return;
        }
        dir_ = new test::TempDir("morvane-bus");
        const auto socket = dir_->path() / "system_bus_socket";
        const std::string address = "unix:path=" + socket.string();
        daemonPid_ = ::fork();
        if (daemonPid_ == 0) {
            ::execl("/usr/bin/dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile",
                    ("--address=" + address).c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        if (!test::runMainLoopUntil([&] { return std::filesystem::exists(socket); })) {
            return;
        }
        // In place before anything in this process first asks for the system bus.
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
        auto connection =
            QDBusConnection::connectToBus(QString::fromStdString(address), "systemd-stand-in");
        systemd_ = new SystemdStandIn;
        ready_ = connection.isConnected() &&
                 connection.registerService("org.freedesktop.systemd1") &&
                 connection.registerVirtualObject("/org/freedesktop/systemd1", systemd_,
                                                  QDBusConnection::SubPath);
    }
    static void TearDownTestSuite() {
        QDBusConnection::disconnectFromBus("systemd-stand-in");
        if (daemonPid_ > 0) {
            ::kill(daemonPid_, SIGTERM);
            ::waitpid(daemonPid_, nullptr, 0);
        }
        ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        delete dir_;
    }
    void SetUp() override {
        if (!ready_) {
            GTEST_SKIP() << "no private bus (dbus-daemon missing or not starting) to stand "
                            "systemd on";
        }
        systemd_->reset();
    }

    std::shared_ptr<Outcome> submit(ExtensionActivation::Kind kind) {
        auto outcome = std::make_shared<Outcome>();
        activation_->submitRequest(kind, "id", outcome);
        EXPECT_TRUE(outcome->wait());
        return outcome;
    }

    static inline test::TempDir* dir_ = nullptr;
    static inline pid_t daemonPid_ = -1;
    static inline SystemdStandIn* systemd_ = nullptr;
    static inline bool ready_ = false;
    std::shared_ptr<SystemdActivation> activation_ = std::make_shared<SystemdActivation>(20s);
};

TEST_F(SystemdActivationTest, StartsAndStopsTheUnitAndAsksWhenPolkitWould) {
    auto started = submit(ExtensionActivation::Kind::activation);
    EXPECT_EQ(started->result, 0);
    EXPECT_TRUE(started->onMainThread);
    EXPECT_EQ(started->approvals, 0);
    EXPECT_EQ(systemd_->state, "active");

    auto stopped = submit(ExtensionActivation::Kind::deactivation);
    EXPECT_EQ(stopped->result, 0);
    EXPECT_FALSE(stopped->onMainThread) << "a deactivation answers on a worker thread";
    EXPECT_EQ(systemd_->state, "inactive");

    // Polkit would ask: the first call is refused, the request says it needs approval and
    // asks again with asking allowed.
    systemd_->policy = "ask";
    systemd_->calls.clear();
    auto asked = submit(ExtensionActivation::Kind::activation);
    EXPECT_EQ(asked->approvals, 1);
    EXPECT_EQ(asked->result, 0);
    EXPECT_EQ(systemd_->calls, (std::vector<std::string>{"StartUnit", "StartUnit interactive"}));
}

TEST_F(SystemdActivationTest, RefusalsAndAFailedUnitFailTheRequest) {
    systemd_->policy = "deny";
    auto denied = submit(ExtensionActivation::Kind::activation);
    ASSERT_TRUE(denied->error);
    EXPECT_EQ(denied->error->code, 13);
    EXPECT_EQ(denied->error->userInfo["dbusError"], "org.freedesktop.DBus.Error.AccessDenied");

    systemd_->policy = "allow";
    systemd_->startState = "failed";
    auto failed = submit(ExtensionActivation::Kind::activation);
    ASSERT_TRUE(failed->error);
    EXPECT_EQ(failed->error->localizedDescription,
              "The unit morvanecloud-dnsproxy.service failed to start");
}

}  // namespace
}  // namespace morvane
