#include "provider/ProviderService.h"

#include <unistd.h>

#include <cerrno>

#include "provider/PolicyBuilder.h"
#include "provider/SharedDefaultsReader.h"
#include "sys/MessageFrame.h"

namespace morvane::provider {

namespace {

nlohmann::json errorReply(const char* domain, int code, const std::string& description) {
    return {{"error", sys::errorObject(domain, code, description)}};
}

nlohmann::json permissionDenied(ServiceLog& log, uid_t uid, const char* what) {
    log.warning(std::string("Refused ") + what + " by uid " + std::to_string(uid) +
                ": the configuration belongs to another user");
    return errorReply(kConfigurationErrorDomain, kConfigurationPermissionDenied,
                      "permission denied: the proxy configuration belongs to another user");
}

// "127.0.0.153:53" or "[::1]:5300" into the switch's target.
std::optional<sysdns::SwitchTarget> targetOf(const std::string& listening) {
    const auto colon = listening.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return std::nullopt;
    }
    sysdns::SwitchTarget target;
    target.address = listening.substr(0, colon);
    if (target.address.size() > 2 && target.address.front() == '[' &&
        target.address.back() == ']') {
        target.address = target.address.substr(1, target.address.size() - 2);
    }
    try {
        const int port = std::stoi(listening.substr(colon + 1));
        if (port <= 0 || port > 65535) {
            return std::nullopt;
        }
        target.port = static_cast<std::uint16_t>(port);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    return target;
}

}  // namespace

ProviderService::ProviderService(Options options, ServiceLog& log)
    : options_(std::move(options)),
      log_(log),
      store_(options_.configurationFile),
      forwarder_([this] {
          ForwarderOptions forwarderOptions = options_.forwarder;
          if (!forwarderOptions.log) {
              forwarderOptions.log = [this](const std::string& line) { log_.info(line); };
          }
          return forwarderOptions;
      }()) {
    std::optional<std::string> displayName;
    if (options_.bundle) {
        displayName = options_.bundle->displayName;
    }
    link_ = std::make_unique<ProviderLink>(
        displayName, log_,
        [this](std::uint64_t connection, const std::string& message,
               const nlohmann::json& arguments) {
            return linkServer_ && linkServer_->send(connection, message, arguments);
        });
}

ProviderService::~ProviderService() {
    stop(StopReason::UserInitiated);
}

std::filesystem::path ProviderService::controlSocketPath() const {
    return options_.socketDirectory / kControlSocketName;
}

std::filesystem::path ProviderService::linkSocketPath() const {
    return options_.socketDirectory / (options_.bundle
                                           ? options_.bundle->machServiceName
                                           : std::string(ProviderBundle::kDefaultMachServiceName));
}

std::string ProviderService::listeningAddress() const {
    return forwarder_.listeningAddress();
}

bool ProviderService::start(std::string& error) {
    // Whatever a crashed run left switched is put back before anything else happens.
    if (options_.switchFactory) {
        switch_ = options_.switchFactory(log_);
    }
    if (switch_) {
        std::string restoreError;
        if (switch_->restore(restoreError)) {
            log_.info("System DNS switch \"" + switch_->name() +
                      "\": nothing of an earlier run is left switched");
        } else {
            log_.error("System DNS switch \"" + switch_->name() +
                       "\" could not restore what an earlier run left: " + restoreError);
        }
    }

    std::string problem;
    std::optional<ProxyConfiguration> stored = store_.load(problem);
    if (!problem.empty()) {
        std::string asideError;
        std::optional<std::filesystem::path> aside = store_.setAside(asideError);
        log_.error("The stored proxy configuration cannot be used (" + problem +
                   "); starting without a configuration" +
                   (aside ? "; the file was moved to " + aside->string() : "; " + asideError));
    } else if (stored) {
        log_.info(std::string("Loaded the stored proxy configuration of uid ") +
                  std::to_string(stored->ownerUid) + " from " + store_.file().string() + ": " +
                  (stored->enabled ? "enabled" : "disabled"));
    } else {
        log_.info("No proxy configuration is stored at " + store_.file().string());
    }

    forwarder_.setUpstreamsLostHandler(
        [this](const std::string& reason) { upstreamsLost(reason); });
    if (!forwarder_.start(options_.listen, error)) {
        return false;
    }
    log_.notice("Serving DNS on " + forwarder_.listeningAddress() + " (UDP and TCP)");

    sys::MessageServer::Options control;
    control.path = controlSocketPath();
    control.mode = 0666;  // who may do what is decided per message from the peer's uid
    control.acceptPeer = [](const sys::PeerCredentials&) { return true; };
    control.handler = [this](const sys::MessageServer::Connection& connection,
                             const sys::Message& message) {
        return handleControl(connection, message);
    };
    control.log = [this](const std::string& line) { log_.info("Control socket: " + line); };
    controlServer_ = std::make_unique<sys::MessageServer>(std::move(control));

    sys::MessageServer::Options linkOptions;
    linkOptions.path = linkSocketPath();
    linkOptions.mode = 0666;
    linkOptions.acceptPeer = [this](const sys::PeerCredentials& peer) {
        if (mayLink(peer.uid)) {
            return true;
        }
        log_.warning("Provider link: refused a connection of uid " + std::to_string(peer.uid) +
                     " (pid " + std::to_string(peer.pid) +
                     "), which does not own the configuration");
        return false;
    };
    linkOptions.handler = [this](const sys::MessageServer::Connection& connection,
                                 const sys::Message& message) {
        return handleLink(connection, message);
    };
    linkOptions.connected = [this](const sys::MessageServer::Connection& connection) {
        link_->connectionOpened(connection.id);
    };
    linkOptions.disconnected = [this](const sys::MessageServer::Connection& connection) {
        link_->connectionClosed(connection.id);
    };
    linkOptions.log = [this](const std::string& line) { log_.info("Provider link: " + line); };
    linkServer_ = std::make_unique<sys::MessageServer>(std::move(linkOptions));

    std::string socketError;
    if (!controlServer_->start(socketError)) {
        error =
            "cannot open the control socket " + controlSocketPath().string() + ": " + socketError;
    } else if (!linkServer_->start(socketError)) {
        error = "cannot open the provider link " + linkSocketPath().string() + ": " + socketError;
    }
    if (!error.empty()) {
        controlServer_.reset();
        linkServer_.reset();
        forwarder_.stop();
        return false;
    }
    log_.info("Control socket at " + controlSocketPath().string() + ", provider link at " +
              linkSocketPath().string());

    {
        std::lock_guard lock(mutex_);
        configuration_ = std::move(stored);
        started_ = true;
        applyLocked(false, StopReason::None);
    }
    return true;
}

void ProviderService::stop(StopReason reason) {
    bool wasEnabled = false;
    {
        std::lock_guard lock(mutex_);
        if (!started_) {
            return;
        }
        started_ = false;
        wasEnabled = configuration_ && configuration_->enabled;
    }
    forwarder_.setUpstreamsLostHandler({});
    if (wasEnabled) {
        link_->proxyStopped(reason);
    }
    {
        std::lock_guard lock(mutex_);
        switchOff();
    }
    controlServer_.reset();
    linkServer_.reset();
    forwarder_.stop();
    log_.notice("Stopped serving DNS");
}

void ProviderService::reload() {
    std::string problem;
    std::optional<ProxyConfiguration> stored = store_.load(problem);
    if (!problem.empty()) {
        log_.error("Reload: the stored proxy configuration cannot be used (" + problem +
                   "); keeping the one in force");
        return;
    }
    std::optional<StopReason> stopped;
    {
        std::lock_guard lock(mutex_);
        const bool wasEnabled = configuration_ && configuration_->enabled;
        configuration_ = std::move(stored);
        log_.info("Reloaded the stored proxy configuration");
        stopped = applyLocked(wasEnabled, configuration_ ? StopReason::ConfigurationDisabled
                                                         : StopReason::ConfigurationRemoved);
    }
    if (stopped) {
        link_->proxyStopped(*stopped);
    }
}

bool ProviderService::alive() {
    const ForwarderStats stats = forwarder_.stats();
    const bool turned = stats.loopTurns != lastLoopTurns_;
    lastLoopTurns_ = stats.loopTurns;
    return turned && forwarder_.running();
}

bool ProviderService::mayControl(uid_t uid) const {
    std::lock_guard lock(mutex_);
    return uid == 0 || !configuration_ || configuration_->ownerUid == uid;
}

bool ProviderService::mayLink(uid_t uid) const {
    std::lock_guard lock(mutex_);
    return uid == 0 || uid == ::geteuid() || (configuration_ && configuration_->ownerUid == uid);
}

std::optional<StopReason> ProviderService::applyLocked(bool wasEnabled,
                                                       StopReason reasonIfStopped) {
    const bool enabled = configuration_ && configuration_->enabled;
    if (!enabled) {
        forwarder_.setPolicy(Policy{});
        switchOff();
        if (wasEnabled) {
            log_.notice("The proxy is disabled: the machine's DNS is left as it was");
            return reasonIfStopped;
        }
        return std::nullopt;
    }
    std::string problem;
    std::optional<DeviceConfiguration> shared =
        SharedDefaultsReader::read(configuration_->ownerUid, problem);
    if (!shared) {
        log_.info("No shared device configuration: " + problem);
    }
    std::string error;
    std::optional<PolicyBuilder::Result> built = PolicyBuilder::build(
        configuration_->providerConfiguration, configuration_->serverAddress, shared, error);
    if (!built) {
        // A stored configuration that was accepted once cannot fail here unless the file was
        // edited by hand; the proxy then stays off rather than half applied.
        log_.error("The stored provider configuration is not usable (" + error +
                   "); the proxy stays off");
        forwarder_.setPolicy(Policy{});
        switchOff();
        return wasEnabled ? std::optional<StopReason>(StopReason::ConfigurationDisabled)
                          : std::nullopt;
    }
    log_.info("Policy in force: " + std::to_string(built->policy.rules.size()) + " rules (" +
              built->source + "), " + std::to_string(built->policy.defaultResolvers().size()) +
              " default resolvers, location tag \"" + built->policy.locationTag + "\"");
    forwarder_.setPolicy(built->policy);
    switchOn();
    std::vector<std::string> networkServers =
        switch_ && switched_ ? switch_->originalServers() : std::vector<std::string>{};
    if (networkServers.empty()) {
        networkServers = built->localDNS;
    }
    forwarder_.setNetworkServers(networkServers);
    return std::nullopt;
}

sysdns::SwitchGuard& ProviderService::guard() {
    // Another program (NetworkManager after a reconnect, DHCP, resolved after a wake) may
    // rewrite the settings under the switch: the guard puts the switch back, with a cap.
    if (!guard_) {
        sysdns::SwitchGuard::Options options;
        options.log = [this](const std::string& line) { log_.notice(line); };
        guard_ = std::make_unique<sysdns::SwitchGuard>(*switch_, options);
    }
    return *guard_;
}

void ProviderService::switchOn() {
    if (!switch_ || switch_->name() == "none") {
        log_.warning(
            "The machine's DNS is NOT switched to the proxy (no switch mechanism): only "
            "clients that ask " +
            forwarder_.listeningAddress() + " are filtered");
        return;
    }
    std::optional<sysdns::SwitchTarget> target = targetOf(forwarder_.listeningAddress());
    std::string error;
    if (!target) {
        log_.error("Cannot switch the machine's DNS to " + forwarder_.listeningAddress());
    } else if (guard().engage(*target, error)) {
        switched_ = true;
        log_.notice("The machine's DNS is switched to " + forwarder_.listeningAddress() + " (" +
                    switch_->name() + ")");
    } else {
        log_.error("The machine's DNS could not be switched (" + switch_->name() + "): " + error);
    }
}

void ProviderService::switchOff() {
    if (!switch_ || !switched_) {
        return;
    }
    std::string error;
    if (guard().release(error)) {
        switched_ = false;
        log_.notice("The machine's DNS is restored (" + switch_->name() + ")");
    } else {
        log_.error("The machine's DNS could not be restored (" + switch_->name() + "): " + error);
    }
}

void ProviderService::upstreamsLost(const std::string& reason) {
    log_.warning("Every resolver is out of reach: " + reason);
    link_->connectionError(sys::errorObject(kPosixErrorDomain, ETIMEDOUT, reason));
}

nlohmann::json ProviderService::load(uid_t uid) {
    if (!mayControl(uid)) {
        return permissionDenied(log_, uid, "a load");
    }
    std::lock_guard lock(mutex_);
    if (!configuration_) {
        return nlohmann::json::object();
    }
    return {{"configuration", configuration_->toArguments()}};
}

nlohmann::json ProviderService::save(uid_t uid, const nlohmann::json& arguments) {
    if (!mayControl(uid)) {
        return permissionDenied(log_, uid, "a save");
    }
    std::string error;
    std::optional<ProxyConfiguration> configuration =
        ProxyConfiguration::fromArguments(arguments, error);
    if (configuration && options_.bundle && options_.bundle->identifier &&
        configuration->providerBundleIdentifier != *options_.bundle->identifier) {
        error = "the provider bundle identifier \"" + configuration->providerBundleIdentifier +
                "\" is not this provider's";
        configuration.reset();
    }
    if (configuration) {
        if (!PolicyBuilder::build(configuration->providerConfiguration,
                                  configuration->serverAddress, std::nullopt, error)) {
            configuration.reset();
        }
    }
    if (!configuration) {
        log_.warning("Refused an invalid proxy configuration: " + error);
        return errorReply(kDnsProxyErrorDomain, kConfigurationInvalid,
                          "configuration is invalid: " + error);
    }

    std::optional<StopReason> stopped;
    {
        std::lock_guard lock(mutex_);
        configuration->ownerUid = configuration_ ? configuration_->ownerUid : uid;
        if (!store_.save(*configuration, error)) {
            log_.error("Cannot store the proxy configuration: " + error);
            return errorReply(kConfigurationErrorDomain, kConfigurationWriteFailed, error);
        }
        const bool wasEnabled = configuration_ && configuration_->enabled;
        configuration_ = std::move(configuration);
        log_.notice("Saved the proxy configuration of uid " +
                    std::to_string(configuration_->ownerUid) + " (by uid " + std::to_string(uid) +
                    "): " + (configuration_->enabled ? "enabled" : "disabled"));
        stopped = applyLocked(wasEnabled, StopReason::ConfigurationDisabled);
    }
    if (stopped) {
        link_->proxyStopped(*stopped);
    }
    return nlohmann::json::object();
}

nlohmann::json ProviderService::remove(uid_t uid) {
    if (!mayControl(uid)) {
        return permissionDenied(log_, uid, "a removal");
    }
    std::optional<StopReason> stopped;
    {
        std::lock_guard lock(mutex_);
        std::string error;
        if (!store_.remove(error)) {
            log_.error("Cannot remove the proxy configuration: " + error);
            return errorReply(kDnsProxyErrorDomain, kConfigurationCannotBeRemoved, error);
        }
        const bool wasEnabled = configuration_ && configuration_->enabled;
        if (configuration_) {
            log_.notice("Removed the proxy configuration (by uid " + std::to_string(uid) + ")");
        }
        configuration_.reset();
        stopped = applyLocked(wasEnabled, StopReason::ConfigurationRemoved);
    }
    if (stopped) {
        link_->proxyStopped(*stopped);
    }
    return nlohmann::json::object();
}

nlohmann::json ProviderService::flush(uid_t uid) {
    if (!mayControl(uid)) {
        return permissionDenied(log_, uid, "a flush");
    }
    forwarder_.flush();
    log_.info("Flushed the DNS cache (asked by uid " + std::to_string(uid) + ")");
    return nlohmann::json::object();
}

nlohmann::json ProviderService::status() {
    std::lock_guard lock(mutex_);
    return {{"enabled", configuration_ && configuration_->enabled},
            {"configured", configuration_.has_value()},
            {"listening", forwarder_.listeningAddress()},
            {"switch", switch_ ? switch_->name() : std::string("none")},
            {"switched", switched_}};
}

sys::MessageServer::Outcome ProviderService::handleControl(
    const sys::MessageServer::Connection& connection, const sys::Message& message) {
    const uid_t uid = connection.peer.uid;
    if (message.message == "load") {
        return sys::MessageServer::Outcome::replyWith(load(uid));
    }
    if (message.message == "save") {
        return sys::MessageServer::Outcome::replyWith(save(uid, message.arguments));
    }
    if (message.message == "remove") {
        return sys::MessageServer::Outcome::replyWith(remove(uid));
    }
    if (message.message == "flush") {
        return sys::MessageServer::Outcome::replyWith(flush(uid));
    }
    if (message.message == "status") {
        return sys::MessageServer::Outcome::replyWith(status());
    }
    log_.warning("Control socket: unknown message \"" + message.message + "\" from uid " +
                 std::to_string(uid));
    return sys::MessageServer::Outcome::refuse();
}

sys::MessageServer::Outcome ProviderService::handleLink(
    const sys::MessageServer::Connection& connection, const sys::Message& message) {
    // The owner may have changed since the connection was accepted.
    if (!mayLink(connection.peer.uid)) {
        log_.warning("Provider link: uid " + std::to_string(connection.peer.uid) +
                     " no longer owns the configuration; its connection is closed");
        return sys::MessageServer::Outcome::refuse();
    }
    std::optional<nlohmann::json> reply =
        link_->handle(connection.id, message.message, message.arguments);
    if (!reply) {
        log_.warning("Provider link: unknown message \"" + message.message + "\"");
        return sys::MessageServer::Outcome::refuse();
    }
    return sys::MessageServer::Outcome::replyWith(std::move(*reply));
}

}  // namespace morvane::provider
