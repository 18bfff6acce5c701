#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "ui/PreferencePanes.h"
#include "ui/TrayIcons.h"

namespace morvane::ui {
namespace {

constexpr const char* kNotifications =
    "x-apple.systempreferences:com.apple.preference.notifications";
constexpr const char* kSecurity = "x-apple.systempreferences:com.apple.preference.security?General";

using Command = std::optional<std::vector<std::string>>;

Command commandOn(const char* url, const char* desktop, std::set<std::string> installed) {
    return preferencePaneCommand(url, desktop, [&installed](const std::string& program) {
        return installed.contains(program);
    });
}

TEST(PreferencePanesTest, NotificationSettingsOfEachDesktop) {
    const std::set<std::string> all{"gnome-control-center",      "systemsettings",
                                    "systemsettings5",           "xfce4-notifyd-config",
                                    "cinnamon-settings",         "mate-notification-properties",
                                    "lxqt-config-notificationd", "budgie-control-center"};
    using V = std::vector<std::string>;
    EXPECT_EQ(commandOn(kNotifications, "ubuntu:GNOME", all),
              (V{"gnome-control-center", "notifications"}));
    EXPECT_EQ(commandOn(kNotifications, "GNOME", all),
              (V{"gnome-control-center", "notifications"}));
    EXPECT_EQ(commandOn(kNotifications, "KDE", all), (V{"systemsettings", "kcm_notifications"}));
    EXPECT_EQ(commandOn(kNotifications, "kde", {"systemsettings5"}),
              (V{"systemsettings5", "kcm_notifications"}));
    EXPECT_EQ(commandOn(kNotifications, "XFCE", all), V{"xfce4-notifyd-config"});
    EXPECT_EQ(commandOn(kNotifications, "X-Cinnamon", all),
              (V{"cinnamon-settings", "notifications"}));
    EXPECT_EQ(commandOn(kNotifications, "MATE", all), V{"mate-notification-properties"});
    EXPECT_EQ(commandOn(kNotifications, "LXQt", all), V{"lxqt-config-notificationd"});
    // The first desktop of the list that has its program.
    EXPECT_EQ(commandOn(kNotifications, "Budgie:GNOME", {"gnome-control-center"}),
              (V{"gnome-control-center", "notifications"}));
}

TEST(PreferencePanesTest, NothingWhereNothingFits) {
    const std::set<std::string> all{"gnome-control-center", "systemsettings"};
    EXPECT_FALSE(commandOn(kNotifications, "", all));
    EXPECT_FALSE(commandOn(kNotifications, "sway", all));
    EXPECT_FALSE(commandOn(kNotifications, "GNOME", {}));
    // The extension is allowed through polkit's own prompt: no desktop has that page.
    for (const char* desktop : {"GNOME", "KDE", "XFCE"}) {
        EXPECT_FALSE(commandOn(kSecurity, desktop, all)) << desktop;
    }
    EXPECT_FALSE(commandOn("https://example.org", "GNOME", all));
}

TEST(TrayIconsTest, FileOfEachImageInEachTrayType) {
    EXPECT_EQ(trayIconFileName("morvane_icon", 0), "morvane_icon");
    EXPECT_EQ(trayIconFileName("morvane_icon", 1), "morvane_icon_mono");
    EXPECT_EQ(trayIconFileName("morvane_icon_alert", 2), "morvane_icon_alert");
    EXPECT_EQ(trayIconFileName("morvane_icon_alert", 3), "morvane_icon_alert_inverted");
    EXPECT_EQ(trayIconFileName("morvane_icon", 7), "morvane_icon");
}

}  // namespace
}  // namespace morvane::ui
