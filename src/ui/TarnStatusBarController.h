#pragma once

#include <any>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/UserDefaults.h"
#include "ui/StatusBarPlatform.h"
#include "ui/StatusMenuItem.h"
#include "ui/TrayIcons.h"

namespace morvane {

/// The agent's face to the user: one status item and the menu behind it, with the external
/// address, one status line, the logs folder, the debug toggle, the notification settings and
/// About. It holds no policy: the change observer makes it and pushes every update into it,
/// always on the main thread. Everything shown is decided here, as items with titles, actions,
/// enabled flags and check marks; `ui::StatusBarPlatform` only draws them.
class TarnStatusBarController : public std::enable_shared_from_this<TarnStatusBarController> {
public:
    /// Tray type 1 and no test menu.
    TarnStatusBarController();
    /// `platform` and `defaults` default to the desktop's tray and the user's defaults.
    TarnStatusBarController(ui::TrayType trayType, bool showTestMenu,
                            std::shared_ptr<ui::StatusBarPlatform> platform = nullptr,
                            std::shared_ptr<platform::UserDefaults> defaults = nullptr);
    TarnStatusBarController(const TarnStatusBarController&) = delete;
    TarnStatusBarController& operator=(const TarnStatusBarController&) = delete;

    /// The status text for a status code; nothing for codes that leave the line unchanged.
    static std::optional<std::string> statusText(int code, bool hasIpAddress,
                                                 bool userAcceptedExtension, bool vpnRunning);
    /// The status of the codes that depend on the connection's flags.
    static std::string connectionStatus(bool hasIpAddress, bool userAcceptedExtension,
                                        bool vpnRunning);

    // Called by the change observer.
    void addStatusBar(bool show);
    void updateStatusMessage(int code, bool hasIpAddress, bool userAcceptedExtension,
                             bool vpnRunning);
    void updateExternalIp(const std::string& ip);
    void updateDeviceKey(const std::string& deviceKey);
    void updateUserName(const std::string& userName);
    void updateLogDebug();
    void updateDebugMenu(const std::string& title, bool enabled);

    // The menu and its actions.
    void updateStatusBar(bool unused);
    void updateStatusMenuItem(bool show);
    void updateExternalIpMenuItem();
    /// Builds the menu anew and hands it to the status item; runs on a click.
    void displayStatusMenu();
    void addShowTestMenu();
    void menuWillOpen();
    bool updateNotificationStatusMenu();
    void authorizeNotification();
    void toggleNotifications();
    void showPrivacyPanel();
    void setLogDebug();
    void openAppSupport();
    std::optional<std::string> getContainerURL() const;
    void showAboutWindow();
    /// Ends the agent as a quit from the application does; set by the application.
    void quit();
    void showLocalRulesWindow();
    void modifyTrayType(ui::TrayType trayType);
    void removeStatusBar();
    /// For a notification whose object is an address text.
    void externalIpUpdated(const std::any& object);
    void saveDisconnectOnVPN(bool value);
    bool getDisconnectOnVPN() const;
    void toggleDisconnectOnVPN();

    /// Runs the action of a chosen menu entry.
    void perform(ui::MenuAction action);
    /// The menu as last built, top to bottom; empty before the first click.
    const ui::StatusMenu& menu() const { return menu_; }

    bool logDebugEnabled = false;
    bool showTestMenu = false;
    bool disconnectOnVPN = false;
    bool userAcceptedExtension = false;
    ui::TrayType trayType = 1;
    /// Whether the status item exists.
    bool statusBarItem = false;
    std::string externalIP;
    std::string status;
    std::shared_ptr<ui::StatusMenuItem> externalIpItem;
    std::shared_ptr<ui::StatusMenuItem> statusItem;
    std::shared_ptr<ui::StatusMenuItem> deviceKeyItem;
    std::shared_ptr<ui::StatusMenuItem> showLocalRules;
    std::shared_ptr<ui::StatusMenuItem> userNameItem;
    std::shared_ptr<ui::StatusMenuItem> logDebugItem;
    std::shared_ptr<ui::StatusMenuItem> showNotificationsItem;
    /// The system log of this class: one line, category first.
    std::function<void(const std::string&)> logObject;
    /// What `quit` does; the application sets it to its own end.
    std::function<void()> endExtensionAndQuit;

    const std::shared_ptr<ui::StatusBarPlatform> platform;
    const std::shared_ptr<platform::UserDefaults> userDefaults;

    /// Where the desktop's notification settings are opened, and the security settings in
    /// which the extension is allowed.
    static constexpr const char* kNotificationPreferencesURL =
        "x-apple.systempreferences:com.apple.preference.notifications";
    static constexpr const char* kSecurityPreferencesURL =
        "x-apple.systempreferences:com.apple.preference.security?General";

private:
    void createStatusItem();
    void sayNoStatusNotifierHost();
    /// Opens a URL with the desktop, or says in the log that nothing here opens it.
    void open(const std::string& url);

    ui::StatusMenu menu_;
};

}  // namespace morvane
