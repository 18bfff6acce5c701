#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/Dependencies.h"
#include "core/TarnLogger.h"
#include "platform/BuildInfo.h"
#include "platform/UserDefaults.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"
#include "ui/RecordingDesktop.h"
#include "ui/TarnStatusBarController.h"
#include "ui/TarnUserNotification.h"

namespace morvane {
namespace {

using ui::MenuAction;

class StatusBarTest : public ::testing::Test {
protected:
    void SetUp() override {
        ui::UserNotificationCenter::setCurrent(center);
        Dependencies::build(
            {Service::global<TarnLogger>(), Service::global<TarnUserNotification>()});
    }
    void TearDown() override {
        ui::UserNotificationCenter::setCurrent(nullptr);
        Dependencies::build(std::vector<Service>{});
    }

    std::shared_ptr<TarnStatusBarController> make(ui::TrayType trayType = 2) {
        auto controller =
            std::make_shared<TarnStatusBarController>(trayType, false, tray, defaults);
        controller->logObject = [this](const std::string& line) { logLines.push_back(line); };
        return controller;
    }

    static std::vector<std::string> titles(const ui::StatusMenu& menu) {
        std::vector<std::string> result;
        for (const auto& item : menu) {
            result.push_back(item->isSeparator() ? "---" : item->title());
        }
        return result;
    }

    test::TempHome home;
    std::shared_ptr<test::RecordingStatusBar> tray = std::make_shared<test::RecordingStatusBar>();
    std::shared_ptr<test::RecordingNotificationCenter> center =
        std::make_shared<test::RecordingNotificationCenter>();
    std::shared_ptr<platform::UserDefaults> defaults =
        std::make_shared<platform::UserDefaults>(home.root() / "defaults.ini");
    std::vector<std::string> logLines;
};

TEST_F(StatusBarTest, EveryStatusCodeGivesItsText) {
    struct Row {
        int code;
        bool hasIp, accepted, vpn;
        const char* text;  // nullptr: the line stays as it was
    };
    const Row rows[] = {
        {0, false, false, true, "Connected"},
        {2, true, true, true, "Bypassed"},
        {3, false, false, false, "Waiting for Unbound"},
        {4, true, true, false, "Disconnected: VPN running"},
        {10, true, true, false, "Network Extension not installed."},
        {12, true, true, false, "Invalid Configuration"},
        {13, true, true, false, nullptr},
        {99, false, false, false, nullptr},
        {-1, false, false, false, nullptr},
    };
    for (const auto& row : rows) {
        const auto text =
            TarnStatusBarController::statusText(row.code, row.hasIp, row.accepted, row.vpn);
        if (row.text == nullptr) {
            EXPECT_FALSE(text.has_value()) << row.code;
        } else {
            EXPECT_EQ(text, std::optional<std::string>(row.text)) << row.code;
        }
    }
    // The codes that follow the connection: the VPN wins over the address, the acceptance of
    // the extension plays no part.
    for (int code : {1, 5, 6, 7, 8, 9, 11}) {
        for (bool accepted : {false, true}) {
            EXPECT_EQ(TarnStatusBarController::statusText(code, true, accepted, true),
                      "Disconnected: VPN running")
                << code;
            EXPECT_EQ(TarnStatusBarController::statusText(code, false, accepted, true),
                      "Disconnected: VPN running")
                << code;
            EXPECT_EQ(TarnStatusBarController::statusText(code, true, accepted, false), "Connected")
                << code;
            EXPECT_EQ(TarnStatusBarController::statusText(code, false, accepted, false),
                      "Disconnected")
                << code;
        }
    }
}

TEST_F(StatusBarTest, StatusLineAndIconFollowTheCodesAndAnUnknownCodeKeepsTheLine) {
    auto controller = make();
    controller->addStatusBar(true);
    ASSERT_TRUE(controller->statusItem);
    // The alert mark stands until the first status; the status item's own update puts the
    // normal mark right after it.
    ASSERT_GE(tray->images.size(), 2u);
    EXPECT_EQ(tray->images[0], "morvane_icon_alert");
    EXPECT_EQ(tray->images.back(), "morvane_icon");

    controller->updateStatusMessage(5, true, false, false);
    EXPECT_EQ(controller->statusItem->title(), "Status: Connected");
    controller->updateStatusMessage(4, true, true, false);
    EXPECT_EQ(controller->statusItem->title(), "Status: Disconnected: VPN running");
    controller->updateStatusMessage(13, true, true, false);
    EXPECT_EQ(controller->statusItem->title(), "Status: Disconnected: VPN running");
    controller->updateStatusMessage(12, false, true, false);
    EXPECT_EQ(controller->statusItem->title(), "Status: Invalid Configuration");
    EXPECT_EQ(tray->images.back(), "morvane_icon");
    EXPECT_EQ(tray->created, 1);
}

TEST_F(StatusBarTest, IconFilesFollowTheTrayType) {
    for (auto [type, normal, alert] :
         {std::tuple{1u, "morvane_icon_mono", "morvane_icon_alert_mono"},
          std::tuple{2u, "morvane_icon", "morvane_icon_alert"},
          std::tuple{3u, "morvane_icon_inverted", "morvane_icon_alert_inverted"}}) {
        tray = std::make_shared<test::RecordingStatusBar>();
        auto controller = make(type);
        controller->addStatusBar(false);
        ASSERT_EQ(tray->images, std::vector<std::string>{alert}) << type;
        controller->updateStatusMessage(0, true, true, false);
        EXPECT_EQ(tray->images.back(), normal) << type;
    }
}

TEST_F(StatusBarTest, TrayTypeZeroMakesNothingUntilAStatusArrives) {
    auto controller = make(0);
    controller->addStatusBar(true);
    EXPECT_EQ(tray->created, 0);
    EXPECT_TRUE(tray->images.empty());
    EXPECT_FALSE(controller->externalIpItem);
    controller->updateStatusMenuItem(true);
    EXPECT_EQ(tray->created, 1);
    EXPECT_EQ(tray->images, std::vector<std::string>{"morvane_icon"});
}

TEST_F(StatusBarTest, TheMenuIsBuiltOnTheFirstClickInItsOrder) {
    auto controller = make();
    controller->addStatusBar(true);
    EXPECT_EQ(tray->menusSet, 0) << "no menu before the first click";
    ASSERT_TRUE(tray->click);
    tray->click();
    ASSERT_EQ(tray->menusSet, 1);
    EXPECT_EQ(titles(tray->menu),
              (std::vector<std::string>{"External IP: Empty", "Status: ", "Logs", "---",
                                        "Logging Debug Info", "Notifications Preferences...", "---",
                                        "About", "---"}));
    const auto& menu = tray->menu;
    EXPECT_FALSE(menu[0]->isEnabled());
    EXPECT_EQ(menu[0]->action(), MenuAction::none);
    // The extension was not accepted when the line was made: it leads to the security settings.
    EXPECT_TRUE(menu[1]->isEnabled());
    EXPECT_EQ(menu[1]->action(), MenuAction::showPrivacyPanel);
    ASSERT_EQ(menu[2]->submenu().size(), 1u);
    EXPECT_EQ(menu[2]->submenu()[0]->title(), "Open App Support");
    EXPECT_EQ(menu[2]->submenu()[0]->action(), MenuAction::openAppSupport);
    EXPECT_EQ(menu[4]->action(), MenuAction::setLogDebug);
    EXPECT_FALSE(menu[4]->state());
    EXPECT_EQ(menu[5]->action(), MenuAction::authorizeNotification);
    // The service answers "authorized"; the mark is set on the main queue.
    EXPECT_TRUE(test::runMainLoopUntil([&] { return menu[5]->state(); }));
    EXPECT_EQ(menu[7]->action(), MenuAction::showAboutWindow);
    // Device key and user name are kept up to date but never shown.
    ASSERT_TRUE(controller->deviceKeyItem && controller->userNameItem);
    EXPECT_EQ(controller->deviceKeyItem->title(), "Device Key: ");
    EXPECT_EQ(controller->userNameItem->title(), "User Key: Retrieving");
}

TEST_F(StatusBarTest, AStatusLineMadeAfterTheExtensionWasAcceptedIsInert) {
    auto controller = make();
    controller->updateStatusMessage(0, true, true, false);
    ASSERT_TRUE(controller->statusItem);
    EXPECT_FALSE(controller->statusItem->isEnabled());
    EXPECT_EQ(controller->statusItem->action(), MenuAction::none);
    // Made once: a later refusal changes the title only.
    controller->updateStatusMessage(10, false, false, false);
    EXPECT_EQ(controller->statusItem->title(), "Status: Network Extension not installed.");
    EXPECT_FALSE(controller->statusItem->isEnabled());
}

TEST_F(StatusBarTest, ExternalAddressLineAndItsEffectOnTheStatus) {
    auto controller = make();
    controller->addStatusBar(true);
    controller->updateStatusMessage(1, false, false, false);
    EXPECT_EQ(controller->status, "Disconnected");

    controller->updateExternalIp("203.0.113.7");
    EXPECT_EQ(controller->externalIpItem->title(), "External IP: 203.0.113.7");
    EXPECT_EQ(controller->status, "Connected");
    EXPECT_EQ(controller->statusItem->title(), "Status: Disconnected")
        << "shown at the next update";

    // The same text again leaves the status alone.
    controller->status = "Bypassed";
    controller->updateExternalIp("203.0.113.7");
    EXPECT_EQ(controller->status, "Bypassed");

    // An empty address reads "Empty" and leaves the status as it was.
    controller->updateExternalIp("");
    EXPECT_EQ(controller->externalIpItem->title(), "External IP: Empty");
    EXPECT_EQ(controller->status, "Bypassed");
}

TEST_F(StatusBarTest, ANameOrKeyAlreadyShownLeavesTheItemAlone) {
    auto controller = make();
    controller->addStatusBar(true);
    int changes = 0;
    controller->userNameItem->onChange = [&changes](const ui::StatusMenuItem&) { ++changes; };
    controller->updateUserName("Retrieving");
    EXPECT_EQ(changes, 0);
    controller->updateUserName("alice");
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(controller->userNameItem->title(), "User Key: alice");
    EXPECT_FALSE(controller->userNameItem->isEnabled());
    controller->updateDeviceKey("DK-1");
    EXPECT_EQ(controller->deviceKeyItem->title(), "Device Key: DK-1");
}

TEST_F(StatusBarTest, DebugTitleByLevelSurvivesTheMenuBuild) {
    // The titles the change observer takes from the logger for each level.
    struct Row {
        LogLevel level;
        const char* title;
        bool enabled;
    };
    for (const auto& row :
         {Row{LogLevel::none, "No Debugging", false}, Row{LogLevel::warning, "warning", true},
          Row{LogLevel::production, "Logging Debug Info", true},
          Row{LogLevel::diagnose, "Log Diagnostic Info", true}}) {
        tray = std::make_shared<test::RecordingStatusBar>();
        auto controller = make();
        controller->addStatusBar(true);
        const DebugTitle title = TarnLogger::debugTitle(row.level);
        EXPECT_EQ(title.title, row.title);
        EXPECT_EQ(title.enabled, row.enabled);
        // Before the menu exists the item is made with that title, and the menu keeps it.
        controller->updateDebugMenu(title.title, title.enabled);
        tray->click();
        ASSERT_EQ(tray->menu[4], controller->logDebugItem);
        EXPECT_EQ(tray->menu[4]->title(), row.title);
        EXPECT_EQ(tray->menu[4]->state(), row.enabled);
        EXPECT_EQ(tray->menu[4]->action(), MenuAction::setLogDebug);
        // A later level changes the same item.
        controller->updateDebugMenu("Log Diagnostic Info", true);
        EXPECT_EQ(tray->menu[4]->title(), "Log Diagnostic Info");
    }
}

TEST_F(StatusBarTest, DebugToggleWritesTheDefaultAndReadsItBack) {
    auto controller = make();
    controller->addStatusBar(true);
    tray->click();
    tray->choose(MenuAction::setLogDebug);
    EXPECT_TRUE(controller->logDebugEnabled);
    EXPECT_TRUE(controller->logDebugItem->state());
    EXPECT_TRUE(defaults->boolForKey("LogDebug"));
    tray->choose(MenuAction::setLogDebug);
    EXPECT_FALSE(defaults->boolForKey("LogDebug"));

    defaults->setBool(true, "LogDebug");
    controller->updateLogDebug();
    EXPECT_TRUE(controller->logDebugItem->state());
}

TEST_F(StatusBarTest, NotificationEntryAsksOrOpensTheDesktopsSettings) {
    auto controller = make();
    controller->addStatusBar(true);
    tray->click();

    // Authorized: the entry opens the notification settings.
    tray->choose(MenuAction::authorizeNotification);
    EXPECT_EQ(tray->opened, std::vector<std::string>{
                                "x-apple.systempreferences:com.apple.preference.notifications"});

    // Not determined: authorization is asked with alert, badge and sound, and the answer is
    // logged whatever it was.
    center->status = ui::AuthorizationStatus::notDetermined;
    tray->choose(MenuAction::authorizeNotification);
    EXPECT_EQ(center->authorizationOptions, std::vector<int>{7});
    EXPECT_EQ(logLines.back(), "Application granted");
    EXPECT_EQ(tray->opened.size(), 1u);

    // The check mark follows the answer each time the menu opens.
    tray->willOpen();
    ASSERT_TRUE(test::runMainLoopUntil([&] { return !tray->menu[5]->state(); }));
    center->status = ui::AuthorizationStatus::authorized;
    tray->willOpen();
    ASSERT_TRUE(test::runMainLoopUntil([&] { return tray->menu[5]->state(); }));
}

TEST_F(StatusBarTest, PreferencePanesThatNothingOpensAreLogged) {
    auto controller = make();
    tray->opens = false;
    controller->showPrivacyPanel();
    EXPECT_EQ(tray->opened, std::vector<std::string>{
                                "x-apple.systempreferences:com.apple.preference.security?General"});
    ASSERT_FALSE(logLines.empty());
    EXPECT_EQ(logLines.back(),
              "Nothing on this desktop opens "
              "x-apple.systempreferences:com.apple.preference.security?General");
}

TEST_F(StatusBarTest, LogsFolderAndAboutPanel) {
    auto controller = make();
    controller->addStatusBar(true);
    tray->click();
    tray->choose(MenuAction::openAppSupport);
    const std::string expected = "file://" + (home.dataHome() / "MorvaneCloud").string();
    ASSERT_EQ(tray->opened.size(), 1u);
    EXPECT_EQ(tray->opened[0], expected);

    tray->choose(MenuAction::showAboutWindow);
    ASSERT_TRUE(tray->about.has_value());
    EXPECT_EQ(tray->about->at("ApplicationName"), "Morvane Cloud Tarn");
    EXPECT_EQ(tray->about->at("ApplicationVersion"), build::kVersion);
    EXPECT_EQ(tray->about->at("Version"), build::kBuildNumber);
}

TEST_F(StatusBarTest, TrayTypeChangesAddRestyleAndRemoveTheItem) {
    auto controller = make(0);
    controller->modifyTrayType(0);
    EXPECT_TRUE(logLines.empty()) << "the same type changes nothing";

    controller->modifyTrayType(2);
    EXPECT_EQ(logLines.back(), "Updating tray type from 0 to 2");
    EXPECT_EQ(tray->created, 1);
    EXPECT_TRUE(controller->statusItem) << "added with its status line";
    EXPECT_EQ(defaults->stringForKey("TRAY_TYPE"), "2");

    tray->click();
    controller->modifyTrayType(1);
    EXPECT_FALSE(controller->showNotificationsItem->state());
    EXPECT_EQ(tray->images.back(), "morvane_icon_mono");
    controller->modifyTrayType(3);
    EXPECT_TRUE(controller->showNotificationsItem->state());
    EXPECT_EQ(tray->images.back(), "morvane_icon_inverted");
    EXPECT_EQ(defaults->stringForKey("TRAY_TYPE"), "3");

    controller->modifyTrayType(0);
    EXPECT_EQ(tray->removed, 1);
    EXPECT_FALSE(controller->statusBarItem);
    EXPECT_EQ(defaults->stringForKey("TRAY_TYPE"), "0");
}

TEST_F(StatusBarTest, WithoutAStatusNotifierHostTheAgentSaysSoOnceAndRunsOn) {
    tray->hostAnswers = false;
    auto controller = make();
    controller->addStatusBar(true);
    auto second = make();
    second->addStatusBar(true);
    int said = 0;
    for (const auto& line : logLines) {
        said += line.starts_with("No status notifier host answers on this desktop") ? 1 : 0;
    }
    EXPECT_EQ(said, 1);
    ASSERT_TRUE(test::runMainLoopUntil([&] { return !center->requests.empty(); }));
    EXPECT_EQ(center->requests.size(), 1u);
    EXPECT_EQ(center->requests[0].identifier, "Tarn Notification");
    EXPECT_EQ(center->requests[0].content.title, "Tarn Status");
    // Everything else goes on: the status line still follows the codes.
    controller->updateStatusMessage(0, true, true, false);
    EXPECT_EQ(controller->statusItem->title(), "Status: Connected");
}

TEST_F(StatusBarTest, AddressNotificationsAndTheLocalRulesPanelHopToTheMainQueue) {
    auto controller = make();
    controller->addStatusBar(true);
    controller->externalIpUpdated(std::any(42));
    controller->externalIpUpdated(std::any(std::string("198.51.100.4")));
    EXPECT_EQ(controller->externalIP, "");
    ASSERT_TRUE(test::runMainLoopUntil([&] { return controller->externalIP == "198.51.100.4"; }));

    controller->showLocalRulesWindow();
    ASSERT_TRUE(test::runMainLoopUntil([&] { return !tray->panels.empty(); }));
    EXPECT_EQ(tray->panels, std::vector<std::string>{"LocalRulesWindow"});
}

TEST_F(StatusBarTest, DisconnectOnVPNIsReadAtConstructionAndToggled) {
    defaults->setBool(true, "disconnectOnVPN");
    auto controller = make();
    EXPECT_TRUE(controller->disconnectOnVPN);
    controller->toggleDisconnectOnVPN();
    EXPECT_FALSE(defaults->boolForKey("disconnectOnVPN"));
}

}  // namespace
}  // namespace morvane
