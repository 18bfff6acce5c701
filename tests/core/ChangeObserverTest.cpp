#include <gtest/gtest.h>

#include <sstream>

#include "core/ChangeObserver.h"
#include "core/DepenencyInjection.h"
#include "platform/MainQueue.h"
#include "platform/ManualScheduler.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

using namespace std::chrono_literals;
using platform::Clock;

/// Records the steps of the pass that belong to other parts of the agent, with the state of
/// the polling ladder as each step saw it.
class RecordingObserver : public ChangeObserver {
public:
    struct Step {
        std::string name;
        ChangeType changeType;
        std::size_t ladderIndex;
        Clock::time_point at;
    };
    std::vector<Step> steps;
    std::optional<ChangeType> current;

protected:
    bool userAcceptedExtension() override {
        record("userAcceptedExtension", current.value_or(ChangeType::onStartup));
        return true;
    }
    void reloadConfigIfNeeded(ChangeType changeType) override {
        record("reloadConfigIfNeeded", changeType);
    }
    void showChangeNotification(ChangeType changeType) override {
        record("showChangeNotification", changeType);
    }
    void handleOnChange(const std::optional<platform::Notification>&, ChangeType changeType,
                        bool accepted) override {
        record(accepted ? "handleOnChange(accepted)" : "handleOnChange", changeType);
    }

private:
    void record(const std::string& name, ChangeType changeType) {
        steps.push_back({name, changeType, timerVariance.index, platform::MainQueue::now()});
    }
};

class ChangeObserverTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto rows = DepenencyInjection::serviceTable();
        rows.push_back(Service::make<ChangeObserver>(Service::LifeCycle::global, [](Dependencies&) {
            return std::make_shared<RecordingObserver>();
        }));
        Dependencies::build(std::move(rows));
        start_ = scheduler_->now();
    }
    void TearDown() override { Dependencies::build(std::vector<Service>{}); }

    std::shared_ptr<RecordingObserver> observer() {
        return std::static_pointer_cast<RecordingObserver>(
            Dependencies::shared()->resolve<ChangeObserver>());
    }

    /// Seconds since the start of the test at which the observer saw a polling tick.
    std::vector<double> pollTimes() {
        std::vector<double> times;
        for (const auto& step : observer()->steps) {
            if (step.name.starts_with("handleOnChange") &&
                step.changeType == ChangeType::pollingInterval) {
                times.push_back(std::chrono::duration<double>(step.at - start_).count());
            }
        }
        return times;
    }

    void post(ChangeType changeType) {
        Dependencies::shared()->resolve<NotificationPublisher>()->post(changeType);
        scheduler_->runPending();
    }

    std::shared_ptr<platform::ManualScheduler> scheduler_ =
        std::make_shared<platform::ManualScheduler>();
    test::ScopedScheduler installed_{scheduler_};
    Clock::time_point start_;
    test::TempHome home_;
};

TEST_F(ChangeObserverTest, PollsAfterTenSecondsThenClimbsTheLadderAndStaysAtTheTop) {
    observer()->startObserving();
    scheduler_->advance(400s);
    EXPECT_EQ(pollTimes(), (std::vector<double>{10, 25, 55, 95, 155, 215, 275, 335, 395}));
    EXPECT_EQ(observer()->timerVariance.index, 4u);
}

TEST_F(ChangeObserverTest, ConnectedResetsTheLadderWithoutMovingThePendingTick) {
    observer()->startObserving();
    scheduler_->advance(30s);  // ticks at 10 and 25; the next one is due at 55
    ASSERT_EQ(observer()->timerVariance.index, 2u);
    post(ChangeType::connected);
    EXPECT_EQ(observer()->timerVariance.index, 0u);
    scheduler_->advance(100s);
    // The pending tick keeps its time, then the ladder starts over at its second rung.
    EXPECT_EQ(pollTimes(), (std::vector<double>{10, 25, 55, 70, 100}));
}

TEST_F(ChangeObserverTest, WillSleepResetsTheLadderAndDidAwakeDoesNot) {
    observer()->startObserving();
    scheduler_->advance(30s);
    post(ChangeType::didAwake);
    EXPECT_EQ(observer()->timerVariance.index, 2u);
    post(ChangeType::willSleep);
    EXPECT_EQ(observer()->timerVariance.index, 0u);
}

TEST_F(ChangeObserverTest, EveryEventWalksTheStepsInOrder) {
    auto watched = observer();
    watched->startObserving();
    scheduler_->advance(30s);
    watched->steps.clear();
    watched->current = ChangeType::connected;
    post(ChangeType::connected);
    ASSERT_EQ(watched->steps.size(), 4u);
    EXPECT_EQ(watched->steps[0].name, "userAcceptedExtension");
    EXPECT_EQ(watched->steps[0].ladderIndex, 2u);  // the timer is reset after this step
    EXPECT_EQ(watched->steps[1].name, "reloadConfigIfNeeded");
    EXPECT_EQ(watched->steps[1].ladderIndex, 0u);
    EXPECT_EQ(watched->steps[2].name, "showChangeNotification");
    EXPECT_EQ(watched->steps[3].name, "handleOnChange(accepted)");
    for (const auto& step : watched->steps) {
        EXPECT_EQ(step.changeType, ChangeType::connected);
    }
}

TEST_F(ChangeObserverTest, LogsEachEventWithItsTexts) {
    observer()->startObserving();
    testing::internal::CaptureStdout();
    scheduler_->advance(10s);
    post(ChangeType::connected);
    scheduler_->runPending();
    const std::string output = testing::internal::GetCapturedStdout();
    const std::string stamp = TarnLogger::versionStamp();
    const std::vector<std::string> expected = {
        "verbose " + stamp + "Firing polling interval after 10.0",
        "verbose " + stamp + "received change of type pollingInterval",
        "verbose " + stamp + "next poll in 15.0 seconds",
        "verbose " + stamp + "received change of type connected",
        "verbose " + stamp + "resetting timer becasue of change connected",
    };
    std::istringstream lines(output);
    std::vector<std::string> seen;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("verbose ")) {
            seen.push_back(line);
        }
    }
    EXPECT_EQ(seen, expected);
}

TEST_F(ChangeObserverTest, SubscribesToEveryEventButThePollingTickAndCanBeCancelled) {
    auto watched = observer();
    watched->startObserving();
    EXPECT_EQ(watched->cancellables.size(), 16u);
    EXPECT_EQ(watched->cancellables.count(ChangeType::pollingInterval), 0u);

    watched->cancelSubscriptions(watched->cancellables);
    EXPECT_EQ(watched->cancellables.size(), 16u);  // the entries stay
    watched->steps.clear();
    post(ChangeType::VPNDidStart);
    EXPECT_TRUE(watched->steps.empty());
    // The polling tick is not a subscription: it goes on.
    scheduler_->advance(10s);
    EXPECT_EQ(pollTimes().size(), 1u);
}

TEST_F(ChangeObserverTest, AnObserverThatIsGoneIgnoresItsPendingTickAndEvents) {
    auto alone = std::make_shared<RecordingObserver>();
    alone->startObserving();
    std::weak_ptr<ChangeObserver> weak = alone;
    alone.reset();
    EXPECT_TRUE(weak.expired());
    testing::internal::CaptureStdout();
    scheduler_->advance(60s);
    post(ChangeType::connected);
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("verbose "), std::string::npos);
    EXPECT_EQ(scheduler_->delayedCount(), 0u);  // the chain of ticks ended with it
}

TEST(FormatSecondsTest, WholeAndFractionalSeconds) {
    EXPECT_EQ(formatSeconds(10), "10.0");
    EXPECT_EQ(formatSeconds(60), "60.0");
    EXPECT_EQ(formatSeconds(0.25), "0.25");
    EXPECT_EQ(formatSeconds(10.000123), "10.000123");
}

}  // namespace
}  // namespace morvane
