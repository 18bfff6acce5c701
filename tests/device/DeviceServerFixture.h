#pragma once

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "app/DepenencyInjection.h"
#include "platform/ManualScheduler.h"
#include "settings/MorvaneServerInfoSection.h"
#include "settings/Settings.h"
#include "support/DevServer.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"

namespace morvane::test {

/// A fresh agent against tools/devserver: a temporary home, the application's service
/// table, a main queue the test runs by hand, and the server's own certificate trusted
/// through MORVANECLOUD_CA_FILE, so that every certificate check stays on.
class DeviceServerFixture : public ::testing::Test {
protected:
    void SetUp() override {
        home_.env().set("MORVANECLOUD_CA_FILE", server_->certificatePath().string());
        Dependencies::build(DepenencyInjection::serviceTable());
        set(MorvaneServerInfoSection::rpcURL, server_->baseUrl());
    }

    void TearDown() override {
        scheduler_->runPending();
        // Every test process shares one defaults file: leave nothing behind for the next.
        auto defaults = settings()->userDefaults;
        for (const auto& [key, value] : defaults->dictionaryRepresentation()) {
            defaults->removeObjectForKey(key);
        }
        Dependencies::build(std::vector<Service>{});
    }

    std::shared_ptr<Settings> settings() { return Dependencies::shared()->resolve<Settings>(); }

    void set(MorvaneServerInfoSection key, const std::string& value) {
        settings()->userDefaults->setValue(value, std::string(rawValue(key)));
    }
    void unset(MorvaneServerInfoSection key) {
        settings()->userDefaults->removeObjectForKey(std::string(rawValue(key)));
    }

    /// Runs the work on a thread of its own, as the agent's queues do, and waits for it: a
    /// call made there waits for its exchange without the main thread's limit.
    template <class Work>
    auto offMainThread(Work work) {
        return std::async(std::launch::async, std::move(work)).get();
    }

    /// What the agent printed and logged while `work` ran, log lines included (they are
    /// written from the main queue).
    template <class Work>
    std::string output(Work work) {
        ::testing::internal::CaptureStdout();
        work();
        scheduler_->runPending();
        return ::testing::internal::GetCapturedStdout();
    }

    static bool contains(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }

    /// The next request of `method` meets the fault.
    void fault(DevServer::FaultMode mode, const char* method, DevServer::Fault more = {}) {
        more.mode = mode;
        more.method = method;
        more.count = 1;
        server_->addFault(more);
    }

    TempHome home_;
    std::shared_ptr<platform::ManualScheduler> scheduler_ =
        std::make_shared<platform::ManualScheduler>();
    ScopedScheduler installed_{scheduler_};
    std::unique_ptr<DevServer> server_ = std::make_unique<DevServer>();
};

}  // namespace morvane::test
