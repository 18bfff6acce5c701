// The user interface on a desktop of its own: Xvfb, a private session bus, the real
// notification daemon dunst, and a stand-in StatusNotifierWatcher (no Debian package has a
// headless one). The tray and the panel run in a second process of this executable with a
// widget application on the X server; screenshots land in <build>/ui-screenshots/.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QPushButton>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QWindow>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "core/Dependencies.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "core/TestData.h"
#include "platform/Files.h"
#include "platform/NotificationCenter.h"
#include "support/ChildProcess.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"
#include "ui/DBusNotificationCenter.h"
#include "ui/DesktopSession.h"
#include "ui/LocalRulesPanel.h"
#include "ui/QtStatusBar.h"
#include "ui/StatusNotifierWatcher.h"
#include "ui/TarnStatusBarController.h"
#include "ui/TarnUserNotification.h"

namespace morvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

fs::path screenshotFolder() {
    const fs::path folder = test::binaryDir() / "ui-screenshots";
    fs::create_directories(folder);
    return folder;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = 60s) {
    return test::runMainLoopUntil(condition, limit);
}

// Lets the X server draw what was just shown: a few turns of the loop after the window is
// exposed, with the server's answers in between.
void settle(QWidget* widget) {
    waitFor([widget] {
        return widget->windowHandle() != nullptr && widget->windowHandle()->isExposed();
    });
    for (int i = 0; i < 20; ++i) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 25);
    }
}

void services() {
    Dependencies::build({
        Service::global<TarnLogger>(),
        Service::global<TarnUserNotification>(),
        Service::global<TestData>(),
        Service::make<NotificationPublisher>(
            Service::LifeCycle::global,
            [](Dependencies&) {
                return std::make_shared<NotificationPublisher>(
                    NotificationPublisher{platform::NotificationCenter::defaultCenter()});
            }),
    });
}

int fail(const char* what) {
    std::fprintf(stderr, "tray_screenshots: %s\n", what);
    return 10;
}

// The agent's side: the tray icon, its menu opened as a click opens it, and the local rules
// panel with one accepted and one refused rule. Hands over to the host at "menu-ready" and
// waits for "host-done", serving the host's questions over the bus meanwhile.
MORVANE_CHILD_ROLE(tray_screenshots) {
    static int argc = 1;
    static char name[] = "ui_desktop_tests";
    static char* argv[] = {name, nullptr};
    QApplication app(argc, argv);
    services();
    const fs::path handshake = qEnvironmentVariable("MORVANE_HANDSHAKE").toStdString();
    const fs::path shots = qEnvironmentVariable("MORVANE_SHOTS").toStdString();
    test::writeFile(
        platform::applicationSupportDirectory() / "MorvaneCloud" / "device.json",
        R"({"id":1,"jsonrpc":"2.0","result":{"filters":[{"resolvers":["10.9.9.9"]}]}})");

    auto controller = std::make_shared<TarnStatusBarController>(2, false);
    auto* bar = dynamic_cast<ui::QtStatusBar*>(controller->platform.get());
    if (bar == nullptr) {
        return fail("the controller does not draw with QtStatusBar");
    }
    controller->addStatusBar(true);
    controller->updateStatusMessage(9, true, true, false);
    controller->updateExternalIp("203.0.113.7");
    controller->updateStatusMessage(0, true, true, false);
    controller->updateDeviceKey("DK-2417");
    controller->updateUserName("alice");
    controller->updateDebugMenu("Logging Debug Info", true);
    // The built-in icons draw (the SVG image plug-in is there), and the item shows the mark
    // of its tray type.
    QSystemTrayIcon* tray = bar->trayIcon();
    if (tray == nullptr || tray->icon().pixmap(22, 22).isNull()) {
        return fail("the tray icon has no image");
    }
    QPixmap sheet(6 * 56 + 8, 64);
    sheet.fill(QColor(0x80, 0x80, 0x80));
    {
        QPainter painter(&sheet);
        int x = 8;
        for (const char* image :
             {"morvane_icon", "morvane_icon_alert", "morvane_icon_mono", "morvane_icon_alert_mono",
              "morvane_icon_inverted", "morvane_icon_alert_inverted"}) {
            const QPixmap drawn = QIcon(ui::QtStatusBar::iconPath(image)).pixmap(48, 48);
            if (drawn.isNull()) {
                return fail(image);
            }
            painter.drawPixmap(x, 8, drawn);
            x += 56;
        }
    }
    sheet.save(QString::fromStdString((shots / "tray-icons.png").string()));
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        return fail("Qt sees no status notifier host");
    }
    // The first click builds the menu and installs it.
    controller->displayStatusMenu();
    if (!waitFor([&] { return controller->showNotificationsItem->state(); })) {
        return fail("the notification entry never showed dunst's answer");
    }
    QMenu* menu = bar->menu();
    if (menu == nullptr) {
        return fail("no menu after the click");
    }
    menu->popup(QPoint(620, 36));
    settle(menu);
    QGuiApplication::primaryScreen()->grabWindow(0).save(
        QString::fromStdString((shots / "status-menu-screen.png").string()));
    menu->grab().save(QString::fromStdString((shots / "status-menu.png").string()));

    test::writeFile(handshake / "menu-ready", "");
    if (!waitFor([&] { return fs::exists(handshake / "host-done"); })) {
        return fail("the host never finished");
    }
    menu->close();

    // The tester's way in: with MORVANECLOUD_LOCAL_RULES=1 the opened menu offers the panel.
    QAction* localRules = nullptr;
    for (QAction* action : menu->actions()) {
        if (action->text() == QLatin1String("Local Rules...")) {
            localRules = action;
        }
    }
    if (localRules == nullptr) {
        return fail("the opened menu has no Local Rules entry for the tester");
    }
    localRules->trigger();
    if (!waitFor([&] {
            QWidget* shown = bar->panel();
            return shown != nullptr && shown->isVisible();
        })) {
        return fail("the local rules panel did not open");
    }
    auto* panel = dynamic_cast<ui::LocalRulesPanel*>(bar->panel());
    if (panel == nullptr) {
        return fail("the panel is not the local rules panel");
    }
    panel->move(40, 40);
    panel->useFilterButton()->setChecked(true);
    panel->domainField()->setText(QStringLiteral("corp.example"));
    panel->ruleField()->setText(QStringLiteral("10.0.0.0/8"));
    panel->resolverField()->setText(QStringLiteral("10.0.0.53,10.0.0.54"));
    panel->setButton()->click();
    const auto held = Dependencies::shared()->resolve<TestData>()->testForwardingRules;
    if (!held || held->size() != 1 || panel->jsonField()->text().isEmpty()) {
        return fail("the panel did not take a good rule");
    }
    panel->resolverField()->setText(QStringLiteral("1.1.1.1, 8.8.8.8"));
    panel->setButton()->click();
    if (panel->errorLabel()->text() !=
        QLatin1String(LocalRulesWindowViewController::kInvalidResolvers)) {
        return fail("the panel took resolvers with a space");
    }
    settle(panel);
    panel->grab().save(QString::fromStdString((shots / "local-rules-panel.png").string()));

    // About, from the menu entry, with the version and build.
    controller->perform(ui::MenuAction::showAboutWindow);
    QWidget* about = nullptr;
    waitFor([&about] {
        for (QWidget* window : QApplication::topLevelWidgets()) {
            if (window->isVisible() &&
                window->windowTitle() == QLatin1String("About Morvane Cloud Tarn")) {
                about = window;
            }
        }
        return about != nullptr;
    });
    if (about == nullptr) {
        return fail("no About panel");
    }
    about->move(520, 300);
    settle(about);
    QGuiApplication::primaryScreen()->grabWindow(0).save(
        QString::fromStdString((shots / "local-rules-screen.png").string()));
    return 0;
}

// Takes a picture of the whole X screen.
MORVANE_CHILD_ROLE(screen_shot) {
    static int argc = 1;
    static char name[] = "ui_desktop_tests";
    static char* argv[] = {name, nullptr};
    QGuiApplication app(argc, argv);
    const QString file = qEnvironmentVariable("MORVANE_SHOT_FILE");
    return QGuiApplication::primaryScreen()->grabWindow(0).save(file) ? 0 : 1;
}

/// The labels of a dbusmenu layout as dbus-send prints it.
std::vector<std::string> labels(const std::string& printed) {
    std::vector<std::string> found;
    const std::string key = "string \"label\"";
    std::size_t at = 0;
    while ((at = printed.find(key, at)) != std::string::npos) {
        const auto open = printed.find("variant", at);
        const auto quote = printed.find('"', printed.find("string", open));
        const auto close = printed.find('"', quote + 1);
        if (open == std::string::npos || quote == std::string::npos || close == std::string::npos) {
            break;
        }
        found.push_back(printed.substr(quote + 1, close - quote - 1));
        at = close;
    }
    return found;
}

class DesktopTest : public ::testing::Test {
protected:
    void TearDown() override {
        ui::UserNotificationCenter::setCurrent(nullptr);
        if (!connectionName.isEmpty()) {
            QDBusConnection::disconnectFromBus(connectionName);
        }
    }

    QDBusConnection connect(const std::string& address, const QString& name) {
        connectionName = name;
        return QDBusConnection::connectToBus(QString::fromStdString(address), name);
    }

    bool daemonAnswers(QDBusConnection& bus) {
        return waitFor([&bus] {
            return bus.interface()
                ->isServiceRegistered(QStringLiteral("org.freedesktop.Notifications"))
                .value();
        });
    }

    test::DesktopSession desktop;
    QString connectionName;
};

TEST_F(DesktopTest, NotificationsReachDunstAndANewerOneReplacesTheOlder) {
    if (!desktop.startX() || !desktop.startBus() || !desktop.startNotificationDaemon()) {
        GTEST_SKIP() << desktop.failure();
    }
    QDBusConnection bus = connect(desktop.busAddress(), QStringLiteral("notifications"));
    ASSERT_TRUE(bus.isConnected());
    ASSERT_TRUE(daemonAnswers(bus)) << "dunst never took org.freedesktop.Notifications";
    auto center = ui::DBusNotificationCenter::make(bus);
    ui::UserNotificationCenter::setCurrent(center);

    std::optional<ui::NotificationSettings> settings;
    center->getNotificationSettings([&settings](ui::NotificationSettings s) { settings = s; });
    ASSERT_TRUE(waitFor([&] { return settings.has_value(); }));
    EXPECT_EQ(settings->authorizationStatus, ui::AuthorizationStatus::authorized);

    TarnUserNotification notification;
    std::optional<bool> first;
    notification.sendNotification(*settings, "Tarn Notification", "Network has connected",
                                  [&first](bool ok) { first = ok; });
    ASSERT_TRUE(waitFor([&] { return first.has_value(); }));
    EXPECT_TRUE(*first);
    const unsigned id = center->lastId("Tarn Notification");
    EXPECT_GT(id, 0u);

    std::optional<bool> second;
    notification.sendNotification(*settings, "Tarn Notification", "network has disconnected",
                                  [&second](bool ok) { second = ok; });
    ASSERT_TRUE(waitFor([&] { return second.has_value(); }));
    EXPECT_TRUE(*second);
    EXPECT_EQ(center->lastId("Tarn Notification"), id) << "the daemon replaced the first notice";

    // dunst's own count: one notice on screen, the replaced one gone.
    QDBusInterface dunst(QStringLiteral("org.freedesktop.Notifications"),
                         QStringLiteral("/org/freedesktop/Notifications"),
                         QStringLiteral("org.dunstproject.cmd0"), bus);
    const QVariant displayed = dunst.property("displayedLength");
    if (displayed.isValid()) {
        EXPECT_EQ(displayed.toUInt(), 1u);
    }
    auto env = desktop.environment();
    env["MORVANE_SHOT_FILE"] = (screenshotFolder() / "notification-screen.png").string();
    env["QT_QPA_PLATFORM"] = "xcb";
    // The picture is for a person to look at; the checks above stand without it.
    test::runChild("screen_shot", env);
}

TEST_F(DesktopTest, WithoutANotificationDaemonTheNoticeFails) {
    if (!desktop.startBus()) {
        GTEST_SKIP() << desktop.failure();
    }
    QDBusConnection bus = connect(desktop.busAddress(), QStringLiteral("no-daemon"));
    ASSERT_TRUE(bus.isConnected());
    auto center = ui::DBusNotificationCenter::make(bus);
    ui::UserNotificationCenter::setCurrent(center);

    std::optional<ui::NotificationSettings> settings;
    center->getNotificationSettings([&settings](ui::NotificationSettings s) { settings = s; });
    ASSERT_TRUE(waitFor([&] { return settings.has_value(); }));
    EXPECT_EQ(settings->authorizationStatus, ui::AuthorizationStatus::notDetermined);

    TarnUserNotification notification;
    std::optional<bool> heard;
    notification.sendNotification(*settings, "Tarn Notification", "Network has connected",
                                  [&heard](bool ok) { heard = ok; });
    ASSERT_TRUE(waitFor([&] { return heard.has_value(); }));
    EXPECT_FALSE(*heard) << "the change observer logs \"Local notifications failed\" on this";
    EXPECT_EQ(center->lastId("Tarn Notification"), 0u);
}

TEST_F(DesktopTest, TrayMenuAndRulesPanelOnAStatusNotifierHost) {
    if (!desktop.startX() || !desktop.startBus() || !desktop.startNotificationDaemon()) {
        GTEST_SKIP() << desktop.failure();
    }
    QDBusConnection bus = connect(desktop.busAddress(), QStringLiteral("tray-host"));
    ASSERT_TRUE(bus.isConnected());
    ASSERT_TRUE(daemonAnswers(bus));
    test::StatusNotifierWatcher watcher(bus);
    ASSERT_TRUE(watcher.publish());

    const fs::path handshake = desktop.folder() / "handshake";
    fs::create_directories(handshake);
    const fs::path shots = screenshotFolder();
    for (const char* file : {"status-menu.png", "status-menu-screen.png", "local-rules-panel.png",
                             "local-rules-screen.png"}) {
        fs::remove(shots / file);
    }
    auto env = desktop.environment();
    env["QT_QPA_PLATFORM"] = "xcb";
    env["XDG_DATA_HOME"] = (desktop.folder() / "data").string();
    env["MORVANE_HANDSHAKE"] = handshake.string();
    env["MORVANE_SHOTS"] = shots.string();
    env["MORVANECLOUD_LOCAL_RULES"] = "1";
    const int pid = test::startChild("tray_screenshots", env);
    ASSERT_GT(pid, 0);
    int status = -1;
    auto exited = [&] { return ::waitpid(pid, &status, WNOHANG) == pid; };

    bool ended = false;
    ASSERT_TRUE(waitFor(
        [&] {
            ended = ended || exited();
            return ended || fs::exists(handshake / "menu-ready");
        },
        120s));
    ASSERT_FALSE(ended) << "the tray process ended early with " << status;

    // As a panel would: the item that registered, and the menu it exports.
    ASSERT_EQ(watcher.registeredItems().size(), 1);
    const std::string item = watcher.registeredItems().front().toStdString();
    QDBusInterface itemInterface(QString::fromStdString(item),
                                 QStringLiteral("/StatusNotifierItem"),
                                 QStringLiteral("org.kde.StatusNotifierItem"), bus);
    const QString menuPath = itemInterface.property("Menu").value<QDBusObjectPath>().path();
    ASSERT_FALSE(menuPath.isEmpty());
    std::string layout;
    const int sent = test::runProgram(
        {"/usr/bin/dbus-send", "--bus=" + desktop.busAddress(), "--print-reply", "--dest=" + item,
         menuPath.toStdString(), "com.canonical.dbusmenu.GetLayout", "int32:0", "int32:-1",
         "array:string:"},
        {}, &layout);
    test::writeFile(handshake / "host-done", "");
    EXPECT_EQ(sent, 0) << layout;
    const auto shown = labels(layout);
    for (const char* expected :
         {"External IP: 203.0.113.7", "Status: Connected", "Logs", "Open App Support",
          "Logging Debug Info", "Notifications Preferences...", "About"}) {
        EXPECT_NE(std::find(shown.begin(), shown.end(), expected), shown.end())
            << expected << " is not in the menu " << item << " exports at "
            << menuPath.toStdString() << " (dbus-send: " << sent << "):\n"
            << layout;
    }

    ASSERT_TRUE(waitFor([&] { return exited(); }, 120s));
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the tray process says why on its standard error";
    for (const char* file : {"status-menu.png", "status-menu-screen.png", "local-rules-panel.png",
                             "local-rules-screen.png", "tray-icons.png"}) {
        EXPECT_TRUE(fs::exists(shots / file) && fs::file_size(shots / file) > 1000) << file;
    }
}

}  // namespace
}  // namespace morvane
