#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/ChangeType.h"
#include "core/Dependencies.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "platform/NotificationCenter.h"
#include "settings/Settings.h"
#include "support/MainLoop.h"
#include "support/NetworkNamespace.h"
#include "support/TestEnvironment.h"
#include "watch/NCSICheck.h"

namespace morvane::test {

/// A container with the rows the watch reads (a publisher on a centre of the test's own, the
/// logger, the settings, the probe record) and a recorder of every change event that centre
/// delivers, in order, as the change observer would receive them.
class WatchFixture : public ::testing::Test {
protected:
    void SetUp() override {
        center_ = platform::NotificationCenter::create();
        std::vector<Service> rows;
        rows.push_back(Service::make<NotificationPublisher>(
            Service::LifeCycle::global, [center = center_](Dependencies&) {
                return std::make_shared<NotificationPublisher>(NotificationPublisher{center});
            }));
        rows.push_back(Service::global<TarnLogger>());
        rows.push_back(Service::global<Settings>());
        rows.push_back(Service::global<NCSICheck>());
        Dependencies::build(std::move(rows));
        for (const ChangeType type : change_type::allCases) {
            subscriptions_.push_back(center_->subscribe(
                std::string(rawValue(type)),
                [this, type](const platform::Notification&) { events.push_back(type); }));
        }
    }
    void TearDown() override {
        subscriptions_.clear();
        Dependencies::build(std::vector<Service>{});
    }

    /// Runs the main loop until `count` events have arrived.
    bool waitForEvents(std::size_t count) {
        return runMainLoopUntil([&] { return events.size() >= count; });
    }
    static std::string names(const std::vector<ChangeType>& list) {
        std::string text;
        for (const ChangeType type : list) {
            text += (text.empty() ? "" : " ") + std::string(rawValue(type));
        }
        return text;
    }

    TempHome home;
    std::vector<ChangeType> events;

private:
    std::shared_ptr<platform::NotificationCenter> center_;
    std::vector<std::shared_ptr<platform::NotificationCenter::Subscription>> subscriptions_;
};

/// The same in a network namespace of the test's own with the veth network of
/// addVethNetwork(); skipped where namespaces cannot be made.
class NamespaceWatchFixture : public WatchFixture {
protected:
    void SetUp() override {
        if (auto reason = enterPrivateNetwork()) {
            GTEST_SKIP() << *reason;
        }
        WatchFixture::SetUp();
        ASSERT_TRUE(addVethNetwork());
    }
};

}  // namespace morvane::test
