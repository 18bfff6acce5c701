#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>

#include "core/Dependencies.h"
#include "core/Injected.h"

namespace morvane {
namespace {

struct Counter {
    static inline std::atomic<int> made{0};
    Counter() { ++made; }
};

struct Other {
    int value = 0;
};

// A service whose constructor reads another service, as the change observer does.
struct Needy {
    Injected<Counter> counter;
    std::shared_ptr<Counter> seen;
    Needy() : seen(counter.get()) {}
};

struct Unregistered {};

Service otherWith(int value) {
    return Service::make<Other>(Service::LifeCycle::global, [value](Dependencies&) {
        auto other = std::make_shared<Other>();
        other->value = value;
        return other;
    });
}

class DependenciesTest : public ::testing::Test {
protected:
    void SetUp() override { Counter::made = 0; }
    void TearDown() override { Dependencies::build(std::vector<Service>{}); }
};

TEST_F(DependenciesTest, AGlobalServiceIsSharedAndAOneOfServiceMadeOnEveryResolution) {
    Dependencies::build({Service::global<Counter>()});
    Injected<Counter> first;
    Injected<Counter> second;
    EXPECT_EQ(second.get(), first.get());
    EXPECT_EQ(Dependencies::shared()->resolve<Counter>(), first.get());
    EXPECT_EQ(Counter::made, 1);

    Counter::made = 0;
    Dependencies::build(Service::make<Counter>(
        Service::LifeCycle::oneOf, [](Dependencies&) { return std::make_shared<Counter>(); }));
    EXPECT_NE(Dependencies::shared()->resolve<Counter>(),
              Dependencies::shared()->resolve<Counter>());
    EXPECT_EQ(Counter::made, 2);
    // Each member still keeps what it got first.
    Injected<Counter> member;
    EXPECT_EQ(member.get(), member.get());
}

TEST_F(DependenciesTest, AMemberMadeBeforeTheTableResolvesThroughTheTableBuiltLater) {
    Injected<Other> early;
    Dependencies::build({otherWith(42)});
    EXPECT_EQ(early->value, 42);
}

TEST_F(DependenciesTest, FactoriesMayResolveOtherServicesWhileTheyRun) {
    Dependencies::build({Service::global<Needy>(), Service::global<Counter>()});
    auto needy = Dependencies::shared()->resolve<Needy>();
    EXPECT_EQ(needy->seen, Dependencies::shared()->resolve<Counter>());
    EXPECT_EQ(Counter::made, 1);
}

TEST_F(DependenciesTest, TheLaterOfTwoRowsForOneTypeWins) {
    Dependencies::build({otherWith(1), otherWith(2)});
    EXPECT_EQ(Dependencies::shared()->size(), 1u);
    EXPECT_EQ(Dependencies::shared()->resolve<Other>()->value, 2);
}

TEST_F(DependenciesTest, ConcurrentFirstResolutionGivesOneInstance) {
    for (int round = 0; round < 50; ++round) {
        Counter::made = 0;
        Dependencies::build({Service::make<Counter>(Service::LifeCycle::global, [](Dependencies&) {
            std::this_thread::yield();
            return std::make_shared<Counter>();
        })});
        std::latch start(2);
        std::shared_ptr<Counter> a;
        std::shared_ptr<Counter> b;
        std::thread one([&] {
            Injected<Counter> member;
            start.arrive_and_wait();
            a = member.get();
        });
        std::thread two([&] {
            start.arrive_and_wait();
            b = Dependencies::shared()->resolve<Counter>();
        });
        one.join();
        two.join();
        ASSERT_EQ(a, b);
        ASSERT_EQ(Counter::made, 1);
    }
}

using DependenciesDeathTest = DependenciesTest;

TEST_F(DependenciesDeathTest, ResolvingWhatHasNoRowOrNoCallbackStopsTheProcess) {
    EXPECT_DEATH(Dependencies::shared()->resolve<Counter>(), "Fatal error");  // empty container
    Dependencies::build({Service::global<Counter>()});
    Injected<Unregistered> declaredOnly;  // merely declaring it is harmless
    EXPECT_FALSE(declaredOnly.isResolved());
    EXPECT_DEATH(declaredOnly.get(), "MorvaneCloud/Dependencies: Fatal error");
    Injected<Counter> broken{Injected<Counter>::Delayed{}};
    EXPECT_DEATH(broken.get(), "MorvaneCloud/Dependencies: Fatal error");
}

}  // namespace
}  // namespace morvane
