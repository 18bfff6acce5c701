#include "ui/QtStatusBar.h"

#include <QAction>
#include <QApplication>
#include <QCursor>
#include <QDesktopServices>
#include <QFile>
#include <QGuiApplication>
#include <QMenu>
#include <QMessageBox>
#include <QProcess>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QUrl>

#include "ui/LocalRulesPanel.h"
#include "ui/PreferencePanes.h"

namespace morvane::ui {

namespace {

bool hasWidgets() {
    return qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr;
}

QString text(const std::string& value) {
    return QString::fromStdString(value);
}

bool testerAsked() {
    return qEnvironmentVariable("MORVANECLOUD_LOCAL_RULES") == QLatin1String("1") ||
           QGuiApplication::queryKeyboardModifiers().testFlag(Qt::ShiftModifier);
}

}  // namespace

std::shared_ptr<StatusBarPlatform> QtStatusBar::make() {
    return std::make_shared<QtStatusBar>();
}

std::shared_ptr<StatusBarPlatform> StatusBarPlatform::makeDefault() {
    return QtStatusBar::make();
}

QtStatusBar::QtStatusBar() = default;

QtStatusBar::~QtStatusBar() {
    delete tray_.data();
    delete menu_.data();
    delete panel_.data();
    delete about_.data();
}

QString QtStatusBar::iconPath(const std::string& imageName) {
    // The application's own icon lives in the icon theme; the tray's marks in the program's
    // data folder.
    const QString name = text(imageName);
    const QString file = name == QLatin1String("morvanecloud")
                             ? QStringLiteral("icons/hicolor/scalable/apps/morvanecloud.svg")
                             : QStringLiteral("morvanecloud/icons/%1.svg").arg(name);
    const QString installed = QStandardPaths::locate(QStandardPaths::GenericDataLocation, file);
    if (!installed.isEmpty()) {
        return installed;
    }
    return QStringLiteral(":/icons/%1.svg").arg(name);
}

bool QtStatusBar::createStatusItem(ClickHandler onClick) {
    onClick_ = std::move(onClick);
    if (!hasWidgets()) {
        return false;
    }
    if (!tray_) {
        tray_ = new QSystemTrayIcon();
        QObject::connect(
            tray_, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason != QSystemTrayIcon::Trigger && reason != QSystemTrayIcon::Context) {
                    return;
                }
                if (!menu_ && onClick_) {
                    onClick_();
                }
                if (reason == QSystemTrayIcon::Trigger) {
                    popUpMenu();
                }
            });
    }
    tray_->setToolTip(QStringLiteral("MorvaneCloud"));
    if (tray_->icon().isNull()) {
        tray_->setIcon(QIcon(iconPath("morvane_icon_alert")));
    }
    tray_->show();
    return QSystemTrayIcon::isSystemTrayAvailable();
}

void QtStatusBar::setImage(const std::string& imageName) {
    if (tray_) {
        tray_->setIcon(QIcon(iconPath(imageName)));
    }
}

void QtStatusBar::fillMenu(QMenu* menu, const StatusMenu& items) {
    for (const auto& item : items) {
        if (item->isSeparator()) {
            menu->addSeparator();
            continue;
        }
        if (!item->submenu().empty()) {
            QMenu* submenu = menu->addMenu(text(item->title()));
            submenu->setEnabled(item->isEnabled());
            fillMenu(submenu, item->submenu());
            continue;
        }
        QAction* action = menu->addAction(text(item->title()));
        const bool checkable = item->action() == MenuAction::setLogDebug ||
                               item->action() == MenuAction::authorizeNotification || item->state();
        action->setCheckable(checkable);
        action->setChecked(item->state());
        action->setEnabled(item->isEnabled());
        QPointer<QAction> guarded(action);
        item->onChange = [guarded](const StatusMenuItem& changed) {
            if (guarded) {
                guarded->setText(text(changed.title()));
                guarded->setEnabled(changed.isEnabled());
                guarded->setCheckable(guarded->isCheckable() || changed.state());
                guarded->setChecked(changed.state());
            }
        };
        std::weak_ptr<StatusMenuItem> weakItem = item;
        QObject::connect(action, &QAction::triggered, this, [this, weakItem, guarded] {
            auto chosen = weakItem.lock();
            if (!chosen) {
                return;
            }
            // A checkable entry flips its own mark when chosen; the controller decides it.
            if (guarded) {
                guarded->setChecked(chosen->state());
            }
            if (onAction_) {
                onAction_(chosen->action());
            }
        });
    }
}

void QtStatusBar::setMenu(const StatusMenu& items, std::function<void(MenuAction)> onAction,
                          std::function<void()> onWillOpen) {
    if (!hasWidgets()) {
        return;
    }
    onAction_ = std::move(onAction);
    onWillOpen_ = std::move(onWillOpen);
    items_ = items;
    QMenu* menu = new QMenu();
    fillMenu(menu, items);
    QObject::connect(menu, &QMenu::aboutToShow, this, [this] {
        addTesterEntries();
        if (onWillOpen_) {
            onWillOpen_();
        }
    });
    if (tray_) {
        tray_->setContextMenu(menu);
    }
    delete menu_.data();
    menu_ = menu;
}

void QtStatusBar::addTesterEntries() {
    if (!menu_) {
        return;
    }
    const QString title = QStringLiteral("Local Rules...");
    QAction* existing = nullptr;
    for (QAction* action : menu_->actions()) {
        if (action->text() == title) {
            existing = action;
        }
    }
    if (!testerAsked()) {
        delete existing;
        return;
    }
    if (existing == nullptr) {
        QAction* entry = menu_->addAction(title);
        QObject::connect(entry, &QAction::triggered, this, [this] {
            if (onAction_) {
                onAction_(MenuAction::showLocalRulesWindow);
            }
        });
    }
}

void QtStatusBar::popUpMenu() {
    if (menu_) {
        menu_->popup(QCursor::pos());
    }
}

void QtStatusBar::removeStatusItem() {
    if (tray_) {
        tray_->hide();
        tray_->deleteLater();
        tray_ = nullptr;
    }
}

bool QtStatusBar::openURL(const std::string& url) {
    const QString address = text(url);
    if (address.startsWith(QLatin1String("x-apple.systempreferences:"))) {
        const auto command = preferencePaneCommand(
            url, qEnvironmentVariable("XDG_CURRENT_DESKTOP").toStdString(),
            [](const std::string& program) {
                return !QStandardPaths::findExecutable(text(program)).isEmpty();
            });
        if (!command) {
            return false;
        }
        QStringList arguments;
        for (std::size_t i = 1; i < command->size(); ++i) {
            arguments << text((*command)[i]);
        }
        return QProcess::startDetached(text(command->front()), arguments);
    }
    return QDesktopServices::openUrl(QUrl(address));
}

void QtStatusBar::showAboutPanel(const std::map<std::string, std::string>& options) {
    if (!hasWidgets()) {
        return;
    }
    auto option = [&options](const char* key) {
        const auto found = options.find(key);
        return found == options.end() ? QString() : text(found->second);
    };
    delete about_.data();
    auto* box =
        new QMessageBox(QMessageBox::NoIcon, QStringLiteral("About ") + option("ApplicationName"),
                        QString(), QMessageBox::Ok);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setIconPixmap(QIcon(iconPath("morvanecloud")).pixmap(64, 64));
    box->setText(QStringLiteral("<b>%1</b>").arg(option("ApplicationName").toHtmlEscaped()));
    box->setInformativeText(
        QStringLiteral("Version %1 (%2)").arg(option("ApplicationVersion"), option("Version")));
    box->setModal(false);
    box->setWindowFlag(Qt::WindowStaysOnTopHint);
    about_ = box;
    box->show();
    box->raise();
    box->activateWindow();
}

void QtStatusBar::showPanel(const std::string& panelName) {
    if (!hasWidgets() || panelName != "LocalRulesWindow") {
        return;
    }
    if (!panel_) {
        panel_ = new LocalRulesPanel();
    }
    // Above other applications' windows, as a floating panel is.
    panel_->setWindowFlag(Qt::WindowStaysOnTopHint);
    panel_->show();
    panel_->raise();
    panel_->activateWindow();
}

}  // namespace morvane::ui
