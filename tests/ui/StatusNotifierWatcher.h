#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QStringList>

namespace morvane::test {

/// Stands in for the desktop's tray: the org.kde.StatusNotifierWatcher of a panel, with a
/// host registered, so that Qt shows its tray icon as a StatusNotifierItem on the test's
/// private session bus. No Debian package offers a watcher and host that run without a whole
/// desktop panel. It only records the items that register.
class StatusNotifierWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredItems)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)

public:
    explicit StatusNotifierWatcher(QDBusConnection connection)
        : connection_(std::move(connection)) {}

    /// Takes the watcher's name and object path, and registers a host; false when the bus
    /// refuses.
    bool publish() {
        return connection_.registerObject(QStringLiteral("/StatusNotifierWatcher"), this,
                                          QDBusConnection::ExportAllContents) &&
               connection_.registerService(QStringLiteral("org.kde.StatusNotifierWatcher")) &&
               connection_.registerService(QStringLiteral("org.kde.StatusNotifierHost-test"));
    }

    QStringList registeredItems() const { return items_; }
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }

public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString& service) {
        if (!items_.contains(service)) {
            items_ << service;
            Q_EMIT StatusNotifierItemRegistered(service);
        }
    }
    void RegisterStatusNotifierHost(const QString&) { Q_EMIT StatusNotifierHostRegistered(); }

Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString& service);
    void StatusNotifierItemUnregistered(const QString& service);
    void StatusNotifierHostRegistered();

private:
    QDBusConnection connection_;
    QStringList items_;
};

}  // namespace morvane::test
