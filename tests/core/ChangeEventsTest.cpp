#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/ChangeType.h"
#include "core/NotificationPublisher.h"
#include "platform/MainQueue.h"
#include "support/MainLoop.h"

namespace morvane {
namespace {

TEST(ChangeTypeTest, SeventeenCasesWithTheirRawTextsInOrderAndNoOthers) {
    std::istringstream texts(
        "connected disconnected ipAddressChanged onStartup onShutdown pollingInterval intranet "
        "didAwake willSleep VPNDidStart VPNDidStop missingDeviceKey deviceConfigRefreshed "
        "deviceConfigEditedLocally waitingOnUserSecurity installCompleted dnsProxyFailed");
    const std::vector<std::string> expected{std::istream_iterator<std::string>(texts), {}};
    ASSERT_EQ(change_type::allCases.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const ChangeType type = change_type::allCases[i];
        EXPECT_EQ(static_cast<std::size_t>(type), i);
        EXPECT_EQ(rawValue(type), expected[i]);
        EXPECT_EQ(changeTypeFromRawValue(expected[i]), type);
    }
    for (const char* unknown : {"Connected", "", "connected "}) {
        EXPECT_FALSE(changeTypeFromRawValue(unknown).has_value()) << '"' << unknown << '"';
    }
}

TEST(NotificationPublisherTest, EventsFromManyThreadsArriveOnTheMainThreadInPerProducerOrder) {
    auto center = platform::NotificationCenter::create();
    const NotificationPublisher publisher{center};
    constexpr int kProducers = 4;
    constexpr int kEach = 200;
    std::map<int, std::vector<int>> arrived;
    int total = 0;
    bool allOnMain = true;
    std::vector<std::shared_ptr<platform::NotificationCenter::Subscription>> subscriptions;
    for (const ChangeType type : {ChangeType::connected, ChangeType::VPNDidStart}) {
        subscriptions.push_back(
            center->subscribe(std::string(rawValue(type)), [&](const platform::Notification& n) {
                allOnMain = allOnMain && platform::MainQueue::isCurrent();
                const auto [producer, sequence] = std::any_cast<std::pair<int, int>>(n.object);
                arrived[producer].push_back(sequence);
                ++total;
            }));
    }
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kEach; ++i) {
                // Alternate names: the order holds across names, not only within one.
                publisher.post(i % 2 ? ChangeType::connected : ChangeType::VPNDidStart,
                               std::make_pair(p, i));
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    ASSERT_TRUE(test::runMainLoopUntil([&] { return total == kProducers * kEach; }));
    EXPECT_TRUE(allOnMain);
    std::vector<int> inOrder(kEach);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    for (int p = 0; p < kProducers; ++p) {
        EXPECT_EQ(arrived[p], inOrder) << "producer " << p;
    }
}

TEST(NotificationPublisherTest, ThePosterHasGoneOnBeforeTheSubscriberRuns) {
    auto center = platform::NotificationCenter::create();
    const NotificationPublisher publisher{center};
    std::vector<std::string> order;
    auto subscription =
        center->subscribe("deviceConfigEditedLocally", [&](const platform::Notification& n) {
            order.push_back(n.object.has_value() ? "payload" : "no payload");
        });
    publisher.post(ChangeType::deviceConfigEditedLocally);
    order.push_back("poster returned");
    ASSERT_TRUE(test::runMainLoopUntil([&] { return order.size() == 2; }));
    EXPECT_EQ(order, (std::vector<std::string>{"poster returned", "no payload"}));
}

}  // namespace
}  // namespace morvane
