#include "platform/SleepWatch.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QObject>
#include <atomic>

#include "platform/MainQueue.h"

namespace morvane::platform {

namespace {

constexpr const char* kService = "org.freedesktop.login1";
constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kInterface = "org.freedesktop.login1.Manager";

std::atomic<int> connectionCount{0};

}  // namespace

class SleepWatch::Receiver : public QObject {
    Q_OBJECT

public:
    Receiver(Handlers handlers, const std::string& busAddress)
        : handlers_(std::move(handlers)),
          name_(QStringLiteral("morvane-sleep-watch-%1").arg(connectionCount.fetch_add(1))),
          bus_(busAddress.empty()
                   ? QDBusConnection::systemBus()
                   : QDBusConnection::connectToBus(QString::fromStdString(busAddress), name_)) {
        if (!bus_.isConnected()) {
            error_ = "no system bus: " + bus_.lastError().message().toStdString();
            return;
        }
        watching_ = bus_.connect(kService, kPath, kInterface, "PrepareForSleep", this,
                                 SLOT(prepareForSleep(bool)));
        if (!watching_) {
            error_ = "cannot watch PrepareForSleep: " + bus_.lastError().message().toStdString();
            return;
        }
        takeLock();
    }

    ~Receiver() override {
        if (watching_) {
            bus_.disconnect(kService, kPath, kInterface, "PrepareForSleep", this,
                            SLOT(prepareForSleep(bool)));
        }
        if (bus_.name() == name_) {
            QDBusConnection::disconnectFromBus(name_);
        }
    }

    bool watching_ = false;
    std::optional<std::string> error_;
    QDBusUnixFileDescriptor lock_;

public slots:
    void prepareForSleep(bool start) {
        if (start) {
            if (handlers_.willSleep) {
                handlers_.willSleep();
            }
            releaseAfterHandling();
        } else {
            takeLock();
            if (handlers_.didWake) {
                handlers_.didWake();
            }
        }
    }

private:
    // Asked without blocking: logind may be slow, and the main thread must go on meanwhile.
    void takeLock() {
        if (lock_.isValid() || asking_) {
            return;
        }
        auto call = QDBusMessage::createMethodCall(kService, kPath, kInterface, "Inhibit");
        call << QStringLiteral("sleep") << QStringLiteral("MorvaneCloud")
             << QStringLiteral("Apply the DNS policy before the machine sleeps")
             << QStringLiteral("delay");
        asking_ = true;
        auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this,
                         [this](QDBusPendingCallWatcher* finished) {
                             asking_ = false;
                             const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *finished;
                             if (reply.isValid() && reply.value().isValid()) {
                                 lock_ = reply.value();
                                 error_.reset();
                             } else {
                                 error_ =
                                     "no inhibitor lock: " + reply.error().message().toStdString();
                             }
                             finished->deleteLater();
                         });
    }

    // The willSleep handler publishes through the main queue, which posts again to deliver;
    // the change loop runs inside that delivery. Three rounds of the main queue later, all of
    // it has run, and the lock can go.
    void releaseAfterHandling(int rounds = 3) {
        MainQueue::async([this, rounds, alive = std::weak_ptr<bool>(alive_)] {
            if (alive.expired()) {
                return;
            }
            if (rounds > 1) {
                releaseAfterHandling(rounds - 1);
            } else {
                lock_ = QDBusUnixFileDescriptor();
            }
        });
    }

    Handlers handlers_;
    bool asking_ = false;
    QString name_;
    QDBusConnection bus_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

SleepWatch::SleepWatch(Handlers handlers, const std::string& busAddress)
    : receiver_(std::make_unique<Receiver>(std::move(handlers), busAddress)) {}

SleepWatch::~SleepWatch() = default;

bool SleepWatch::isWatching() const {
    return receiver_->watching_;
}

bool SleepWatch::holdsLock() const {
    return receiver_->lock_.isValid();
}

std::optional<std::string> SleepWatch::error() const {
    return receiver_->error_;
}

}  // namespace morvane::platform

#include "SleepWatch.moc"
