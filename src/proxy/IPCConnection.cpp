#include "proxy/IPCConnection.h"

#include "platform/MainQueue.h"
#include "sys/MessageClient.h"
#include "sys/UnixSocket.h"

namespace morvane {

std::shared_ptr<IPCConnection> IPCConnection::shared() {
    static const auto instance = std::make_shared<IPCConnection>();
    return instance;
}

IPCConnection::IPCConnection(std::optional<std::filesystem::path> directory,
                             std::chrono::milliseconds timeout)
    : directory_(std::move(directory)),
      timeout_(timeout),
      queue_(platform::DispatchQueue::create("IPCConnection.queue")) {}

IPCConnection::~IPCConnection() = default;

bool IPCConnection::isRegistered() const {
    std::lock_guard lock(mutex_);
    return currentConnection_ != nullptr;
}

std::shared_ptr<AppCommunication> IPCConnection::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void IPCConnection::registerWithProvider(const std::optional<ExtensionBundle>& bundle,
                                         std::weak_ptr<AppCommunication> delegate,
                                         std::function<void(const std::string&)> completion) {
    std::shared_ptr<sys::MessageClient> connection;
    {
        std::lock_guard lock(mutex_);
        delegate_ = std::move(delegate);
        connection = currentConnection_;
    }
    if (connection) {
        log.notice("Already registered with the provider");
        if (completion) {
            completion("already registered");
        }
        return;
    }
    const auto serviceName = bundle ? machServiceName(*bundle) : std::nullopt;
    if (!serviceName) {
        // No name, no socket: nothing is opened, and the next registration looks again.
        const std::string reason = bundle ? "Mach service name is missing from the Info.plist"
                                          : "the provider's bundle is missing or damaged";
        log.notice(reason);
        if (completion) {
            completion("Failed to register with the provider: " + reason + ")");
        }
        return;
    }
    const auto directory = directory_.value_or(sys::runtimeDirectory());
    connection = std::make_shared<sys::MessageClient>(directory / *serviceName);
    std::weak_ptr<IPCConnection> weakSelf = weak_from_this();
    connection->setUpwardHandler(
        [weakSelf](const std::string& message, const nlohmann::json& arguments) {
            if (auto self = weakSelf.lock()) {
                self->deliverUpward(message, arguments);
            }
        });
    {
        std::lock_guard lock(mutex_);
        currentConnection_ = connection;
    }
    queue_->async([weakSelf, connection, completion, timeout = timeout_] {
        std::string failure;
        const auto reply =
            connection->call("register:", nlohmann::json::object(), timeout, failure);
        std::string text;
        if (reply && reply->contains("text") && (*reply)["text"].is_string()) {
            text = (*reply)["text"].get<std::string>();
        } else {
            if (reply) {
                failure = "the provider's reply holds no text";
            }
            if (auto self = weakSelf.lock()) {
                self->log.notice("Failed to register with the provider: " + failure);
                self->dropConnection(connection);
            }
            text = "Failed to register with the provider: " + failure + ")";
        }
        if (completion) {
            completion(text);
        }
    });
}

void IPCConnection::dropConnection(const std::shared_ptr<sys::MessageClient>& connection) {
    {
        std::lock_guard lock(mutex_);
        if (currentConnection_ == connection) {
            currentConnection_.reset();
        }
    }
    connection->close();
}

void IPCConnection::deliverUpward(const std::string& message, const nlohmann::json& arguments) {
    if (message == "proxyStoppedWithReason:") {
        const auto reason = arguments.find("reason");
        if (reason == arguments.end() || !reason->is_number_integer()) {
            log.notice("The provider's stop carries no reason: " + arguments.dump());
            return;
        }
        const long long value = reason->get<long long>();
        std::weak_ptr<IPCConnection> weakSelf = weak_from_this();
        platform::MainQueue::async([weakSelf, value] {
            auto self = weakSelf.lock();
            if (auto receiver = self ? self->delegate() : nullptr) {
                receiver->proxyStoppedWithReason(value);
            }
        });
    } else if (message == "connectionErrorWithReason:") {
        const auto found = arguments.find("error");
        auto error = found == arguments.end() ? std::nullopt : ProxyError::fromJson(*found);
        if (!error) {
            log.notice("The provider's connection error is not an error: " + arguments.dump());
            return;
        }
        std::weak_ptr<IPCConnection> weakSelf = weak_from_this();
        platform::MainQueue::async([weakSelf, error = *error] {
            auto self = weakSelf.lock();
            if (auto receiver = self ? self->delegate() : nullptr) {
                receiver->connectionErrorWithReason(error);
            }
        });
    } else {
        log.notice("The provider sent an unknown call: " + message);
    }
}

}  // namespace morvane
