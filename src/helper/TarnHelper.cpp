#include "helper/TarnHelper.h"

#include <unicode/unistr.h>

#include <cmath>

#include "helper/CertHelper.h"
#include "helper/Common.h"
#include "helper/HttpFetch.h"
#include "helper/PolkitAuthority.h"
#include "helper/TarnConfigHelper.h"
#include "helper/TarnLogHelper.h"
#include "sys/UnixSocket.h"

namespace morvane {

namespace th = tarn_helper;

namespace {

void log(const std::string& line) {
    TarnLogHelper::sharedInstance()->log(line);
}

nlohmann::json paramErr() {
    return th::statusError(th::kParamErr);
}

/// A list of texts; none when the value is something else.
std::optional<std::vector<std::string>> texts(const nlohmann::json& value) {
    if (!value.is_array()) {
        return std::nullopt;
    }
    std::vector<std::string> out;
    for (const auto& item : value) {
        if (!item.is_string()) {
            return std::nullopt;
        }
        out.push_back(item.get<std::string>());
    }
    return out;
}

const nlohmann::json& argument(const sys::Message& message, const char* name) {
    static const nlohmann::json absent;
    const auto found = message.arguments.find(name);
    return found == message.arguments.end() ? absent : *found;
}

}  // namespace

TarnHelper::TarnHelper(std::shared_ptr<sysdns::NetworkServices> services,
                       std::filesystem::path socketPath)
    : TarnHelper(ServicesProvider([services] { return services; }), std::move(socketPath)) {}

TarnHelper::TarnHelper(ServicesProvider services, std::filesystem::path socketPath)
    : services_(std::move(services)), socketPath_(std::move(socketPath)) {}

TarnHelper::~TarnHelper() {
    stop();
}

std::filesystem::path TarnHelper::defaultSocketPath() {
    return sys::runtimeDirectory() / th::kSocketName;
}

bool TarnHelper::run(std::string& error) {
    Common::setupAuthorizationRights(rights_);
    // A fresh machine has no config.ini, and the editor only changes files that exist: the
    // service starts it with the two sections it writes to.
    std::error_code ignored;
    if (!std::filesystem::exists(TarnConfigHelper::configFilePath(), ignored)) {
        TarnConfigHelper::setConfigFileContent(
            "[ApplicationSettings]\n[MorvaneServerInfoSection]\n");
    }
    sys::MessageServer::Options options;
    options.path = socketPath_;
    options.mode = 0666;
    options.acceptPeer = [](const sys::PeerCredentials&) { return true; };
    options.handler = [this](const sys::MessageServer::Connection& connection,
                             const sys::Message& message) { return handle(connection, message); };
    options.log = [](const std::string& line) { log(line); };
    server_ = std::make_unique<sys::MessageServer>(std::move(options));
    if (!server_->start(error)) {
        server_.reset();
        return false;
    }
    return true;
}

void TarnHelper::stop() {
    if (server_) {
        server_->stop();
        server_.reset();
    }
}

TarnHelper::Error TarnHelper::checkAuthorization(const nlohmann::json& authorization,
                                                 const std::string& command,
                                                 const sys::PeerCredentials& peer) {
    const auto bytes = authorization.is_string()
                           ? AuthorizationTokens::fromHex(authorization.get<std::string>())
                           : std::nullopt;
    if (!bytes || bytes->size() != AuthorizationTokens::Token{}.size()) {
        return paramErr();
    }
    AuthorizationTokens::Token token{};
    std::copy(bytes->begin(), bytes->end(), token.begin());
    const auto owner = tokens_.owner(token);
    if (!owner || *owner != peer.uid) {
        log("Authorization for " + command + " from uid " + std::to_string(peer.uid) +
            " is not one of this user's");
        return th::statusError(authorization_status::invalidRef);
    }
    const auto right = Common::authorizationRightForCommand(command);
    if (!right) {
        return th::statusError(authorization_status::denied);
    }
    std::string detail;
    auto status = PolkitAuthority::checkAuthorization(*right, peer, detail);
    if (!status) {
        status = rights_.copyRight(*right);
        detail = "rights database: " + std::string(*status == 0 ? "granted " : "refused ") + *right;
    }
    if (*status != authorization_status::success) {
        log("Authorization for " + command + " refused: " + detail);
        return th::statusError(*status);
    }
    return std::nullopt;
}

TarnHelper::Error TarnHelper::updateConfig(const std::string& section, const std::string& key,
                                           const std::string& value) {
    if (!TarnConfigHelper::updateConfigFileSection(section, key, value)) {
        return paramErr();
    }
    return std::nullopt;
}

TarnHelper::Error TarnHelper::setLogDebug(const nlohmann::json& value,
                                          const nlohmann::json& authorization,
                                          const sys::PeerCredentials& peer) {
    if (!value.is_boolean()) {
        return paramErr();
    }
    const std::string text = value.get<bool>() ? "true" : "false";
    log("Setting LogDebug info to: " + text);
    if (auto error = checkAuthorization(authorization, th::setLogDebug, peer)) {
        log("Authentication error");
        return error;
    }
    return updateConfig("ApplicationSettings", "LogDebug", text);
}

TarnHelper::Error TarnHelper::setTrayType(const nlohmann::json& value,
                                          const nlohmann::json& authorization,
                                          const sys::PeerCredentials& peer) {
    // The number's integer value decides, as a number's intValue would: 3.5 is 3.
    const bool inRange = value.is_number() && std::isfinite(value.get<double>()) &&
                         std::trunc(value.get<double>()) >= 0 &&
                         std::trunc(value.get<double>()) <= 3;
    if (!inRange) {
        log("Invalid tray type specified");
        return paramErr();
    }
    const std::string text = value.dump();
    log("Updating tray type to: " + text);
    if (auto error = checkAuthorization(authorization, th::setTrayType, peer)) {
        log("Authentication error");
        return error;
    }
    return updateConfig("ApplicationSettings", "TrayType", text);
}

TarnHelper::Error TarnHelper::writeLocation(const nlohmann::json& value,
                                            const nlohmann::json& authorization,
                                            const sys::PeerCredentials& peer) {
    log("Updating location key");
    // Characters as the client's text counts them: UTF-16 units.
    if (!value.is_string() ||
        icu::UnicodeString::fromUTF8(value.get<std::string>()).length() != 32) {
        log("Invalid location key");
        return paramErr();
    }
    if (auto error = checkAuthorization(authorization, th::writeLocation, peer)) {
        log("Authentication error");
        return error;
    }
    return updateConfig("MorvaneServerInfoSection", "LocationKey", value.get<std::string>());
}

std::optional<DNSModifyHelper> TarnHelper::dnsModifier() {
    auto services = services_ ? services_() : nullptr;
    if (!services) {
        log("DNS settings cannot be changed: neither NetworkManager nor systemd-resolved runs");
        return std::nullopt;
    }
    return DNSModifyHelper(services);
}

TarnHelper::Error TarnHelper::modifyDNS(const nlohmann::json& resolvers,
                                        const nlohmann::json& authorization,
                                        const sys::PeerCredentials& peer) {
    if (auto error = checkAuthorization(authorization, th::modifyDNS, peer)) {
        return error;
    }
    log("======== Modify DNS =======");
    auto modifier = dnsModifier();
    if (resolvers.is_array() && !texts(resolvers)) {
        return paramErr();
    }
    return modifier && modifier->setResolvers(texts(resolvers)) ? Error() : paramErr();
}

TarnHelper::Error TarnHelper::rollbackDNS(const nlohmann::json& authorization,
                                          const sys::PeerCredentials& peer) {
    if (auto error = checkAuthorization(authorization, th::rollbackDNS, peer)) {
        return error;
    }
    log("======== Revert DNS =======");
    auto modifier = dnsModifier();
    return modifier && modifier->rollbackResolvers() ? Error() : paramErr();
}

TarnHelper::Error TarnHelper::modifyDNSForServices(const nlohmann::json& resolvers,
                                                   const nlohmann::json& services,
                                                   const nlohmann::json& authorization,
                                                   const sys::PeerCredentials& peer) {
    if (auto error = checkAuthorization(authorization, th::modifyDNSForServices, peer)) {
        return error;
    }
    const auto identifiers = texts(services);
    if (!identifiers || (resolvers.is_array() && !texts(resolvers))) {
        return paramErr();
    }
    if (identifiers->empty()) {
        return std::nullopt;
    }
    log("======== Modify DNS =======");
    auto modifier = dnsModifier();
    return modifier && modifier->setResolversForServices(texts(resolvers), *identifiers)
               ? Error()
               : paramErr();
}

TarnHelper::Error TarnHelper::rollbackDNSForServices(const nlohmann::json& services,
                                                     const nlohmann::json& authorization,
                                                     const sys::PeerCredentials& peer) {
    if (auto error = checkAuthorization(authorization, th::rollbackDNSForServices, peer)) {
        return error;
    }
    const auto identifiers = texts(services);
    if (!identifiers) {
        return paramErr();
    }
    if (identifiers->empty()) {
        return std::nullopt;
    }
    log("======== Revert DNS =======");
    auto modifier = dnsModifier();
    return modifier && modifier->rollbackResolversForServices(*identifiers) ? Error() : paramErr();
}

TarnHelper::Error TarnHelper::downloadCert(const nlohmann::json& url,
                                           const nlohmann::json& filename,
                                           const nlohmann::json& authorization,
                                           const sys::PeerCredentials& peer) {
    if (auto error = checkAuthorization(authorization, th::downloadCert, peer)) {
        return error;
    }
    if (!url.is_string() || !helper::isURL(url.get<std::string>())) {
        return std::nullopt;
    }
    if (!filename.is_string()) {
        return paramErr();
    }
    return CertHelper::downloadCert(url.get<std::string>(), filename.get<std::string>())
               ? Error()
               : paramErr();
}

TarnHelper::Error TarnHelper::importCert(const nlohmann::json& path,
                                         const nlohmann::json& authorization,
                                         const sys::PeerCredentials& peer) {
    if (auto error = checkAuthorization(authorization, th::importCert, peer)) {
        return error;
    }
    if (!path.is_string()) {
        return paramErr();
    }
    return CertHelper::importCert(path.get<std::string>()) ? Error() : paramErr();
}

TarnHelper::Error TarnHelper::flushDNSwithAuthorization(const nlohmann::json& authorization,
                                                        const sys::PeerCredentials& peer) {
    if (auto error = checkAuthorization(authorization, th::flushDNS, peer)) {
        return error;
    }
    return DNSModifyHelper::flushDNS() ? Error() : paramErr();
}

nlohmann::json TarnHelper::authorizationCreate(const sys::PeerCredentials& peer) {
    if (std::string why; !tokens_.mayCreate(peer.uid, why)) {
        log("No authorization for uid " + std::to_string(peer.uid) + ": " + why);
        return {{"error", th::statusError(authorization_status::denied)}};
    }
    const auto token = tokens_.create(peer.uid);
    if (!token) {
        log("Unable to create an authorization for uid " + std::to_string(peer.uid));
        return {{"error", th::statusError(authorization_status::internal)}};
    }
    return {{"authorization", AuthorizationTokens::toHex(token->data(), token->size())}};
}

int TarnHelper::authorizationRightSet(const nlohmann::json& arguments,
                                      const sys::PeerCredentials& peer) {
    const auto text = [&arguments](const char* name) {
        const auto found = arguments.find(name);
        return found != arguments.end() && found->is_string() ? found->get<std::string>()
                                                              : std::string();
    };
    const std::string name = text("right");
    const std::string rule = text("rule");
    if (name.empty() || rule.empty()) {
        return th::kParamErr;
    }
    const auto bytes = AuthorizationTokens::fromHex(text("authorization"));
    AuthorizationTokens::Token token{};
    if (!bytes || bytes->size() != token.size()) {
        return authorization_status::invalidRef;
    }
    std::copy(bytes->begin(), bytes->end(), token.begin());
    if (tokens_.owner(token) != peer.uid) {
        return authorization_status::invalidRef;
    }
    // A user may define what is missing, never loosen what an administrator has set.
    if (peer.uid != 0 && rights_.rightGet(name) != Common::kRightNotDefined) {
        return authorization_status::denied;
    }
    return rights_.rightSet(name, rule, text("description"), text("table"));
}

sys::MessageServer::Outcome TarnHelper::handle(const sys::MessageServer::Connection& connection,
                                               const sys::Message& message) {
    using Outcome = sys::MessageServer::Outcome;
    const auto& peer = connection.peer;
    const auto& selector = message.message;
    const auto& auth = argument(message, "authorization");
    const auto& value = argument(message, "value");

    if (selector == th::authorizationCreate) {
        return Outcome::replyWith(authorizationCreate(peer));
    }
    if (selector == th::authorizationRightGet) {
        const auto& right = argument(message, "right");
        const int status =
            right.is_string() ? rights_.rightGet(right.get<std::string>()) : th::kParamErr;
        return Outcome::replyWith({{"status", status}});
    }
    if (selector == th::authorizationRightSet) {
        return Outcome::replyWith({{"status", authorizationRightSet(message.arguments, peer)}});
    }

    Error error;
    if (selector == th::setLogDebug) {
        error = setLogDebug(value, auth, peer);
    } else if (selector == th::setTrayType) {
        error = setTrayType(value, auth, peer);
    } else if (selector == th::writeLocation) {
        error = writeLocation(value, auth, peer);
    } else if (selector == th::modifyDNS) {
        error = modifyDNS(argument(message, "resolvers"), auth, peer);
    } else if (selector == th::rollbackDNS) {
        error = rollbackDNS(auth, peer);
    } else if (selector == th::modifyDNSForServices) {
        error = modifyDNSForServices(argument(message, "resolvers"), argument(message, "services"),
                                     auth, peer);
    } else if (selector == th::rollbackDNSForServices) {
        error = rollbackDNSForServices(argument(message, "services"), auth, peer);
    } else if (selector == th::downloadCert) {
        error = downloadCert(argument(message, "url"), argument(message, "filename"), auth, peer);
    } else if (selector == th::importCert) {
        error = importCert(argument(message, "path"), auth, peer);
    } else if (selector == th::flushDNS) {
        error = flushDNSwithAuthorization(auth, peer);
    } else {
        log("Unknown message \"" + selector + "\" from uid " + std::to_string(peer.uid));
        return Outcome::refuse();
    }
    return Outcome::replyWith(error ? nlohmann::json{{"error", *error}} : nlohmann::json::object());
}

}  // namespace morvane
