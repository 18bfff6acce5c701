#pragma once

#include <QDBusConnection>
#include <QObject>
#include <map>
#include <memory>
#include <string>

#include "ui/UserNotificationCenter.h"

namespace morvane::ui {

/// The desktop's notification service, org.freedesktop.Notifications on the session bus.
/// Each identifier keeps the id the service gave its last notice, and a newer notice of the
/// identifier is sent to replace it; a notice the service reports closed is forgotten.
///
/// The service asks the user nothing: notices are authorized while a service answers, and not
/// determined while none does (a request is still made, and fails). None of the desktops
/// lets the agent see that the user silenced it, so `denied` never comes from here.
class DBusNotificationCenter : public QObject,
                               public UserNotificationCenter,
                               public std::enable_shared_from_this<DBusNotificationCenter> {
    Q_OBJECT

public:
    static std::shared_ptr<DBusNotificationCenter> make(
        QDBusConnection connection = QDBusConnection::sessionBus());
    explicit DBusNotificationCenter(QDBusConnection connection);

    void getNotificationSettings(SettingsHandler handler) override;
    void requestAuthorization(int options, AuthorizationHandler handler) override;
    void add(NotificationRequest request, AddHandler handler) override;

    /// The service's id of the last notice of an identifier; 0 when there is none.
    unsigned lastId(const std::string& identifier) const;

private:
    void listenForClosedNotices();
    void notify(const NotificationRequest& request, AddHandler handler);

private Q_SLOTS:
    void onNotificationClosed(uint id, uint reason);

private:
    QDBusConnection connection_;
    bool listening_ = false;
    std::map<std::string, unsigned> ids_;
};

}  // namespace morvane::ui
