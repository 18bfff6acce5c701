#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "provider/DnsSwitchFactory.h"
#include "provider/Forwarder.h"
#include "provider/ProviderBundle.h"
#include "provider/ProviderErrors.h"
#include "provider/ProviderLink.h"
#include "provider/ProxyConfigurationStore.h"
#include "provider/ServiceLog.h"
#include "sys/MessageServer.h"
#include "sysdns/SwitchGuard.h"

namespace morvane::provider {

/// The provider as a service: the forwarder on its address, the stored proxy configuration
/// with its control socket, the provider link, and the switch of the machine's DNS.
///
/// Enabled or not is the stored configuration's `enabled`. While enabled, the forwarder
/// applies the policy built from the configuration (and the owner's shared defaults) and the
/// switch points the machine at it; while disabled or without a configuration, the forwarder
/// answers with an empty policy (SERVFAIL) and the machine's DNS is what it was.
class ProviderService {
public:
    struct Options {
        std::string listen = "127.0.0.153:53";
        std::filesystem::path configurationFile = ProxyConfigurationStore::defaultFile();
        /// Folder of the control socket and the link socket.
        std::filesystem::path socketDirectory;
        std::optional<ProviderBundle> bundle;
        DnsSwitchFactory switchFactory;
        ForwarderOptions forwarder;
    };

    static constexpr const char* kControlSocketName = "dnsproxy.control";

    ProviderService(Options options, ServiceLog& log);
    ~ProviderService();
    ProviderService(const ProviderService&) = delete;
    ProviderService& operator=(const ProviderService&) = delete;

    /// Restores what an earlier run of the switch left, loads the stored configuration,
    /// starts serving and opens both sockets, then applies the configuration. False with a
    /// clear `error` when the address or a socket cannot be had; nothing is left running.
    bool start(std::string& error);
    /// Tells the agent, puts the machine's DNS back, closes everything. Idempotent.
    void stop(StopReason reason);
    /// Re-reads the stored configuration and the shared defaults (SIGHUP).
    void reload();
    /// The forwarder's loop went round since the last call: what the watchdog is fed on.
    bool alive();

    // The control socket's messages, as the peer `uid` sends them; the reply object.
    nlohmann::json load(uid_t uid);
    nlohmann::json save(uid_t uid, const nlohmann::json& arguments);
    nlohmann::json remove(uid_t uid);
    nlohmann::json flush(uid_t uid);
    nlohmann::json status();

    /// Root, and the owner of the stored configuration (anyone while there is none).
    bool mayControl(uid_t uid) const;
    /// Root, the owner of the stored configuration, and the provider's own user.
    bool mayLink(uid_t uid) const;

    std::filesystem::path controlSocketPath() const;
    std::filesystem::path linkSocketPath() const;
    std::string listeningAddress() const;
    ProviderLink& link() { return *link_; }

private:
    sys::MessageServer::Outcome handleControl(const sys::MessageServer::Connection& connection,
                                              const sys::Message& message);
    sys::MessageServer::Outcome handleLink(const sys::MessageServer::Connection& connection,
                                           const sys::Message& message);
    /// Puts the held configuration into force: policy, network servers, switch. Called with
    /// the state lock held; gives the stop to tell the agent (after the lock is let go) when
    /// an enabled proxy went off.
    std::optional<StopReason> applyLocked(bool wasEnabled, StopReason reasonIfStopped);
    sysdns::SwitchGuard& guard();
    void switchOn();
    void switchOff();
    void upstreamsLost(const std::string& reason);

    Options options_;
    ServiceLog& log_;
    ProxyConfigurationStore store_;
    Forwarder forwarder_;
    std::unique_ptr<sysdns::DnsSwitch> switch_;
    std::unique_ptr<sysdns::SwitchGuard> guard_;  // declared after the switch it watches
    std::unique_ptr<ProviderLink> link_;
    std::unique_ptr<sys::MessageServer> controlServer_;
    std::unique_ptr<sys::MessageServer> linkServer_;

    mutable std::mutex mutex_;
    std::optional<ProxyConfiguration> configuration_;
    bool switched_ = false;
    bool started_ = false;
    std::uint64_t lastLoopTurns_ = 0;
};

}  // namespace morvane::provider
