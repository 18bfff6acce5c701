#include "ui/TarnStatusBarController.h"

#include <atomic>
#include <cstdio>

#include "core/Dependencies.h"
#include "core/TarnLogger.h"
#include "platform/BuildInfo.h"
#include "platform/Files.h"
#include "platform/MainQueue.h"
#include "platform/SystemLog.h"
#include "ui/TarnUserNotification.h"
#include "ui/UserNotificationCenter.h"

namespace morvane {

using ui::MenuAction;
using ui::StatusMenuItem;

namespace {

constexpr const char* kLogDebugKey = "LogDebug";
constexpr const char* kDisconnectOnVPNKey = "disconnectOnVPN";
constexpr const char* kTrayTypeKey = "TRAY_TYPE";
constexpr const char* kNoHostMessage =
    "No status notifier host answers on this desktop, so the MorvaneCloud icon cannot be shown "
    "until one starts; the agent runs on without it";

// The program carries English only: every title is its own translation.
std::string localized(const std::string& english) {
    return english;
}

// A file URL of a local path, with everything but unreserved characters and "/" escaped.
std::string fileURL(const std::string& path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (const unsigned char c : path) {
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~' ||
                           c == '/';
        if (plain) {
            url += static_cast<char>(c);
        } else {
            url += '%';
            url += kHex[c >> 4];
            url += kHex[c & 0xF];
        }
    }
    return url;
}

std::atomic<bool> saidNoHost{false};

// A line that only informs: made disabled and without action on first use, then retitled.
void showInformation(std::shared_ptr<StatusMenuItem>& item, const std::string& title) {
    if (item) {
        item->setTitle(title);
    } else {
        item = StatusMenuItem::make(title, MenuAction::none, false);
    }
}

}  // namespace

TarnStatusBarController::TarnStatusBarController() : TarnStatusBarController(1, false) {}

TarnStatusBarController::TarnStatusBarController(ui::TrayType trayType_, bool showTestMenu_,
                                                 std::shared_ptr<ui::StatusBarPlatform> platform_,
                                                 std::shared_ptr<platform::UserDefaults> defaults)
    : showTestMenu(showTestMenu_),
      trayType(trayType_),
      platform(platform_ ? std::move(platform_) : ui::StatusBarPlatform::makeDefault()),
      userDefaults(defaults ? std::move(defaults) : platform::UserDefaults::standard()) {
    disconnectOnVPN = getDisconnectOnVPN();
    logObject = [](const std::string& line) {
        platform::writeSystemLog("com.lorvex.tarn.MorvaneCloud TarnStatusBarController: " + line);
    };
}

std::string TarnStatusBarController::connectionStatus(bool hasIpAddress, bool, bool vpnRunning) {
    if (vpnRunning) {
        return "Disconnected: VPN running";
    }
    return hasIpAddress ? "Connected" : "Disconnected";
}

std::optional<std::string> TarnStatusBarController::statusText(int code, bool hasIpAddress,
                                                               bool userAcceptedExtension,
                                                               bool vpnRunning) {
    switch (code) {
        case 0:
            return "Connected";
        case 1:
        case 5:
        case 6:
        case 7:
        case 8:
        case 9:
        case 11:
            return connectionStatus(hasIpAddress, userAcceptedExtension, vpnRunning);
        case 2:
            return "Bypassed";
        case 3:
            return "Waiting for Unbound";
        case 4:
            return "Disconnected: VPN running";
        case 10:
            return "Network Extension not installed.";
        case 12:
            return "Invalid Configuration";
        default:
            return std::nullopt;
    }
}

void TarnStatusBarController::addStatusBar(bool show) {
    if (trayType == 0) {
        return;
    }
    createStatusItem();
    platform->setImage(ui::trayIconFileName("morvane_icon_alert", trayType));
    if (show) {
        updateStatusMenuItem(true);
    }
    updateExternalIpMenuItem();
    updateDeviceKey("");
    updateUserName("Retrieving");
}

void TarnStatusBarController::createStatusItem() {
    std::weak_ptr<TarnStatusBarController> weak = weak_from_this();
    const bool shown = platform->createStatusItem([weak] {
        if (auto self = weak.lock()) {
            self->displayStatusMenu();
        }
    });
    statusBarItem = true;
    if (!shown) {
        sayNoStatusNotifierHost();
    }
}

void TarnStatusBarController::sayNoStatusNotifierHost() {
    if (saidNoHost.exchange(true)) {
        return;
    }
    logObject(kNoHostMessage);
    const auto services = Dependencies::shared();
    if (!services) {
        return;
    }
    services->resolve<TarnLogger>()->log(kNoHostMessage, LogLevel::warning);
    ui::UserNotificationCenter::current()->getNotificationSettings(
        [services](ui::NotificationSettings settings) {
            services->resolve<TarnUserNotification>()->sendNotification(
                settings, "Tarn Notification", kNoHostMessage, [](bool) {});
        });
}

void TarnStatusBarController::updateStatusBar(bool) {
    if (!statusBarItem) {
        createStatusItem();
    }
    platform->setImage(ui::trayIconFileName("morvane_icon", trayType));
}

void TarnStatusBarController::updateStatusMenuItem(bool show) {
    const std::string title = localized("Status: ") + status;
    updateStatusBar(show);
    if (statusItem) {
        statusItem->setTitle(title);
        return;
    }
    if (userAcceptedExtension) {
        statusItem = StatusMenuItem::make(title, MenuAction::none, false);
    } else {
        statusItem = StatusMenuItem::make(title, MenuAction::showPrivacyPanel, true);
    }
}

void TarnStatusBarController::updateStatusMessage(int code, bool hasIpAddress,
                                                  bool userAcceptedExtension_, bool vpnRunning) {
    if (auto text = statusText(code, hasIpAddress, userAcceptedExtension_, vpnRunning)) {
        status = *text;
    }
    // Kept, so that a status line made after the extension was accepted is an inert line
    // instead of a way to the security settings.
    userAcceptedExtension = userAcceptedExtension_;
    updateStatusMenuItem(!hasIpAddress || userAcceptedExtension_);
}

void TarnStatusBarController::updateExternalIp(const std::string& ip) {
    if (ip == externalIP) {
        return;
    }
    externalIP = ip;
    updateExternalIpMenuItem();
    if (!ip.empty()) {
        status = "Connected";
    }
}

void TarnStatusBarController::updateExternalIpMenuItem() {
    const std::string title =
        localized("External IP: ") + (externalIP.empty() ? std::string("Empty") : externalIP);
    showInformation(externalIpItem, title);
}

void TarnStatusBarController::updateUserName(const std::string& userName) {
    showInformation(userNameItem, localized("User Key: ") + userName);
}

void TarnStatusBarController::updateDeviceKey(const std::string& deviceKey) {
    showInformation(deviceKeyItem, localized("Device Key: ") + deviceKey);
}

void TarnStatusBarController::updateLogDebug() {
    logDebugEnabled = userDefaults->boolForKey(kLogDebugKey);
    if (logDebugItem) {
        logDebugItem->setState(logDebugEnabled);
    }
}

void TarnStatusBarController::setLogDebug() {
    logDebugEnabled = !logDebugEnabled;
    if (logDebugItem) {
        logDebugItem->setState(logDebugEnabled);
    }
    userDefaults->setBool(logDebugEnabled, kLogDebugKey);
}

void TarnStatusBarController::updateDebugMenu(const std::string& title, bool enabled) {
    if (logDebugItem) {
        logDebugItem->setTitle(localized(title));
    } else {
        logDebugItem = StatusMenuItem::make(localized(title), MenuAction::setLogDebug, true);
    }
    logDebugItem->setState(enabled);
}

void TarnStatusBarController::addShowTestMenu() {
    auto logs = StatusMenuItem::make(localized("Logs"), MenuAction::none, true);
    logs->setSubmenu(
        {StatusMenuItem::make(localized("Open App Support"), MenuAction::openAppSupport, true)});
    menu_.push_back(std::move(logs));
}

void TarnStatusBarController::displayStatusMenu() {
    if (!logDebugItem) {
        logDebugItem =
            StatusMenuItem::make(localized("Logging Debug Info"), MenuAction::setLogDebug, true);
        logDebugItem->setState(logDebugEnabled);
    }
    auto about = StatusMenuItem::make(localized("About"), MenuAction::showAboutWindow, true);
    showNotificationsItem = StatusMenuItem::make(localized("Notifications Preferences..."),
                                                 MenuAction::authorizeNotification, true);
    updateNotificationStatusMenu();

    menu_.clear();
    // The two first lines exist once the status item is up; a menu asked for earlier simply
    // starts with the logs.
    if (externalIpItem) {
        menu_.push_back(externalIpItem);
    }
    if (statusItem) {
        menu_.push_back(statusItem);
    }
    addShowTestMenu();
    menu_.push_back(StatusMenuItem::separator());
    menu_.push_back(logDebugItem);
    menu_.push_back(showNotificationsItem);
    menu_.push_back(StatusMenuItem::separator());
    menu_.push_back(about);
    menu_.push_back(StatusMenuItem::separator());

    std::weak_ptr<TarnStatusBarController> weak = weak_from_this();
    platform->setMenu(
        menu_,
        [weak](MenuAction action) {
            if (auto self = weak.lock()) {
                self->perform(action);
            }
        },
        [weak] {
            if (auto self = weak.lock()) {
                self->menuWillOpen();
            }
        });
}

void TarnStatusBarController::menuWillOpen() {
    updateNotificationStatusMenu();
}

bool TarnStatusBarController::updateNotificationStatusMenu() {
    std::weak_ptr<TarnStatusBarController> weak = weak_from_this();
    ui::UserNotificationCenter::current()->getNotificationSettings(
        [weak](ui::NotificationSettings settings) {
            platform::MainQueue::async([weak, settings] {
                auto self = weak.lock();
                if (self && self->showNotificationsItem) {
                    self->showNotificationsItem->setState(settings.authorizationStatus ==
                                                          ui::AuthorizationStatus::authorized);
                }
            });
        });
    return true;
}

void TarnStatusBarController::authorizeNotification() {
    std::weak_ptr<TarnStatusBarController> weak = weak_from_this();
    ui::UserNotificationCenter::current()->getNotificationSettings(
        [weak](ui::NotificationSettings settings) {
            auto self = weak.lock();
            if (!self) {
                return;
            }
            if (settings.authorizationStatus == ui::AuthorizationStatus::notDetermined) {
                ui::UserNotificationCenter::current()->requestAuthorization(
                    ui::kAuthorizationOptionsAlertBadgeSound,
                    [weak](bool, std::optional<std::string>) {
                        if (auto again = weak.lock()) {
                            again->logObject("Application granted");
                        }
                    });
            } else {
                self->toggleNotifications();
            }
        });
}

void TarnStatusBarController::toggleNotifications() {
    open(kNotificationPreferencesURL);
}

void TarnStatusBarController::showPrivacyPanel() {
    open(kSecurityPreferencesURL);
}

void TarnStatusBarController::open(const std::string& url) {
    if (!platform->openURL(url)) {
        logObject("Nothing on this desktop opens " + url);
    }
}

std::optional<std::string> TarnStatusBarController::getContainerURL() const {
    const auto folder = platform::applicationSupportDirectory();
    if (folder.empty()) {
        return std::nullopt;
    }
    return fileURL((folder / "MorvaneCloud").string());
}

void TarnStatusBarController::openAppSupport() {
    if (auto url = getContainerURL()) {
        open(*url);
    }
}

void TarnStatusBarController::showAboutWindow() {
    platform->showAboutPanel({
        {"ApplicationName", "Morvane Cloud Tarn"},
        {"ApplicationVersion", build::kVersion},
        {"Version", build::kBuildNumber},
    });
}

void TarnStatusBarController::quit() {
    if (endExtensionAndQuit) {
        endExtensionAndQuit();
    }
}

void TarnStatusBarController::showLocalRulesWindow() {
    std::weak_ptr<TarnStatusBarController> weak = weak_from_this();
    platform::MainQueue::async([weak] {
        if (auto self = weak.lock()) {
            self->platform->showPanel("LocalRulesWindow");
        }
    });
}

void TarnStatusBarController::modifyTrayType(ui::TrayType newType) {
    if (newType == trayType) {
        return;
    }
    char line[64];
    std::snprintf(line, sizeof line, "Updating tray type from %u to %u", trayType, newType);
    logObject(line);
    const ui::TrayType oldType = trayType;
    trayType = newType;
    if (oldType == 0) {
        addStatusBar(true);
    } else if (newType != 0) {
        if (showNotificationsItem) {
            showNotificationsItem->setState(newType > 1);
        }
        if (statusBarItem) {
            // The mark follows the new presentation; the alert stays an alert until the first
            // status arrives.
            platform->setImage(
                ui::trayIconFileName(statusItem ? "morvane_icon" : "morvane_icon_alert", newType));
        }
    } else {
        removeStatusBar();
    }
    userDefaults->setValue(std::to_string(newType), kTrayTypeKey);
}

void TarnStatusBarController::removeStatusBar() {
    platform->removeStatusItem();
    statusBarItem = false;
}

void TarnStatusBarController::externalIpUpdated(const std::any& object) {
    const auto* ip = std::any_cast<std::string>(&object);
    if (ip == nullptr) {
        return;
    }
    std::weak_ptr<TarnStatusBarController> weak = weak_from_this();
    platform::MainQueue::async([weak, ip = *ip] {
        if (auto self = weak.lock()) {
            self->updateExternalIp(ip);
        }
    });
}

void TarnStatusBarController::saveDisconnectOnVPN(bool value) {
    userDefaults->setBool(value, kDisconnectOnVPNKey);
}

bool TarnStatusBarController::getDisconnectOnVPN() const {
    return userDefaults->boolForKey(kDisconnectOnVPNKey);
}

void TarnStatusBarController::toggleDisconnectOnVPN() {
    disconnectOnVPN = !disconnectOnVPN;
    saveDisconnectOnVPN(disconnectOnVPN);
}

void TarnStatusBarController::perform(MenuAction action) {
    switch (action) {
        case MenuAction::none:
            return;
        case MenuAction::showPrivacyPanel:
            showPrivacyPanel();
            return;
        case MenuAction::openAppSupport:
            openAppSupport();
            return;
        case MenuAction::setLogDebug:
            setLogDebug();
            return;
        case MenuAction::authorizeNotification:
            authorizeNotification();
            return;
        case MenuAction::showAboutWindow:
            showAboutWindow();
            return;
        case MenuAction::showLocalRulesWindow:
            showLocalRulesWindow();
            return;
    }
}

}  // namespace morvane
