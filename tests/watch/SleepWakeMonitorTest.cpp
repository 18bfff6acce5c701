#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QObject>
#include <QProcess>
#include <memory>
#include <vector>

#include "platform/MainQueue.h"
#include "platform/ManualScheduler.h"
#include "platform/SleepWatch.h"
#include "watch/SleepWakeMonitor.h"
#include "watch/WatchFixture.h"

namespace morvane {
namespace {

using namespace std::chrono_literals;

/// Stands in for logind's manager object (this machine runs no logind): it hands out
/// inhibitor locks as the write end of a pipe, whose read end tells when the lock is let go,
/// and it sends PrepareForSleep on request.
class LogindManagerStandIn : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    struct Lock {
        QString what, who, mode;
        int readEnd = -1;
    };
    std::vector<Lock> locks;

    ~LogindManagerStandIn() override {
        for (const auto& lock : locks) {
            close(lock.readEnd);
        }
    }

    /// True while some holder still has the write end of lock n open.
    bool isHeld(std::size_t n) const {
        pollfd entry{locks.at(n).readEnd, POLLIN, 0};
        return poll(&entry, 1, 0) == 0;
    }

public slots:
    QDBusUnixFileDescriptor Inhibit(const QString& what, const QString& who, const QString&,
                                    const QString& mode) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return {};
        }
        locks.push_back({what, who, mode, ends[0]});
        QDBusUnixFileDescriptor handed(ends[1]);  // a copy of its own
        close(ends[1]);
        return handed;
    }
};

/// A private bus from `dbus-daemon --session` for the test, with the stand-in owning
/// logind's name on it.
class SleepWakeOnPrivateBus : public test::WatchFixture {
protected:
    void SetUp() override {
        daemon_.setProgram("dbus-daemon");
        daemon_.setArguments({"--session", "--nofork", "--print-address=1",
                              "--address=unix:tmpdir=" + QString::fromStdString(busDir_.path())});
        daemon_.start();
        if (!daemon_.waitForStarted(10000)) {
            GTEST_SKIP() << "dbus-daemon cannot run here";
        }
        ASSERT_TRUE(test::runMainLoopUntil([&] { return daemon_.canReadLine(); }))
            << "dbus-daemon printed no address";
        address_ = daemon_.readLine().trimmed();
        WatchFixture::SetUp();
        auto bus = QDBusConnection::connectToBus(address_, "logind-stand-in");
        ASSERT_TRUE(bus.isConnected());
        ASSERT_TRUE(bus.registerService("org.freedesktop.login1"));
        ASSERT_TRUE(bus.registerObject("/org/freedesktop/login1", &logind,
                                       QDBusConnection::ExportAllSlots));
    }
    void TearDown() override {
        monitor.reset();
        QDBusConnection::disconnectFromBus("logind-stand-in");
        WatchFixture::TearDown();
        daemon_.terminate();
        daemon_.waitForFinished(10000);
    }

    void prepareForSleep(bool start) {
        auto signal = QDBusMessage::createSignal(
            "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep");
        signal << start;
        ASSERT_TRUE(QDBusConnection("logind-stand-in").send(signal));
    }

    test::TempDir busDir_{"morvane-bus"};
    QProcess daemon_;
    QString address_;
    LogindManagerStandIn logind;
    std::unique_ptr<SleepWakeMonitor> monitor;
};

TEST_F(SleepWakeOnPrivateBus, SleepIsPublishedWhileTheLockHoldsAndWakeTakesItAgain) {
    monitor = std::make_unique<SleepWakeMonitor>(address_.toStdString());
    ASSERT_TRUE(monitor->watch().isWatching()) << monitor->watch().error().value_or("");
    ASSERT_TRUE(test::runMainLoopUntil([&] { return monitor->watch().holdsLock(); }))
        << monitor->watch().error().value_or("");
    ASSERT_EQ(logind.locks.size(), 1u);
    EXPECT_EQ(logind.locks[0].what, "sleep");
    EXPECT_EQ(logind.locks[0].mode, "delay");
    EXPECT_EQ(logind.locks[0].who, "MorvaneCloud");

    // The change loop hears willSleep while logind still waits for the agent.
    std::optional<bool> heldWhenHeard;
    auto center = Dependencies::shared()->resolve<NotificationPublisher>()->nCenter;
    auto subscription = center->subscribe(
        "willSleep", [&](const platform::Notification&) { heldWhenHeard = logind.isHeld(0); });
    prepareForSleep(true);
    ASSERT_TRUE(test::runMainLoopUntil([&] { return !logind.isHeld(0); }));
    ASSERT_TRUE(heldWhenHeard.has_value());
    EXPECT_TRUE(*heldWhenHeard);
    EXPECT_EQ(names(events), "willSleep");
    EXPECT_FALSE(monitor->watch().holdsLock());

    prepareForSleep(false);
    ASSERT_TRUE(waitForEvents(2));
    ASSERT_TRUE(test::runMainLoopUntil([&] { return monitor->watch().holdsLock(); }));
    EXPECT_EQ(logind.locks.size(), 2u);
    EXPECT_TRUE(logind.isHeld(1));

    // Two wakes in quick succession give two events, and one lock.
    prepareForSleep(false);
    prepareForSleep(false);
    ASSERT_TRUE(waitForEvents(4));
    EXPECT_EQ(names(events), "willSleep didAwake didAwake didAwake");
    EXPECT_EQ(logind.locks.size(), 2u);
}

TEST_F(SleepWakeOnPrivateBus, TheLockGoesWithTheMonitor) {
    monitor = std::make_unique<SleepWakeMonitor>(address_.toStdString());
    ASSERT_TRUE(test::runMainLoopUntil([&] { return monitor->watch().holdsLock(); }));
    monitor.reset();
    EXPECT_TRUE(test::runMainLoopUntil([&] { return !logind.isHeld(0); }));
}

class SleepWakeTiming : public test::WatchFixture {};

TEST_F(SleepWakeTiming, SleepAtOnceAndWakeTenMillisecondsLater) {
    auto scheduler = std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler scoped(scheduler);
    // An address where no bus listens: the monitor hears nothing, and says why.
    SleepWakeMonitor monitor("unix:path=/nonexistent/morvane-test-bus");
    EXPECT_FALSE(monitor.watch().isWatching());
    EXPECT_TRUE(monitor.watch().error().has_value());

    monitor.onSleepNote();
    scheduler->runPending();
    EXPECT_EQ(names(events), "willSleep");

    monitor.onWakeNote();
    monitor.onWakeNote();
    scheduler->runPending();
    scheduler->advance(9ms);
    EXPECT_EQ(names(events), "willSleep");
    scheduler->advance(1ms);
    EXPECT_EQ(names(events), "willSleep didAwake didAwake");
}

}  // namespace
}  // namespace morvane

#include "SleepWakeMonitorTest.moc"
