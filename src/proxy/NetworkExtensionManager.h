#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/ChangeType.h"
#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "messages/ForwardingRule.h"
#include "proxy/DNSProxyPreferences.h"
#include "proxy/ExtensionActivation.h"
#include "proxy/ExtensionBundle.h"
#include "messages/NetworkExtConfig.h"
#include "proxy/ProviderLink.h"
#include "proxy/ProxySystemLog.h"
#include "proxy/Throttle.h"
#include "settings/Settings.h"

namespace morvane {

/// The DNS proxy provider's state as the rest of the agent tests it.
enum class ExtensionStatus {
    userAccepted,     ///< the activation request finished with result 0
    configured,       ///< a configuration was saved, or the provider stopped while quitting
    userDenied,       ///< removing the configuration failed
    userStopped,      ///< the provider reported a stop with a reason
    failedToInstall,  ///< the activation failed, or a configuration could not be saved
    notStarted,       ///< the activation has not finished yet
};
std::string_view rawValue(ExtensionStatus status);

/// A set, not a single value: most transitions replace it, two edit it.
using ExtensionState = std::set<ExtensionStatus>;
/// "[userAccepted, configured]": the members in declaration order.
std::string extensionStateText(const ExtensionState& state);

/// The questions about the world that the manager asks of the network watch, the DNS
/// resolver and the local rules panel. The agent wires them where it builds the manager;
/// a question nobody wired says so in the log and gets the answer that keeps the proxy off.
struct NetworkQuestions {
    /// Whether the current path is satisfied.
    std::function<bool()> pathIsSatisfied;
    std::function<bool()> isVPNRunning;
    /// The machine's own DNS servers.
    std::function<std::vector<std::string>()> getDNSAddresses;
    /// The test rules of the local rules panel; nothing while none is set.
    std::function<std::optional<std::vector<ForwardingRule>>()> testForwardingRules;
    /// The address of the first wired, wireless or mobile interface; see localIPv4Address.
    std::function<std::optional<std::string>()> localIPv4Address;
};

/// Operations the start and the termination of the application call.
class NetworkExtensionManagerInteraction {
public:
    virtual ~NetworkExtensionManagerInteraction() = default;
    virtual void activateExtension() = 0;
    virtual void deactivateExtension(std::function<void(std::optional<ProxyError>)> completion) = 0;
};

/// The operation through which every change event reaches DNS proxy control.
class NetworkExtensionManagerChangeHandling {
public:
    virtual ~NetworkExtensionManagerChangeHandling() = default;
    virtual void handleChange(ChangeType change, const NetworkExtConfig& config) = 0;
};

/// Owns the whole life of the DNS proxy provider on this machine: its activation and removal,
/// the stored proxy configuration with the policy in its provider dictionary, and the one
/// decision whether the proxy is on. Everything runs on the main queue; the platform's
/// callbacks arrive there, but for the deactivation's, which touch `deactivationComplete`
/// only.
class NetworkExtensionManager : public std::enable_shared_from_this<NetworkExtensionManager>,
                                public ExtensionRequestDelegate,
                                public AppCommunication,
                                public NetworkExtensionManagerInteraction,
                                public NetworkExtensionManagerChangeHandling {
public:
    /// The provider's identifier, for the requests and as the provider bundle identifier.
    static constexpr const char* kExtensionIdentifier = "com.tarn.lorvaxHQ.TarnDNSProxy";
    /// With the trailing blank.
    static constexpr const char* kLocalizedDescription = "Tarn DNS Proxy ";

    /// What the manager works through.
    struct Platform {
        std::shared_ptr<DNSProxyPreferences> preferences;
        std::shared_ptr<ExtensionActivation> activation;
        std::shared_ptr<ProviderLink> providerLink;
        /// Finds the provider's bundle; asked once, at the first need.
        std::function<ExtensionBundle::Lookup()> findBundle;
    };

    explicit NetworkExtensionManager(Platform platform);
    ~NetworkExtensionManager() override;

    /// The process-wide instance, made on first use with this machine's platform (the
    /// activation backend is chosen then, once, and logged).
    static std::shared_ptr<NetworkExtensionManager> shared();

    // Offered to the start, the termination and the policy pass.
    void activateExtension() override;
    void deactivateExtension(std::function<void(std::optional<ProxyError>)> completion) override;
    void unloadConfigurations(bool isTerminating,
                              std::function<void(std::optional<ProxyError>)> completion);
    void stopProxy();
    void handleChange(ChangeType change, const NetworkExtConfig& config) override;
    virtual void resetExtension(const NetworkExtConfig& config);

    // The request delegate.
    void requestNeedsUserApproval() override;
    int actionForReplacingExtension(const std::string& existingVersion,
                                    const std::string& newVersion) override;
    void requestDidFinishWithResult(const std::string& request, long long result) override;
    void requestDidFailWithError(const std::string& request, const ProxyError& error) override;

    // The provider's calls.
    void proxyStoppedWithReason(long long reason) override;
    void connectionErrorWithReason(const ProxyError& error) override;

    /// The proxy may be on: activated, not failed, path satisfied, no VPN.
    bool shouldEnableProxy();
    /// The provider dictionary, keys in the order the provider is told them.
    virtual nlohmann::ordered_json makeProviderConfiguration(const NetworkExtConfig& config);
    /// The provider's bundle, looked up once; nothing when it is missing or damaged.
    const std::optional<ExtensionBundle>& extensionBundle();

    Injected<TarnLogger> _logger;
    /// The network watch and the resolver; wired by the agent (see NetworkQuestions).
    NetworkQuestions networkQuestions;
    Injected<NotificationPublisher> _notificationPublisher;
    Injected<Settings> _settings;
    UserDefaultsHelper userDefaultsHelper;
    bool isConfiguring = false;
    ExtensionState extensionState{ExtensionStatus::notStarted};
    std::optional<NetworkExtConfig> savedNetworkConfig;
    /// The network watch's sanity check record, owned and released with this object and never
    /// called from here; whoever wires the network questions may hand one over.
    std::shared_ptr<void> sanityCheck;
    Throttle throttle;
    bool enabledOnFirstLaunch = false;
    bool isTerminating = false;
    const ProxySystemLog log{"com.lorvex.tarn.TarnDNSProxy", "app"};
    /// The text of the last step; nothing reads it back.
    std::string status;

    /// Whether a deactivation request is pending (its completion is held).
    bool hasDeactivationPending() const;
    DNSProxyPreferences& preferences() { return *platform_.preferences; }

protected:
    /// Loads, applies the provider protocol and saves; does nothing at all while a cycle runs
    /// or the application quits.
    virtual void configureProxy(const NetworkExtConfig& config, bool enable,
                                std::function<void(std::optional<ProxyError>)> completion);
    virtual void handleSaveFailure();
    virtual void applyProviderProtocol(const NetworkExtConfig& config,
                                       const std::optional<std::string>& serverAddress,
                                       bool enable);
    void enableProxy(const NetworkExtConfig& config);
    void disableProxy(const NetworkExtConfig& config,
                      std::function<void(std::optional<ProxyError>)> completion = {});
    /// A line of the application's log.
    virtual void logApp(const std::string& message, LogLevel level);

private:
    void publish(ChangeType change);
    bool blockedByState() const;
    bool askPathSatisfied();
    bool askVPNRunning();
    void logUnwired(const char* question);

    Platform platform_;
    mutable std::mutex deactivationMutex_;
    /// Set while a deactivation request is pending; see hasDeactivationPending.
    std::function<void(std::optional<ProxyError>)> deactivationComplete_;
    std::optional<std::optional<ExtensionBundle>> extensionBundle_;
    std::string bundleFailure_;
    std::set<std::string> unwiredReported_;
};

}  // namespace morvane
