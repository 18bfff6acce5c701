#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/Dependencies.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "platform/MainQueue.h"
#include "platform/NotificationCenter.h"
#include "proxy/DNSProxyPreferences.h"
#include "proxy/ExtensionActivation.h"
#include "proxy/NetworkExtensionManager.h"
#include "proxy/ProviderLink.h"
#include "settings/ConfigFileWriter.h"
#include "settings/Settings.h"

namespace morvane::test {

/// Stands in for the system's DNS proxy preferences in the state machine's tables: each
/// operation answers on the main queue with the next scripted error, or succeeds, and every
/// save is recorded with what it stored.
class ScriptedPreferences : public DNSProxyPreferences {
public:
    struct Saved {
        bool enabled;
        std::optional<DNSProxyProviderProtocol> providerProtocol;
        std::optional<std::string> localizedDescription;
    };

    std::deque<std::optional<ProxyError>> loadResults, saveResults, removeResults;
    int loads = 0, removes = 0;
    std::vector<Saved> saves;
    /// What a load fills in: the stored enable flag.
    bool storedEnabled = false;

    void loadFromPreferences(Completion completion) override {
        ++loads;
        auto error = next(loadResults);
        platform::MainQueue::async([this, error, completion] {
            if (!error) {
                enabled_ = storedEnabled;
            }
            completion(error);
        });
    }
    void saveToPreferences(Completion completion) override {
        auto error = next(saveResults);
        if (!error) {
            saves.push_back({enabled_, providerProtocol_, localizedDescription_});
            storedEnabled = enabled_;
        }
        platform::MainQueue::async([error, completion] { completion(error); });
    }
    void removeFromPreferences(Completion completion) override {
        ++removes;
        auto error = next(removeResults);
        platform::MainQueue::async([error, completion] { completion(error); });
    }

private:
    static std::optional<ProxyError> next(std::deque<std::optional<ProxyError>>& results) {
        if (results.empty()) {
            return std::nullopt;
        }
        auto result = results.front();
        results.pop_front();
        return result;
    }
};

/// Records the requests; the test plays the system's answers through the delegate.
class RecordingActivation : public ExtensionActivation {
public:
    std::vector<Kind> requests;
    void submitRequest(Kind kind, const std::string&,
                       std::weak_ptr<ExtensionRequestDelegate>) override {
        requests.push_back(kind);
    }
    std::string name() const override { return "recording"; }
};

/// Records registrations and answers them as a provider that registers every time would.
class RecordingLink : public ProviderLink {
public:
    int registrations = 0;
    void registerWithProvider(const std::optional<ExtensionBundle>&,
                              std::weak_ptr<AppCommunication>,
                              std::function<void(const std::string&)> completion) override {
        ++registrations;
        completion("Registered extension Tarn DNS Proxy");
    }
};

inline ProxyError makeError(long long code, std::string domain = "NEDNSProxyErrorDomain") {
    return ProxyError{std::move(domain), code, "failure " + std::to_string(code),
                      nlohmann::json::object()};
}

/// The services the manager reads, over a notification centre of the test's own.
inline std::shared_ptr<platform::NotificationCenter> buildProxyServices() {
    auto center = platform::NotificationCenter::create();
    std::vector<Service> rows;
    rows.push_back(Service::global<Settings>());
    rows.push_back(Service::global<ConfigFileWriter>());
    rows.push_back(Service::global<TarnLogger>());
    rows.push_back(
        Service::make<NotificationPublisher>(Service::LifeCycle::global, [center](Dependencies&) {
            return std::make_shared<NotificationPublisher>(NotificationPublisher{center});
        }));
    Dependencies::build(std::move(rows));
    return center;
}

}  // namespace morvane::test
