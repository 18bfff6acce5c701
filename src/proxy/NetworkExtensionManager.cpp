#include "proxy/NetworkExtensionManager.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

#include "messages/JSONCoding.h"
#include "platform/MainQueue.h"
#include "platform/StandardOutput.h"
#include "proxy/LocalAddress.h"
#include "settings/Utils.h"

namespace morvane {

namespace {

constexpr std::array<std::string_view, 6> kStatusNames = {
    "userAccepted", "configured", "userDenied", "userStopped", "failedToInstall", "notStarted"};

std::string errorLine(const ProxyError& error) {
    return error.description() + " / " + std::to_string(error.code);
}

std::string yesNo(bool value) {
    return value ? "1" : "0";
}

}  // namespace

std::string_view rawValue(ExtensionStatus status) {
    return kStatusNames.at(static_cast<std::size_t>(status));
}

std::string extensionStateText(const ExtensionState& state) {
    std::string text = "[";
    for (const auto status : state) {
        if (text.size() > 1) {
            text += ", ";
        }
        text += rawValue(status);
    }
    return text + "]";
}

NetworkExtensionManager::NetworkExtensionManager(Platform platform)
    : platform_(std::move(platform)) {}

NetworkExtensionManager::~NetworkExtensionManager() = default;

// MARK: - The extension as an installed thing

void NetworkExtensionManager::activateExtension() {
    log.info("TarnNetExtMgr: Will submit activation request");
    logApp("Will submit activation request", LogLevel::production);
    const auto& bundle = extensionBundle();
    if (!bundle) {
        // A damaged install: nothing can be registered with a provider whose bundle is gone, so
        // the request fails as the framework fails one for a missing extension, and the proxy
        // stays off with the reason in the log.
        std::weak_ptr<NetworkExtensionManager> weakSelf = weak_from_this();
        const std::string reason = bundleFailure_;
        platform::MainQueue::async([weakSelf, reason] {
            if (auto self = weakSelf.lock()) {
                self->requestDidFailWithError(
                    std::string("activation request for ") + kExtensionIdentifier,
                    ProxyError{proxy_error::kExtensionDomain, proxy_error::kExtensionNotFound,
                               "The DNS proxy provider's bundle is missing or damaged: " + reason,
                               nlohmann::json::object()});
            }
        });
    } else {
        platform_.activation->submitRequest(ExtensionActivation::Kind::activation,
                                            kExtensionIdentifier, weak_from_this());
    }
    status = "Installing\u2026";
    log.info("TarnNetExtMgr: Did submit activation request");
    logApp("Fid submit activation request", LogLevel::production);
}

void NetworkExtensionManager::deactivateExtension(
    std::function<void(std::optional<ProxyError>)> completion) {
    log.info("TarnNetExtMgr: Will submit deactivation request");
    {
        std::lock_guard lock(deactivationMutex_);
        deactivationComplete_ = std::move(completion);
    }
    platform_.activation->submitRequest(ExtensionActivation::Kind::deactivation,
                                        kExtensionIdentifier, weak_from_this());
    status = "Uninstalls\u2026";
    log.info("TarnNetExtMgr: Did submit deactivation request");
}

bool NetworkExtensionManager::hasDeactivationPending() const {
    std::lock_guard lock(deactivationMutex_);
    return static_cast<bool>(deactivationComplete_);
}

void NetworkExtensionManager::requestNeedsUserApproval() {
    log.info("TarnNetExtMgr: Activation request needs user approval");
    logApp("Activation request needs user approval", LogLevel::production);
    publish(ChangeType::waitingOnUserSecurity);
}

int NetworkExtensionManager::actionForReplacingExtension(const std::string& existingVersion,
                                                         const std::string& newVersion) {
    log.info("TarnNetExtMgr: Allowing replacement of " + existingVersion + " with " + newVersion);
    return 1;
}

void NetworkExtensionManager::requestDidFinishWithResult(const std::string& request,
                                                         long long result) {
    std::function<void(std::optional<ProxyError>)> pending;
    {
        std::lock_guard lock(deactivationMutex_);
        pending = std::move(deactivationComplete_);
        deactivationComplete_ = nullptr;
    }
    if (pending) {
        pending(std::nullopt);
        return;
    }
    logApp("Activation request result = " + std::to_string(result) + " for request " + request,
           LogLevel::production);
    if (result == 0) {
        log.info("TarnNetExtMgr: Activation request succeeded");
        logApp("Activation request succeeded", LogLevel::production);
        status = "Install succeeded.";
        extensionState = {ExtensionStatus::userAccepted};
        publish(ChangeType::deviceConfigRefreshed);
    } else if (result == 1) {
        log.info("TarnNetExtMgr: Activation request succeeded, requires restart");
        status = "Install succeeded but requires restart.";
        logApp("Activation request succeeded, requires restart", LogLevel::production);
    } else {
        log.info("TarnNetExtMgr: Activation request failed, unexpected result: " +
                 std::to_string(result));
        status = "Install succeeded (with unexpected result).";
    }
}

void NetworkExtensionManager::requestDidFailWithError(const std::string&, const ProxyError& error) {
    std::function<void(std::optional<ProxyError>)> pending;
    {
        std::lock_guard lock(deactivationMutex_);
        pending = std::move(deactivationComplete_);
        deactivationComplete_ = nullptr;
    }
    if (pending) {
        pending(error);
        return;
    }
    logApp("NETWORK EXTENSION FAILURE", LogLevel::production);
    logApp("Activation request failed, error is : " + error.description() + ": error code is " +
               std::to_string(error.code) + " value is " + error.localizedDescription +
               ", userInfo is " + error.userInfoText(),
           LogLevel::production);
    logApp("NETWORK EXTENSIONFAILURE", LogLevel::production);
    extensionState = {ExtensionStatus::failedToInstall};
}

void NetworkExtensionManager::unloadConfigurations(
    bool terminating, std::function<void(std::optional<ProxyError>)> completion) {
    log.info("TarnNetExtMgr: Will unload the configurations");
    isTerminating = terminating;
    std::weak_ptr<NetworkExtensionManager> weakSelf = weak_from_this();
    platform_.preferences->removeFromPreferences([weakSelf, completion = std::move(completion)](
                                                     std::optional<ProxyError> error) {
        auto self = weakSelf.lock();
        if (!self) {
            return;
        }
        if (!error) {
            if (completion) {
                completion(std::nullopt);
            }
            return;
        }
        self->log.info("TarnNetExtMgr: Did not unload configurations, error: " + errorLine(*error));
        self->status = "Error unloading configurations.";
        if (error->code == 4) {
            // The configuration cannot be removed: at least switch it off.
            self->stopProxy();
        }
        self->extensionState = {ExtensionStatus::userDenied};
        if (completion) {
            completion(error);
        }
    });
}

void NetworkExtensionManager::stopProxy() {
    std::weak_ptr<NetworkExtensionManager> weakSelf = weak_from_this();
    platform_.preferences->loadFromPreferences([weakSelf](std::optional<ProxyError> error) {
        auto self = weakSelf.lock();
        if (!self) {
            return;
        }
        if (error) {
            self->log.info("TarnNetExtMgr: Did not load configurations, error: " +
                           errorLine(*error));
            self->status = "Error loading configurations.";
            return;
        }
        self->preferences().setEnabled(false);
        self->preferences().saveToPreferences([weakSelf](std::optional<ProxyError> saveError) {
            auto inner = weakSelf.lock();
            if (!inner) {
                return;
            }
            if (!saveError) {
                inner->logApp("Proxy Stopped", LogLevel::production);
                return;
            }
            inner->log.info("TarnNetExtMgr: Did not save configuration, error: " +
                            errorLine(*saveError));
            inner->logApp("Did not save configuration, error: " + saveError->domain + " / " +
                              std::to_string(saveError->code),
                          LogLevel::production);
            inner->handleSaveFailure();
        });
    });
}

void NetworkExtensionManager::handleSaveFailure() {
    status = "Error saving configuration.";
    isConfiguring = false;
    throttle.advance();
    extensionState = {ExtensionStatus::failedToInstall};
    std::weak_ptr<NetworkExtensionManager> weakSelf = weak_from_this();
    throttle.schedule([weakSelf] {
        if (auto self = weakSelf.lock()) {
            self->publish(ChangeType::deviceConfigRefreshed);
        }
    });
}

const std::optional<ExtensionBundle>& NetworkExtensionManager::extensionBundle() {
    if (!extensionBundle_) {
        auto lookup =
            platform_.findBundle
                ? platform_.findBundle()
                : ExtensionBundle::Lookup{std::nullopt, "Failed to find any system extensions"};
        if (!lookup.bundle) {
            bundleFailure_ = lookup.failure;
            log.info("TarnNetExtMgr: " + lookup.failure);
            logApp(lookup.failure, LogLevel::warning);
        }
        extensionBundle_ = std::move(lookup.bundle);
    }
    return *extensionBundle_;
}

// MARK: - The proxy configuration

void NetworkExtensionManager::configureProxy(
    const NetworkExtConfig& config, bool enable,
    std::function<void(std::optional<ProxyError>)> completion) {
    if (isConfiguring || isTerminating) {
        return;
    }
    isConfiguring = true;
    savedNetworkConfig = config;
    log.info("TarnNetExtMgr: Will configureProxy enable: " + yesNo(enable));
    std::weak_ptr<NetworkExtensionManager> weakSelf = weak_from_this();
    platform_.preferences->loadFromPreferences([weakSelf, config, enable,
                                                completion](std::optional<ProxyError> error) {
        auto self = weakSelf.lock();
        if (!self) {
            return;
        }
        if (self->isTerminating) {
            // A quit began while the configuration was being loaded: its removal is queued
            // already, and a save now would switch the proxy back on after it.
            self->log.info("TarnNetExtMgr: Not saving the configuration: terminating");
            self->isConfiguring = false;
            if (completion) {
                completion(std::nullopt);
            }
            return;
        }
        if (error) {
            self->log.info("TarnNetExtMgr: Did not load configurations, error: " +
                           errorLine(*error));
            self->status = "Error loading configurations.";
            self->isConfiguring = false;
            if (completion) {
                completion(error);
            }
            return;
        }
        const auto resolvers = resolverList(config.deviceConfig);
        std::optional<std::string> serverAddress;
        if (!resolvers.empty()) {
            serverAddress = resolvers.front();
        }
        self->applyProviderProtocol(config, serverAddress, enable);
        self->preferences().saveToPreferences([weakSelf,
                                               completion](std::optional<ProxyError> saveError) {
            auto inner = weakSelf.lock();
            if (!inner) {
                return;
            }
            if (saveError) {
                inner->log.info("TarnNetExtMgr: Did not save configuration, error: " +
                                errorLine(*saveError));
                inner->logApp("Did not save configuration, error: " + saveError->domain + " / " +
                                  std::to_string(saveError->code),
                              LogLevel::production);
                // Refused by the user, or failed: the common step below settles it as a
                // failure either way.
                inner->extensionState = {saveError->code == 10 ? ExtensionStatus::userDenied
                                                               : ExtensionStatus::failedToInstall};
                inner->handleSaveFailure();
                if (completion) {
                    completion(saveError);
                }
                return;
            }
            inner->extensionState.insert(ExtensionStatus::configured);
            inner->log.info("TarnNetExtMgr: Did save configuration, reload...");
            inner->status = "Configuration saved.";
            inner->isConfiguring = false;
            inner->log.info("TarnNetExtMgr: Registering with provider");
            const ProxySystemLog registerLog = inner->log;
            inner->platform_.providerLink->registerWithProvider(
                inner->extensionBundle(), weakSelf, [registerLog](const std::string& text) {
                    registerLog.info("TarnNetExtMgr: Register worked " + text);
                });
            inner->throttle.throttleIndex = 0;
            if (completion) {
                completion(std::nullopt);
            }
        });
    });
}

void NetworkExtensionManager::enableProxy(const NetworkExtConfig& config) {
    configureProxy(config, true, {});
}

void NetworkExtensionManager::disableProxy(
    const NetworkExtConfig& config, std::function<void(std::optional<ProxyError>)> completion) {
    configureProxy(config, false, std::move(completion));
}

void NetworkExtensionManager::applyProviderProtocol(const NetworkExtConfig& config,
                                                    const std::optional<std::string>& serverAddress,
                                                    bool enable) {
    DNSProxyProviderProtocol providerProtocol;
    providerProtocol.serverAddress = serverAddress;
    providerProtocol.providerBundleIdentifier = kExtensionIdentifier;
    providerProtocol.providerConfiguration = makeProviderConfiguration(config);
    providerProtocol.disconnectOnSleep = false;
    providerProtocol.enforceRoutes = true;
    preferences().setProviderProtocol(std::move(providerProtocol));
    preferences().setEnabled(enable);
    preferences().setLocalizedDescription(std::string(kLocalizedDescription));
}

namespace {

/// One rule as the provider reads it: {"filter": [{"resolvers": ...}, {"domain": ...},
/// {"rule": ...}]}, each entry only when the rule has it. Nothing when the rule does not
/// survive its round trip through JSON.
std::optional<nlohmann::ordered_json> filterElement(const ForwardingRule& rule) {
    const auto text = encodeJSON(rule);
    if (!text) {
        return std::nullopt;
    }
    const auto dictionary = nlohmann::json::parse(*text, nullptr, false);
    if (dictionary.is_discarded() || !dictionary.is_object()) {
        return std::nullopt;
    }
    auto entries = nlohmann::ordered_json::array();
    for (const char* key : {"resolvers", "domain", "rule"}) {
        if (const auto found = dictionary.find(key); found != dictionary.end()) {
            entries.push_back(nlohmann::ordered_json::object({{key, *found}}));
        }
    }
    return nlohmann::ordered_json::object({{"filter", std::move(entries)}});
}

}  // namespace

nlohmann::ordered_json NetworkExtensionManager::makeProviderConfiguration(
    const NetworkExtConfig& config) {
    auto dictionary = nlohmann::ordered_json::object();
    std::optional<std::string> internalIp;
    if (networkQuestions.localIPv4Address) {
        internalIp = networkQuestions.localIPv4Address();
    } else {
        internalIp = localIPv4Address();
    }
    if (internalIp) {
        dictionary["internalIp"] = *internalIp;
    }
    if (const auto externalIp = _settings->getValue(MorvaneServerInfoSection::externalIP)) {
        dictionary["externalIp"] = *externalIp;
    }
    dictionary["locationTag"] = config.locationKey;
    dictionary["uuid"] = config.UDDID;
    dictionary["resolvers"] = config.resolvers;
    std::vector<std::string> localDNS;
    if (networkQuestions.getDNSAddresses) {
        localDNS = networkQuestions.getDNSAddresses();
    } else {
        logUnwired("getDNSAddresses");
    }
    dictionary["localDNS"] = localDNS;

    auto filters = nlohmann::ordered_json::array();
    std::vector<ForwardingRule> deviceRules;
    if (config.deviceConfig.result && config.deviceConfig.result->filters) {
        deviceRules = *config.deviceConfig.result->filters;
    }
    for (const auto& rule : deviceRules) {
        if (auto element = filterElement(rule)) {
            filters.push_back(std::move(*element));
        }
    }
    // The local rules panel's test rules follow the device's own, in the same form. The panel
    // also announces a policy with its rule appended; a rule already among the device's is
    // not given twice.
    if (networkQuestions.testForwardingRules) {
        if (const auto testRules = networkQuestions.testForwardingRules()) {
            for (const auto& rule : *testRules) {
                if (std::find(deviceRules.begin(), deviceRules.end(), rule) != deviceRules.end()) {
                    continue;
                }
                if (auto element = filterElement(rule)) {
                    filters.push_back(std::move(*element));
                }
            }
        }
    }
    dictionary["filters"] = std::move(filters);
    return dictionary;
}

bool NetworkExtensionManager::blockedByState() const {
    return extensionState.contains(ExtensionStatus::failedToInstall) ||
           extensionState.contains(ExtensionStatus::notStarted);
}

bool NetworkExtensionManager::shouldEnableProxy() {
    if (blockedByState()) {
        return false;
    }
    if (!askPathSatisfied()) {
        return false;
    }
    return !askVPNRunning();
}

void NetworkExtensionManager::handleChange(ChangeType change, const NetworkExtConfig& config) {
    logApp("in networkExtension manager handleChange", LogLevel::production);

    if (!enabledOnFirstLaunch && Utils::readDeviceConfiguration() && !preferences().isEnabled() &&
        !blockedByState()) {
        log.debug("TarnNetExtMgr: enableProxy location:" + config.locationKey);
        enableProxy(config);
        enabledOnFirstLaunch = true;
    }

    if (change == ChangeType::ipAddressChanged && !blockedByState()) {
        resetExtension(config);
    }

    const bool enabled = preferences().isEnabled();
    if (!enabled || extensionState.contains(ExtensionStatus::userStopped)) {
        logApp("dnsProxy.isEnabled " + extensionStateText(extensionState), LogLevel::production);
        extensionState.erase(ExtensionStatus::userStopped);
        if (shouldEnableProxy()) {
            log.info("TarnNetExtMgr: Enabling the network extension on change");
            logApp("Enabling the network extension on change " + std::string(rawValue(change)),
                   LogLevel::production);
            log.debug("TarnNetExtMgr: enableProxy location:" + config.locationKey);
            enableProxy(config);
        }
        return;
    }
    logApp("dnsProxy.isEnabled " + extensionStateText(extensionState), LogLevel::production);
    const bool satisfied = askPathSatisfied();
    if (satisfied && !askVPNRunning()) {
        return;
    }
    const std::string line =
        "Disabling the network extension on change " + std::string(rawValue(change));
    log.info("TarnNetExtMgr: Disabling the network extension on change");
    logApp(line, LogLevel::production);
    log.debug("TarnNetExtMgr: disableProxy location:" + config.locationKey);
    disableProxy(config);
    logApp(line, LogLevel::warning);
}

void NetworkExtensionManager::resetExtension(const NetworkExtConfig& config) {
    log.debug("TarnNetExtMgr: resetExtension location:" + config.locationKey);
    log.debug("TarnNetExtMgr: disableProxy location:" + config.locationKey);
    std::weak_ptr<NetworkExtensionManager> weakSelf = weak_from_this();
    disableProxy(config, [weakSelf, config](std::optional<ProxyError> error) {
        if (error) {
            platform::printLine("error " + error->description() + " in resetExtension");
        }
        if (!platform::MainQueue::isCurrent()) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
        auto self = weakSelf.lock();
        if (!self) {
            return;
        }
        self->log.debug("TarnNetExtMgr: enableProxy location:" + config.locationKey);
        self->configureProxy(config, true, {});
    });
}

// MARK: - The provider's calls

void NetworkExtensionManager::proxyStoppedWithReason(long long reason) {
    if (isTerminating) {
        extensionState = {ExtensionStatus::configured};
        return;
    }
    if (reason != 0) {
        logApp("Proxy was stopped by the user. Reason is " + std::to_string(reason),
               LogLevel::production);
        extensionState = {ExtensionStatus::userStopped};
        if (isTerminating) {
            return;
        }
    }
    publish(ChangeType::deviceConfigRefreshed);
}

void NetworkExtensionManager::connectionErrorWithReason(const ProxyError& error) {
    logApp("Proxy is in eaiting mode by the user. Error is " + error.description() +
               ". Reconfiguring...",
           LogLevel::production);
    if (savedNetworkConfig) {
        const auto config = *savedNetworkConfig;
        resetExtension(config);
    }
}

// MARK: - Helpers

void NetworkExtensionManager::publish(ChangeType change) {
    _notificationPublisher->post(change);
}

void NetworkExtensionManager::logApp(const std::string& message, LogLevel level) {
    _logger->log(message, level);
}

bool NetworkExtensionManager::askPathSatisfied() {
    if (!networkQuestions.pathIsSatisfied) {
        logUnwired("pathIsSatisfied");
        return false;
    }
    return networkQuestions.pathIsSatisfied();
}

bool NetworkExtensionManager::askVPNRunning() {
    if (!networkQuestions.isVPNRunning) {
        logUnwired("isVPNRunning");
        return true;
    }
    return networkQuestions.isVPNRunning();
}

void NetworkExtensionManager::logUnwired(const char* question) {
    if (unwiredReported_.insert(question).second) {
        logApp(std::string("DNS proxy control has no answer to \"") + question +
                   "\": nothing is wired to answer it",
               LogLevel::warning);
    }
}

}  // namespace morvane
