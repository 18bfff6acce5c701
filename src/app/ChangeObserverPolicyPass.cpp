// The policy pass: what ChangeObserver does for each event once the loop has ordered its
// steps: find the configuration, learn the external address, bring the menu up to date and
// hand the policy to the DNS proxy.
#include <sstream>

#include "app/ChangeObserver.h"
#include "core/ActionManager.h"
#include "dns/DNSResolver.h"
#include "helper/TarnHelperProxy.h"
#include "messages/JSONCoding.h"
#include "platform/MainQueue.h"
#include "messages/NetworkExtConfig.h"
#include "proxy/NetworkExtensionManager.h"
#include "settings/Utils.h"
#include "ui/UserNotificationCenter.h"

namespace morvane {

using platform::MainQueue;

namespace {

std::optional<std::string> notificationText(ChangeType changeType) {
    switch (changeType) {
        case ChangeType::connected:
            return "Network has connected";
        case ChangeType::disconnected:
            return "network has disconnected";
        case ChangeType::onShutdown:
            return "Tarn will stop";
        case ChangeType::intranet:
            return "Intranet detected";
        default:
            return std::nullopt;
    }
}

// An optional value as a generic description renders it: the value, or "nil".
std::string describe(const std::optional<std::string>& value) {
    return value ? *value : "nil";
}

std::string describe(const std::vector<std::string>& values) {
    std::string text = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        text += (i == 0 ? "\"" : ", \"") + values[i] + "\"";
    }
    return text + "]";
}

std::optional<std::string> runtimeUser(const std::optional<DeviceConfiguration>& config) {
    if (config && config->result && config->result->cfg && config->result->cfg->runtime) {
        return config->result->cfg->runtime->user;
    }
    return std::nullopt;
}

std::optional<std::string> firstLocationTag(const std::optional<DeviceConfiguration>& config) {
    if (config && config->result && config->result->cfg && config->result->cfg->runtime &&
        !config->result->cfg->runtime->locations.empty()) {
        return config->result->cfg->runtime->locations.front().tag;
    }
    return std::nullopt;
}

std::optional<std::string> encodedText(const std::optional<DeviceConfiguration>& config) {
    if (!config) {
        return std::nullopt;
    }
    return encodeJSON(*config);
}

}  // namespace

int ChangeObserver::statusCode(ChangeType changeType) {
    switch (changeType) {
        case ChangeType::connected:
            return 0;
        case ChangeType::disconnected:
            return 1;
        case ChangeType::intranet:
            return 2;
        case ChangeType::VPNDidStart:
            return 4;
        case ChangeType::VPNDidStop:
            return 5;
        case ChangeType::willSleep:
            return 6;
        case ChangeType::didAwake:
            return 7;
        case ChangeType::waitingOnUserSecurity:
            return 10;
        case ChangeType::installCompleted:
            return 11;
        case ChangeType::missingDeviceKey:
            return 12;
        default:
            return 9;
    }
}

std::vector<std::string> ChangeObserver::resolverList(
    const std::optional<DeviceConfiguration>& config) {
    std::vector<std::string> resolvers;
    if (!config || !config->result || !config->result->filters) {
        return resolvers;
    }
    for (const auto& rule : *config->result->filters) {
        if (rule.resolvers) {
            resolvers.insert(resolvers.end(), rule.resolvers->begin(), rule.resolvers->end());
        }
    }
    return resolvers;
}

std::shared_ptr<NetworkExtensionManager> ChangeObserver::proxyManager() {
    return NetworkExtensionManager::shared();
}

std::shared_ptr<TarnStatusBarController> ChangeObserver::makeStatusMenu(ui::TrayType trayType,
                                                                        bool showTestMenu) {
    return std::make_shared<TarnStatusBarController>(trayType, showTestMenu);
}

bool ChangeObserver::userAcceptedExtension() {
    const auto state = proxyManager()->extensionState;
    return !(state.count(ExtensionStatus::failedToInstall) ||
             state.count(ExtensionStatus::notStarted));
}

bool ChangeObserver::pathIsSatisfied() {
    return networkCheck->monitor &&
           networkCheck->monitor->currentPath().status == platform::NetworkPath::Status::satisfied;
}

void ChangeObserver::reloadConfigIfNeeded(ChangeType changeType) {
    if (changeType != ChangeType::VPNDidStop && changeType != ChangeType::connected &&
        changeType != ChangeType::deviceConfigEditedLocally) {
        return;
    }
    log("reloading config changeType based on change " + std::string(rawValue(changeType)));
    if (pathIsSatisfied()) {
        installerHelper->refreshDeviceConfiguration();
        settings->reloadConfiguration();
    }
}

void ChangeObserver::showChangeNotification(ChangeType changeType) {
    const auto text = notificationText(changeType);
    if (changeType == ChangeType::pollingInterval || !text || text->empty()) {
        return;
    }
    log("Showing notification on " + std::string(rawValue(changeType)));
    if (*text == userNotification->lastNotification) {
        logger->log("Local notifications failed", LogLevel::diagnose);
        return;
    }
    userNotification->lastNotification = *text;
    ui::UserNotificationCenter::current()->getNotificationSettings(
        [weak = weak_from_this(), body = *text](ui::NotificationSettings notificationSettings) {
            auto self = weak.lock();
            if (!self) {
                return;
            }
            self->userNotification->sendNotification(
                notificationSettings, std::string("Tarn Notification"), body,
                [weak](bool delivered) {
                    if (delivered) {
                        return;
                    }
                    if (auto again = weak.lock()) {
                        again->logger->log("Local notifications failed", LogLevel::diagnose);
                    }
                });
        });
}

std::optional<DeviceConfiguration> ChangeObserver::currentConfiguration(
    const std::optional<platform::Notification>& notification, ChangeType changeType) {
    if (auto test = Utils::readTestDeviceConfiguration(*settings.get())) {
        return test;
    }
    if (auto overlaid = Utils::readDeviceConfigurationWithOverlay(*settings.get())) {
        return overlaid;
    }
    if (notification &&
        (changeType == ChangeType::connected || changeType == ChangeType::VPNDidStop ||
         changeType == ChangeType::deviceConfigRefreshed)) {
        if (const auto* payload = std::any_cast<DeviceConfiguration>(&notification->object)) {
            return *payload;
        }
    }
    return Utils::readDeviceConfiguration();
}

void ChangeObserver::handleOnChange(const std::optional<platform::Notification>& notification,
                                    ChangeType changeType, bool userAcceptedExtension) {
    auto pass = std::make_shared<PassCells>();
    pass->changeType = changeType;
    const auto configuration = currentConfiguration(notification, changeType);
    if (!configuration) {
        log("handleOnChange::  !!MISSING OR INVALID CONFIGURATION!!: not trying extension");
        if (pathIsSatisfied()) {
            installerHelper->refreshDeviceConfiguration();
            settings->reloadConfiguration();
        }
        haveUpdatedMenuWithConfig = false;
        setMenubarStatus(ChangeType::missingDeviceKey, false, true, false);
        return;
    }
    vpnMonitor->deviceConfig = configuration;
    pass->vpnRunning = vpnMonitor->isVPNRunning();
    if (changeType == ChangeType::connected || changeType == ChangeType::VPNDidStop) {
        lookUpExternalIP(*configuration, [weak = weak_from_this(), pass, userAcceptedExtension,
                                          configuration](const std::string& ip) {
            if (auto self = weak.lock()) {
                self->applyExternalIP(ip, pass, userAcceptedExtension, *configuration);
            }
        });
    }
    const auto stored = settings->userDefaults->stringForKey("EXTERNAL_IP").value_or("");
    applyExternalIP(stored, pass, userAcceptedExtension, *configuration);
}

void ChangeObserver::lookUpExternalIP(const DeviceConfiguration& configuration,
                                      std::function<void(const std::string&)> continuation) {
    concurrentQueue->async(
        [weak = weak_from_this(), configuration, continuation = std::move(continuation)] {
            std::vector<std::string> resolvers;
            if (auto self = weak.lock()) {
                resolvers = self->resolverList(configuration);
            }
            continuation(dns::DNSResolver::resolveDNSUsingMorvane(resolvers));
        });
}

void ChangeObserver::applyExternalIP(const std::string& ip, const std::shared_ptr<PassCells>& pass,
                                     bool userAcceptedExtension,
                                     const DeviceConfiguration& configuration) {
    log("handleOnChange::  have configuration - setting menu and extension with external ip " + ip +
        " with change event : " + std::string(rawValue(pass->changeType)));
    MainQueue::async([weak = weak_from_this(), ip, pass, userAcceptedExtension, configuration] {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        if (pass->changeType == ChangeType::disconnected) {
            self->lastKnownIP.clear();
        }
        self->setMenubarStatus(pass->changeType, !ip.empty(), userAcceptedExtension,
                               pass->vpnRunning);
        if (self->menuInteraction && self->menuInteraction->statusMenu) {
            self->menuInteraction->statusMenu->updateExternalIp(ip);
        }
        const auto stored = self->settings->userDefaults->stringForKey("EXTERNAL_IP").value_or("");
        if (!ip.empty()) {
            if (ip != stored) {
                pass->changeType = ChangeType::ipAddressChanged;
            }
            self->log("EXTERNAL IP IS CREATED : " + ip);
            self->settings->setValue(ip, MorvaneServerInfoSection::externalIP);
        } else {
            self->log("Empty IP External Address created");
        }
        self->haveUpdatedMenuWithConfig = true;
        self->updateMenuAndExtension(configuration, pass->changeType, ip);
    });
}

void ChangeObserver::setMenubarStatus(ChangeType changeType, bool hasIpAddress,
                                      bool userAcceptedExtension, bool vpnRunning) {
    log("setMenubarStatus based on changeType " + std::string(rawValue(changeType)));
    createMenuIfNeeded();
    auto menu = menuInteraction ? menuInteraction->statusMenu : nullptr;
    if (menu) {
        menu->updateStatusMessage(statusCode(changeType), hasIpAddress, userAcceptedExtension,
                                  vpnRunning);
    }
    sendDeviceKeyToMenu();
    if (auto userName = settings->userDefaults->stringForKey("userName"); userName && menu) {
        menu->updateUserName(*userName);
    }
}

void ChangeObserver::sendDeviceKeyToMenu() {
    auto deviceKey = settings->userDefaults->stringForKey("DEVICE_KEY");
    if (!deviceKey) {
        if (const auto configFile = settings->configFile(); configFile && configFile->result) {
            deviceKey = configFile->result->device;
        }
    }
    if (deviceKey && menuInteraction && menuInteraction->statusMenu) {
        menuInteraction->statusMenu->updateDeviceKey(*deviceKey);
    }
}

void ChangeObserver::createMenuIfNeeded() {
    if (menuInteraction) {
        return;
    }
    log("creating menu");
    const auto trayType = settings->trayType();
    const auto showTestMenuText =
        settings->userDefaults->stringForKey("SHOW_TEST_MENU").value_or("FALSE");
    const bool showTestMenu = showTestMenuText == "TRUE";
    log(std::string("showTestMenuStr is ") + (showTestMenu ? "true" : "false"));
    menuInteraction.emplace();
    menuInteraction->trayType = trayType;
    menuInteraction->showTestMenu = showTestMenu;
    menuInteraction->logger->log("Installing menu", LogLevel::production);
    menuInteraction->statusMenu = makeStatusMenu(trayType, showTestMenu);
    menuInteraction->statusMenu->addStatusBar(true);
}

void ChangeObserver::updateMenuAndExtension(const DeviceConfiguration& configuration,
                                            ChangeType changeType, const std::string& ip) {
    concurrentQueue->asyncBarrier([weak = weak_from_this(), ip, configuration] {
        MainQueue::async([weak, ip, configuration] {
            if (auto self = weak.lock()) {
                self->updateMenu(ip, configuration);
            }
        });
    });
    const ActionManager actionManager(configuration);
    if (actionManager.deviceConfiguration && actionManager.deviceConfiguration->result &&
        actionManager.deviceConfiguration->result->actions) {
        log("updateMenuAndExtension::  actionManager for change " +
            std::string(rawValue(changeType)) + ". actionManager is " +
            description(*actionManager.deviceConfiguration->result->actions));
    }
    log("updateMenuAndExtension::  updated configuration for change " +
        std::string(rawValue(changeType)) + ". Reconfiguring NETWORK EXTENSION for ipAddress " +
        ip);
    updateNetworkExtension(changeType, configuration);
    if (tarnhelperProxy) {
        tarnhelperProxy->flushDNS();
    }
}

void ChangeObserver::updateMenu(const std::string& ip, const DeviceConfiguration& configuration) {
    settings->reloadConfiguration();
    auto menu = menuInteraction ? menuInteraction->statusMenu : nullptr;
    if (menu) {
        menu->updateExternalIp(ip);
    }
    sendDeviceKeyToMenu();
    if (menu) {
        menu->updateLogDebug();
    }
    logger->setDeviceConfigResponse(configuration);
    const auto debugTitle = TarnLogger::debugTitle(logger->effectiveLevel());
    if (menu) {
        menu->updateDebugMenu(debugTitle.title, debugTitle.enabled);
    }
    sharedDefaultsManager->storeDeviceConfiguration(configuration);
    if (!ip.empty()) {
        lastKnownIP = ip;
        settings->setValue(ip, MorvaneServerInfoSection::externalIP);
    }
    if (encodedText(configuration) == encodedText(config)) {
        return;
    }
    resetNetworkExtension(configuration);
    config = configuration;
}

void ChangeObserver::updateNetworkExtension(ChangeType changeType,
                                            const DeviceConfiguration& configuration) {
    const auto uuid = runtimeUser(configuration);
    const auto locationTag = firstLocationTag(configuration);
    const auto resolvers = resolverList(configuration);
    const auto ip = settings->userDefaults->stringForKey("EXTERNAL_IP");
    log("updateNetworkExtension:: have uuid " + describe(uuid) + " for ip " + describe(ip) +
        " and locationTag " + describe(locationTag) + " and resolvers = " + describe(resolvers));
    if (!uuid) {
        log("ERROR::updateNetworkExtension:: missing uuid in #file:Failing");
        return;
    }
    if (!locationTag) {
        log("ERROR:updateNetworkExtension:: missing locationTag in #file:Failing");
        return;
    }
    if (resolvers.empty()) {
        log("updateNetworkExtension:: missing resolvers in #file:Failing");
        return;
    }
    proxyManager()->handleChange(changeType,
                                 NetworkExtConfig{*uuid, *locationTag, resolvers, configuration});
}

void ChangeObserver::resetNetworkExtension(const DeviceConfiguration& configuration) {
    auto manager = proxyManager();
    if (manager->extensionState.count(ExtensionStatus::failedToInstall) ||
        manager->extensionState.count(ExtensionStatus::notStarted)) {
        return;
    }
    auto uuid = runtimeUser(configuration);
    if (!uuid) {
        uuid = settings->userDefaults->stringForKey("userID");
    }
    const auto locationTag = firstLocationTag(configuration);
    const auto resolvers = resolverList(configuration);
    if (!uuid) {
        logger->log("resetNetworkExtension:: missing uuid in #file:Failing", LogLevel::warning);
        return;
    }
    if (!locationTag) {
        logger->log("resetNetworkExtension:: missing locationTag in #file:Failing",
                    LogLevel::warning);
        return;
    }
    if (resolvers.empty()) {
        logger->log("resetNetworkExtension:: missing resolvers in #file:Failing",
                    LogLevel::warning);
        return;
    }
    manager->resetExtension(NetworkExtConfig{*uuid, *locationTag, resolvers, configuration});
}

}  // namespace morvane
