#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/DispatchQueue.h"
#include "proxy/ProviderLink.h"
#include "proxy/ProxySystemLog.h"

namespace morvane::sys {
class MessageClient;
}

namespace morvane {

/// The application's end of the provider link: a connection to the socket that the
/// provider's bundle names under "NEMachServiceName", in the run-time folder. Registration
/// opens it; the provider's calls on it (a stop, a connection error) are handed to the
/// delegate on the main queue.
///
/// As on its original platform, the connection has no end handler: one that dies without a
/// failed message stays, and later registrations answer "already registered".
class IPCConnection : public ProviderLink, public std::enable_shared_from_this<IPCConnection> {
public:
    /// The process-wide instance, made on first use.
    static std::shared_ptr<IPCConnection> shared();

    /// Sockets are looked up in `directory` (the run-time folder by default).
    explicit IPCConnection(std::optional<std::filesystem::path> directory = std::nullopt,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10));
    ~IPCConnection() override;

    void registerWithProvider(const std::optional<ExtensionBundle>& bundle,
                              std::weak_ptr<AppCommunication> delegate,
                              std::function<void(const std::string&)> completion) override;

    /// Registered: a connection is held.
    bool isRegistered() const;
    std::shared_ptr<AppCommunication> delegate() const;

    const ProxySystemLog log{"com.lorvex.tarn.TarnDNSProxy", "app"};

private:
    void deliverUpward(const std::string& message, const nlohmann::json& arguments);
    void dropConnection(const std::shared_ptr<sys::MessageClient>& connection);

    std::optional<std::filesystem::path> directory_;
    std::chrono::milliseconds timeout_;
    std::shared_ptr<platform::DispatchQueue> queue_;
    mutable std::mutex mutex_;
    std::shared_ptr<sys::MessageClient> currentConnection_;
    std::weak_ptr<AppCommunication> delegate_;
};

}  // namespace morvane
