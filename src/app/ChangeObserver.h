#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/MenuInteraction.h"
#include "app/UnboundControlManager.h"
#include "core/ChangeType.h"
#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "device/DeviceConfigManager.h"
#include "helper/TarnHelperProxy.h"
#include "messages/DeviceConfiguration.h"
#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/Scheduler.h"
#include "proxy/NetworkExtensionManager.h"
#include "proxy/SharedDefaultsManager.h"
#include "settings/ConfigFileWriter.h"
#include "settings/InstallerHelper.h"
#include "settings/Settings.h"
#include "ui/TarnUserNotification.h"
#include "watch/NCSICheck.h"
#include "watch/NetworkCheck.h"
#include "watch/VPNMonitor.h"

namespace morvane {

/// The polling ladder: the delays between two polls of the change loop.
struct TimerVariance {
    std::vector<double> timeInterval{10, 15, 30, 40, 60};
    std::size_t index = 0;
    int configureThrottle = 20;
};

/// The central loop of the agent. It listens to every change event and to a polling timer
/// of its own, and each of them, whatever its kind, enters through `onChange` and walks the
/// same fixed sequence of steps on the main thread.
class ChangeObserver : public std::enable_shared_from_this<ChangeObserver> {
public:
    using Subscription = std::shared_ptr<platform::NotificationCenter::Subscription>;

    ChangeObserver();
    virtual ~ChangeObserver();
    ChangeObserver(const ChangeObserver&) = delete;
    ChangeObserver& operator=(const ChangeObserver&) = delete;

    /// Schedules the first poll and subscribes to every change event. Called once.
    void startObserving();
    /// Subscribes to one event; the polling tick never travels as an event.
    void subscribe(ChangeType changeType);
    /// Cancels the subscriptions of `subscriptions` whose keys are also live here; the
    /// entries stay in the map.
    void cancelSubscriptions(const std::map<ChangeType, Subscription>& subscriptions);
    /// The one entry of every event, from the bus or the timer. Main thread only.
    void onChange(ChangeType changeType, const std::optional<platform::Notification>& notification);

    // The services this loop works with.
    Injected<Settings> settings;
    Injected<DeviceConfigManager> deviceConfigurationManager;
    Injected<TarnLogger> logger;
    Injected<NotificationPublisher> notificationPublisher;
    Injected<ConfigFileWriter> configFileWriter;
    /// Declared and never read: no step of the loop uses a local resolver.
    Injected<UnboundControlManager> unboundControl;
    Injected<InstallerHelper> installerHelper;
    Injected<VPNMonitor> vpnMonitor;
    Injected<NCSICheck> tarnStatusCheck;
    Injected<NetworkCheck> networkCheck;
    Injected<SharedDefaultsManager> sharedDefaultsManager;
    Injected<TarnUserNotification> userNotification;
    /// The privileged helper's client; the pass asks it to flush DNS and nothing else.
    std::shared_ptr<TarnHelperProxy> tarnhelperProxy = TarnHelperProxy::sharedInstance();
    /// The status bar, made on first need.
    std::optional<MenuInteraction> menuInteraction;

    std::shared_ptr<platform::DispatchQueue> concurrentQueue;
    platform::Clock::time_point startTime;
    bool resolversInstalled = false;
    ChangeType lastChangedType = ChangeType::onStartup;
    std::string lastKnownIP;
    bool haveUpdatedMenuWithConfig = false;
    TimerVariance timerVariance;
    bool wasRunningVPN = false;
    double tolerance = 5.0;
    std::map<ChangeType, Subscription> cancellables;
    bool hasShownPrivacyAlert = false;
    bool QUIT_QPP = false;
    double unVariedDefault = 10.0;
    /// The configuration last applied to the DNS proxy.
    std::optional<DeviceConfiguration> config;

protected:
    // The steps of the policy pass, in the order onChange calls them.
    virtual bool userAcceptedExtension();
    virtual void reloadConfigIfNeeded(ChangeType changeType);
    virtual void showChangeNotification(ChangeType changeType);
    virtual void handleOnChange(const std::optional<platform::Notification>& notification,
                                ChangeType changeType, bool userAcceptedExtension);

public:
    /// The working state of one event's pass, shared by its steps: the change type, which the
    /// external address may turn into `ipAddressChanged`, and whether a VPN runs.
    struct PassCells {
        ChangeType changeType = ChangeType::onStartup;
        bool vpnRunning = false;
    };

    /// The status code of the menu for a change type.
    static int statusCode(ChangeType changeType);
    /// The resolvers of every forwarding rule that has some, in rule order, duplicates kept.
    static std::vector<std::string> resolverList(const std::optional<DeviceConfiguration>& config);
    std::optional<DeviceConfiguration> currentConfiguration(
        const std::optional<platform::Notification>& notification, ChangeType changeType);
    virtual void setMenubarStatus(ChangeType changeType, bool hasIpAddress,
                                  bool userAcceptedExtension, bool vpnRunning);
    void createMenuIfNeeded();
    void updateMenuAndExtension(const DeviceConfiguration& configuration, ChangeType changeType,
                                const std::string& ip);
    void updateMenu(const std::string& ip, const DeviceConfiguration& configuration);
    void updateNetworkExtension(ChangeType changeType, const DeviceConfiguration& configuration);
    void resetNetworkExtension(const DeviceConfiguration& configuration);

protected:
    /// The DNS proxy manager and the status bar as the pass reaches them; tests put their own.
    virtual std::shared_ptr<NetworkExtensionManager> proxyManager();
    virtual std::shared_ptr<TarnStatusBarController> makeStatusMenu(ui::TrayType trayType,
                                                                    bool showTestMenu);
    virtual void lookUpExternalIP(const DeviceConfiguration& configuration,
                                  std::function<void(const std::string&)> continuation);
    void applyExternalIP(const std::string& ip, const std::shared_ptr<PassCells>& pass,
                         bool userAcceptedExtension, const DeviceConfiguration& configuration);
    bool pathIsSatisfied();
    void sendDeviceKeyToMenu();

private:
    void resetTimerIfNeeded(ChangeType changeType);
    void schedulePollingTick(double delaySeconds);
    void log(const std::string& message);
};

/// A number of seconds as the log lines show it: the shortest text that reads back as the
/// same value, with ".0" on whole numbers ("10.0", "15.25").
std::string formatSeconds(double seconds);

}  // namespace morvane
