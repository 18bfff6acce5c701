#include "proxy/SystemdActivation.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <filesystem>
#include <functional>

#include "platform/DispatchQueue.h"
#include "platform/MainQueue.h"

namespace morvane {

namespace {

const QString kService = QStringLiteral("org.freedesktop.systemd1");
const QString kManagerPath = QStringLiteral("/org/freedesktop/systemd1");
const QString kManager = QStringLiteral("org.freedesktop.systemd1.Manager");

ProxyError errorOf(const QDBusError& error) {
    const auto name = error.name().toStdString();
    long long code = proxy_error::kUnknown;
    if (name == "org.freedesktop.systemd1.NoSuchUnit" ||
        name == "org.freedesktop.DBus.Error.ServiceUnknown") {
        code = proxy_error::kExtensionNotFound;
    } else if (name == "org.freedesktop.DBus.Error.AccessDenied" ||
               name == "org.freedesktop.DBus.Error.InteractiveAuthorizationRequired") {
        code = proxy_error::kAuthorizationRequired;
    }
    return ProxyError{proxy_error::kExtensionDomain, code, error.message().toStdString(),
                      nlohmann::json{{"dbusError", name}}};
}

}  // namespace

struct SystemdActivation::Request {
    Kind kind;
    std::weak_ptr<ExtensionRequestDelegate> delegate;
    std::chrono::steady_clock::time_point deadline;

    std::string description() const {
        return std::string(kind == Kind::activation ? "StartUnit" : "StopUnit") + " " + kUnit;
    }
};

SystemdActivation::SystemdActivation(std::chrono::milliseconds settleTimeout)
    : settleTimeout_(settleTimeout) {}

bool SystemdActivation::available() {
    std::error_code error;
    if (!std::filesystem::is_directory("/run/systemd/system", error)) {
        return false;
    }
    return QDBusConnection::systemBus().isConnected();
}

std::string SystemdActivation::name() const {
    return std::string("systemd unit ") + kUnit + " over the system bus";
}

void SystemdActivation::submitRequest(Kind kind, const std::string&,
                                      std::weak_ptr<ExtensionRequestDelegate> delegate) {
    auto request = std::make_shared<Request>(
        Request{kind, std::move(delegate), std::chrono::steady_clock::now() + settleTimeout_});
    call(std::move(request), false);
}

void SystemdActivation::call(std::shared_ptr<Request> request, bool interactive) {
    auto bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        finish(request, ProxyError{proxy_error::kExtensionDomain, proxy_error::kUnknown,
                                   "The system bus does not answer: " +
                                       bus.lastError().message().toStdString(),
                                   nlohmann::json::object()});
        return;
    }
    auto message = QDBusMessage::createMethodCall(kService, kManagerPath, kManager,
                                                  request->kind == Kind::activation
                                                      ? QStringLiteral("StartUnit")
                                                      : QStringLiteral("StopUnit"));
    message << QString::fromLatin1(kUnit) << QStringLiteral("replace");
    message.setInteractiveAuthorizationAllowed(interactive);
    // Asking someone takes as long as they take; polkit gives up on its own.
    const int timeout = interactive ? 10 * 60 * 1000 : 25 * 1000;
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(message, timeout));
    std::weak_ptr<SystemdActivation> weakSelf = weak_from_this();
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished,
                     [weakSelf, request, interactive](QDBusPendingCallWatcher* done) {
                         done->deleteLater();
                         auto self = weakSelf.lock();
                         if (!self) {
                             return;
                         }
                         QDBusPendingReply<QDBusObjectPath> reply = *done;
                         if (!reply.isError()) {
                             self->poll(request);
                             return;
                         }
                         const auto error = reply.error();
                         if (!interactive &&
                             error.name() == QStringLiteral("org.freedesktop.DBus.Error."
                                                            "InteractiveAuthorizationRequired")) {
                             if (request->kind == Kind::activation) {
                                 if (auto receiver = request->delegate.lock()) {
                                     receiver->requestNeedsUserApproval();
                                 }
                             }
                             self->call(request, true);
                             return;
                         }
                         self->finish(request, errorOf(error));
                     });
}

namespace {

/// Calls a method without blocking the main thread; `done` gets the reply on the main thread.
void callAsync(const QDBusMessage& message, std::function<void(const QDBusMessage&)> done) {
    auto* watcher =
        new QDBusPendingCallWatcher(QDBusConnection::systemBus().asyncCall(message, 10000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished,
                     [done = std::move(done)](QDBusPendingCallWatcher* finished) {
                         finished->deleteLater();
                         done(finished->reply());
                     });
}

}  // namespace

void SystemdActivation::poll(std::shared_ptr<Request> request) {
    auto getUnit =
        QDBusMessage::createMethodCall(kService, kManagerPath, kManager, QStringLiteral("GetUnit"));
    getUnit << QString::fromLatin1(kUnit);
    std::weak_ptr<SystemdActivation> weakSelf = weak_from_this();
    callAsync(getUnit, [weakSelf, request](const QDBusMessage& unit) {
        auto self = weakSelf.lock();
        if (!self) {
            return;
        }
        if (unit.type() == QDBusMessage::ErrorMessage) {
            // A unit that is not loaded is as stopped as a unit can be.
            if (unit.errorName() == QStringLiteral("org.freedesktop.systemd1.NoSuchUnit")) {
                self->settle(request, "inactive");
            } else {
                self->finish(request, errorOf(QDBusError(unit)));
            }
            return;
        }
        const auto path = unit.arguments().value(0).value<QDBusObjectPath>().path();
        auto get = QDBusMessage::createMethodCall(kService, path,
                                                  QStringLiteral("org.freedesktop.DBus.Properties"),
                                                  QStringLiteral("Get"));
        get << QStringLiteral("org.freedesktop.systemd1.Unit") << QStringLiteral("ActiveState");
        callAsync(get, [weakSelf, request](const QDBusMessage& property) {
            auto inner = weakSelf.lock();
            if (!inner) {
                return;
            }
            if (property.type() == QDBusMessage::ErrorMessage) {
                inner->finish(request, errorOf(QDBusError(property)));
                return;
            }
            inner->settle(request, property.arguments()
                                       .value(0)
                                       .value<QDBusVariant>()
                                       .variant()
                                       .toString()
                                       .toStdString());
        });
    });
}

void SystemdActivation::settle(std::shared_ptr<Request> request, const std::string& state) {
    const bool activation = request->kind == Kind::activation;
    if ((activation && state == "active") ||
        (!activation && (state == "inactive" || state == "failed"))) {
        finish(request, std::nullopt);
        return;
    }
    if (activation && state == "failed") {
        finish(request, ProxyError{proxy_error::kExtensionDomain, proxy_error::kUnknown,
                                   std::string("The unit ") + kUnit + " failed to start",
                                   nlohmann::json{{"ActiveState", state}}});
        return;
    }
    if (std::chrono::steady_clock::now() >= request->deadline) {
        finish(request, ProxyError{proxy_error::kExtensionDomain, proxy_error::kUnknown,
                                   std::string("The unit ") + kUnit + " is still " + state,
                                   nlohmann::json{{"ActiveState", state}}});
        return;
    }
    std::weak_ptr<SystemdActivation> weakSelf = weak_from_this();
    platform::MainQueue::after(std::chrono::milliseconds(250), [weakSelf, request] {
        if (auto self = weakSelf.lock()) {
            self->poll(request);
        }
    });
}

void SystemdActivation::finish(const std::shared_ptr<Request>& request,
                               std::optional<ProxyError> error) {
    auto tell = [request, error] {
        auto receiver = request->delegate.lock();
        if (!receiver) {
            return;
        }
        if (error) {
            receiver->requestDidFailWithError(request->description(), *error);
        } else {
            receiver->requestDidFinishWithResult(request->description(), 0);
        }
    };
    if (request->kind == Kind::activation) {
        tell();
    } else {
        platform::DispatchQueue::global()->async(tell);
    }
}

}  // namespace morvane
