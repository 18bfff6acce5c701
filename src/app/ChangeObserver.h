#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/ChangeType.h"
#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "device/DeviceConfigManager.h"
#include "messages/DeviceConfiguration.h"
#include "platform/DispatchQueue.h"
#include "platform/NotificationCenter.h"
#include "platform/Scheduler.h"
#include "settings/ConfigFileWriter.h"
#include "settings/InstallerHelper.h"
#include "settings/Settings.h"
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

    // The services this loop works with. Those of the network and VPN watches, the
    // notifications, the local resolver, the probe and the shared defaults join them as they
    // are built.
    Injected<Settings> settings;
    Injected<DeviceConfigManager> deviceConfigurationManager;
    Injected<TarnLogger> logger;
    Injected<NotificationPublisher> notificationPublisher;
    Injected<ConfigFileWriter> configFileWriter;
    Injected<InstallerHelper> installerHelper;
    Injected<VPNMonitor> vpnMonitor;
    Injected<NCSICheck> tarnStatusCheck;
    Injected<NetworkCheck> networkCheck;

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
    // The steps of the policy pass. They do nothing until the extension, the installer
    // hand-over, the notifications and the pass itself are in place.
    virtual bool userAcceptedExtension();
    virtual void reloadConfigIfNeeded(ChangeType changeType);
    virtual void showChangeNotification(ChangeType changeType);
    virtual void handleOnChange(const std::optional<platform::Notification>& notification,
                                ChangeType changeType, bool userAcceptedExtension);

private:
    void resetTimerIfNeeded(ChangeType changeType);
    void schedulePollingTick(double delaySeconds);
    void log(const std::string& message);
};

/// A number of seconds as the log lines show it: the shortest text that reads back as the
/// same value, with ".0" on whole numbers ("10.0", "15.25").
std::string formatSeconds(double seconds);

}  // namespace morvane
