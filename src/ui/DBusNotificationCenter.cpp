#include "ui/DBusNotificationCenter.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QStringList>
#include <QVariantMap>
#include <mutex>

#include "platform/MainQueue.h"

namespace morvane::ui {

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kInterface = QStringLiteral("org.freedesktop.Notifications");

std::mutex currentMutex;
std::shared_ptr<UserNotificationCenter> currentCenter;

QString reason(const QDBusError& error) {
    return QStringLiteral("Local notification not delivered: %1: %2")
        .arg(error.name(), error.message());
}

}  // namespace

std::shared_ptr<UserNotificationCenter> UserNotificationCenter::current() {
    std::lock_guard lock(currentMutex);
    if (!currentCenter) {
        currentCenter = DBusNotificationCenter::make();
    }
    return currentCenter;
}

void UserNotificationCenter::setCurrent(std::shared_ptr<UserNotificationCenter> center) {
    std::lock_guard lock(currentMutex);
    currentCenter = std::move(center);
}

std::shared_ptr<DBusNotificationCenter> DBusNotificationCenter::make(QDBusConnection connection) {
    return std::make_shared<DBusNotificationCenter>(std::move(connection));
}

DBusNotificationCenter::DBusNotificationCenter(QDBusConnection connection)
    : connection_(std::move(connection)) {}

void DBusNotificationCenter::listenForClosedNotices() {
    if (listening_ || !connection_.isConnected()) {
        return;
    }
    listening_ =
        connection_.connect(kService, kPath, kInterface, QStringLiteral("NotificationClosed"), this,
                            SLOT(onNotificationClosed(uint, uint)));
}

void DBusNotificationCenter::onNotificationClosed(uint id, uint) {
    for (auto it = ids_.begin(); it != ids_.end();) {
        it = it->second == id ? ids_.erase(it) : std::next(it);
    }
}

unsigned DBusNotificationCenter::lastId(const std::string& identifier) const {
    const auto found = ids_.find(identifier);
    return found == ids_.end() ? 0 : found->second;
}

void DBusNotificationCenter::getNotificationSettings(SettingsHandler handler) {
    requestAuthorization(
        0, [handler = std::move(handler)](bool answered, std::optional<std::string>) {
            handler(NotificationSettings{answered ? AuthorizationStatus::authorized
                                                  : AuthorizationStatus::notDetermined});
        });
}

void DBusNotificationCenter::requestAuthorization(int, AuthorizationHandler handler) {
    // There is no one to ask: a service that answers shows what it is sent.
    const QDBusMessage call = QDBusMessage::createMethodCall(
        kService, kPath, kInterface, QStringLiteral("GetServerInformation"));
    auto* watcher = new QDBusPendingCallWatcher(connection_.asyncCall(call), this);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this,
                     [handler = std::move(handler)](QDBusPendingCallWatcher* finished) {
                         finished->deleteLater();
                         const QDBusMessage reply = finished->reply();
                         if (reply.type() == QDBusMessage::ErrorMessage) {
                             handler(false, reason(finished->error()).toStdString());
                         } else {
                             handler(true, std::nullopt);
                         }
                     });
}

void DBusNotificationCenter::add(NotificationRequest request, AddHandler handler) {
    std::weak_ptr<DBusNotificationCenter> weak = shared_from_this();
    platform::MainQueue::after(request.delay, [weak, request = std::move(request),
                                               handler = std::move(handler)]() mutable {
        if (auto self = weak.lock()) {
            self->notify(request, std::move(handler));
        } else if (handler) {
            handler("Local notification not delivered: the notification centre is gone");
        }
    });
}

void DBusNotificationCenter::notify(const NotificationRequest& request, AddHandler handler) {
    listenForClosedNotices();
    const auto& content = request.content;
    // The desktop's notices have a summary and a body: the subtitle leads the body.
    QString body = QString::fromStdString(content.body);
    if (!content.subtitle.empty()) {
        body = QString::fromStdString(content.subtitle) +
               (body.isEmpty() ? QString() : QStringLiteral("\n") + body);
    }
    QVariantMap hints;
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("morvanecloud"));
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue(uchar(1)));
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    call << QStringLiteral("MorvaneCloud") << uint(lastId(request.identifier))
         << QStringLiteral("morvanecloud") << QString::fromStdString(content.title) << body
         << QStringList() << hints << int(-1);
    auto* watcher = new QDBusPendingCallWatcher(connection_.asyncCall(call), this);
    std::weak_ptr<DBusNotificationCenter> weak = shared_from_this();
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this,
                     [weak, identifier = request.identifier,
                      handler = std::move(handler)](QDBusPendingCallWatcher* finished) {
                         finished->deleteLater();
                         QDBusPendingReply<uint> reply = *finished;
                         if (reply.isError()) {
                             if (handler) {
                                 handler(reason(reply.error()).toStdString());
                             }
                             return;
                         }
                         if (auto self = weak.lock()) {
                             self->ids_[identifier] = reply.value();
                         }
                         if (handler) {
                             handler(std::nullopt);
                         }
                     });
}

}  // namespace morvane::ui
