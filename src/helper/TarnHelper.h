#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "helper/AuthorizationToken.h"
#include "helper/DNSModifyHelper.h"
#include "helper/RightsDatabase.h"
#include "helper/TarnHelperProtocol.h"
#include "sys/MessageServer.h"
#include "sysdns/NetworkServices.h"

namespace morvane {

/// The privileged side of the application: serves the ten operations of TarnHelperProtocol
/// (helper/TarnHelperProtocol.h documents the messages) on the socket "com.lorvex.tarnHelper",
/// checking the authorization of every message against the right of its command first. Every
/// message is answered once; every failure goes back as an error and the service goes on.
class TarnHelper {
public:
    using Error = std::optional<nlohmann::json>;

    /// Gives the machine's network services for a DNS operation; none where no mechanism
    /// runs, and the operation then fails with a line in the log.
    using ServicesProvider = std::function<std::shared_ptr<sysdns::NetworkServices>()>;

    /// `services` are the network services of every DNS operation (tests).
    explicit TarnHelper(std::shared_ptr<sysdns::NetworkServices> services,
                        std::filesystem::path socketPath = defaultSocketPath());
    /// The services are looked for at each DNS operation, so that a NetworkManager or resolved
    /// started after the helper is found.
    explicit TarnHelper(ServicesProvider services,
                        std::filesystem::path socketPath = defaultSocketPath());
    ~TarnHelper();
    TarnHelper(const TarnHelper&) = delete;
    TarnHelper& operator=(const TarnHelper&) = delete;

    static std::filesystem::path defaultSocketPath();

    /// Defines the missing rights in the rights database and starts listening.
    bool run(std::string& error);
    void stop();

    /// None when `authorization` is 32 bytes of a token of the peer's user that holds the
    /// command's right; else the error to reply with.
    Error checkAuthorization(const nlohmann::json& authorization, const std::string& command,
                             const sys::PeerCredentials& peer);

    Error setLogDebug(const nlohmann::json& value, const nlohmann::json& authorization,
                      const sys::PeerCredentials& peer);
    Error setTrayType(const nlohmann::json& value, const nlohmann::json& authorization,
                      const sys::PeerCredentials& peer);
    Error writeLocation(const nlohmann::json& value, const nlohmann::json& authorization,
                        const sys::PeerCredentials& peer);
    Error modifyDNS(const nlohmann::json& resolvers, const nlohmann::json& authorization,
                    const sys::PeerCredentials& peer);
    Error rollbackDNS(const nlohmann::json& authorization, const sys::PeerCredentials& peer);
    Error modifyDNSForServices(const nlohmann::json& resolvers, const nlohmann::json& services,
                               const nlohmann::json& authorization,
                               const sys::PeerCredentials& peer);
    Error rollbackDNSForServices(const nlohmann::json& services,
                                 const nlohmann::json& authorization,
                                 const sys::PeerCredentials& peer);
    Error downloadCert(const nlohmann::json& url, const nlohmann::json& filename,
                       const nlohmann::json& authorization, const sys::PeerCredentials& peer);
    Error importCert(const nlohmann::json& path, const nlohmann::json& authorization,
                     const sys::PeerCredentials& peer);
    Error flushDNSwithAuthorization(const nlohmann::json& authorization,
                                    const sys::PeerCredentials& peer);

    /// One message as the socket delivers it.
    sys::MessageServer::Outcome handle(const sys::MessageServer::Connection& connection,
                                       const sys::Message& message);

private:
    Error updateConfig(const std::string& section, const std::string& key,
                       const std::string& value);
    std::optional<DNSModifyHelper> dnsModifier();
    nlohmann::json authorizationCreate(const sys::PeerCredentials& peer);
    int authorizationRightSet(const nlohmann::json& arguments, const sys::PeerCredentials& peer);

    ServicesProvider services_;
    AuthorizationTokens tokens_;
    RightsDatabase rights_;
    std::unique_ptr<sys::MessageServer> server_;
    std::filesystem::path socketPath_;
};

}  // namespace morvane
