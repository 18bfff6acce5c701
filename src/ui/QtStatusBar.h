#pragma once

#include <QObject>
#include <QPointer>
#include <memory>

#include "ui/StatusBarPlatform.h"

class QMenu;
class QSystemTrayIcon;
class QWidget;

namespace morvane::ui {

/// The status item as a StatusNotifierItem through QSystemTrayIcon, its menu as a QMenu, and
/// the about panel and the local rules panel as widgets. Without a widget application (a run
/// over SSH or under a service manager) nothing is shown and `createStatusItem` says so.
///
/// A left click opens the menu at once. Held with Shift, or with MORVANECLOUD_LOCAL_RULES=1
/// in the agent's environment, the menu also offers "Local Rules...", the tester's way to the
/// local rules panel.
class QtStatusBar : public QObject, public StatusBarPlatform {
public:
    static std::shared_ptr<StatusBarPlatform> make();
    QtStatusBar();
    ~QtStatusBar() override;

    bool createStatusItem(ClickHandler onClick) override;
    void setImage(const std::string& imageName) override;
    void setMenu(const StatusMenu& menu, std::function<void(MenuAction)> onAction,
                 std::function<void()> onWillOpen) override;
    void removeStatusItem() override;
    bool openURL(const std::string& url) override;
    void showAboutPanel(const std::map<std::string, std::string>& options) override;
    void showPanel(const std::string& panelName) override;

    /// For tests and screenshots: the menu as last set, and the panels made so far.
    QMenu* menu() const { return menu_.data(); }
    QSystemTrayIcon* trayIcon() const { return tray_.data(); }
    QWidget* panel() const { return panel_.data(); }
    /// The file behind an image name: the installed copy (share/morvanecloud/icons, or the
    /// icon theme for the application's own icon), else the one built in.
    static QString iconPath(const std::string& imageName);

private:
    void fillMenu(QMenu* menu, const StatusMenu& items);
    void addTesterEntries();
    void popUpMenu();

    QPointer<QSystemTrayIcon> tray_;
    QPointer<QMenu> menu_;
    QPointer<QWidget> panel_;
    QPointer<QWidget> about_;
    ClickHandler onClick_;
    std::function<void(MenuAction)> onAction_;
    std::function<void()> onWillOpen_;
    StatusMenu items_;
};

}  // namespace morvane::ui
