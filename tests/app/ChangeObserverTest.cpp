#include <gtest/gtest.h>

#include <sstream>

#include "app/ChangeObserver.h"
#include "app/DepenencyInjection.h"
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

TEST_F(ChangeObserverTest, PollsClimbTheLadderAndConnectedOrWillSleepStartItOver) {
    observer()->startObserving();
    scheduler_->advance(400s);
    EXPECT_EQ(pollTimes(), (std::vector<double>{10, 25, 55, 95, 155, 215, 275, 335, 395}));
    ASSERT_EQ(observer()->timerVariance.index, 4u);  // the top rung holds
    post(ChangeType::didAwake);
    EXPECT_EQ(observer()->timerVariance.index, 4u);
    post(ChangeType::connected);
    EXPECT_EQ(observer()->timerVariance.index, 0u);
    scheduler_->advance(105s);
    // The pending tick keeps its time, then the ladder starts over at its second rung.
    EXPECT_EQ(pollTimes(),
              (std::vector<double>{10, 25, 55, 95, 155, 215, 275, 335, 395, 455, 470, 500}));
    ASSERT_EQ(observer()->timerVariance.index, 3u);
    post(ChangeType::willSleep);
    EXPECT_EQ(observer()->timerVariance.index, 0u);
}

TEST_F(ChangeObserverTest, EveryEventWalksTheStepsInOrderAndIsLogged) {
    auto watched = observer();
    watched->startObserving();
    testing::internal::CaptureStdout();
    scheduler_->advance(10s);
    watched->steps.clear();
    watched->current = ChangeType::connected;
    post(ChangeType::connected);
    scheduler_->runPending();
    const std::string output = testing::internal::GetCapturedStdout();
    std::vector<std::pair<std::string, std::size_t>> seen;
    for (const auto& step : watched->steps) {
        seen.emplace_back(step.name, step.ladderIndex);
        EXPECT_EQ(step.changeType, ChangeType::connected) << step.name;
    }
    // The ladder is reset right after the first step.
    EXPECT_EQ(seen,
              (std::vector<std::pair<std::string, std::size_t>>{{"userAcceptedExtension", 1},
                                                                {"reloadConfigIfNeeded", 0},
                                                                {"showChangeNotification", 0},
                                                                {"handleOnChange(accepted)", 0}}));

    std::vector<std::string> logged;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("verbose ")) {
            logged.push_back(line.substr(8));
        }
    }
    const std::string stamp = TarnLogger::versionStamp();
    EXPECT_EQ(logged, (std::vector<std::string>{
                          stamp + "Firing polling interval after 10.0",
                          stamp + "received change of type pollingInterval",
                          stamp + "next poll in 15.0 seconds",
                          stamp + "received change of type connected",
                          stamp + "resetting timer becasue of change connected",
                      }));
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
