#include "device/DeviceConfigManager.h"

#include "messages/JSONCoding.h"
#include "platform/StandardOutput.h"
#include "settings/Utils.h"

namespace morvane {

namespace {

using Key = MorvaneServerInfoSection;

}  // namespace

DeviceConfigManager::DeviceConfigManager()
    : concurrentQueue(platform::DispatchQueue::create("DeviceInteraction.queue",
                                                      platform::DispatchQueue::Kind::concurrent)) {}

std::optional<std::string> DeviceConfigManager::deviceKey() {
    if (auto stored = settings->userDefaults->stringForKey(std::string(rawValue(Key::deviceKey)))) {
        return stored;
    }
    if (const auto configuration = settings->configFile(); configuration && configuration->result) {
        return configuration->result->device;
    }
    return std::nullopt;
}

std::string DeviceConfigManager::deviceName(const std::optional<std::string>& prefix) {
    auto stored = settings->getValue(Key::deviceName);
    const std::string base = stored ? *stored : computerNameManager->getComputerName();
    if (!prefix || *prefix == base) {
        return base;
    }
    return *prefix + "-" + base;
}

std::optional<MainConfiguration> DeviceConfigManager::addDevice(const std::string& installKey,
                                                                const std::string& name) {
    auto [response, error] = deviceInteraction->registerDevice(installKey, name);
    if (error) {
        logger->log("register failed with error " + error->description, LogLevel::production);
        return std::nullopt;
    }
    if (!response) {
        return std::nullopt;
    }
    std::string failure;
    if (const auto text = encodeJSON(*response, &failure)) {
        logger->log("SERVER RESULT:: " + *text, LogLevel::production);
    } else {
        logger->log(failure, LogLevel::production);
    }
    return response;
}

std::optional<MainConfiguration> DeviceConfigManager::mainConfiguration(bool force) {
    auto stored = settings->configFile();
    if (!force && (!stored || !stored->result)) {
        return stored;
    }
    const auto installKey = settings->getValue(Key::installKey);
    if (!deviceKey() && !installKey) {
        logger->log("Fatal error!:: missing deviceKey or install key", LogLevel::production);
        return std::nullopt;
    }
    if (!installKey) {
        logger->log(
            "Fatal error!: The config file is missing a device and a location key. You should "
            "reinstall",
            LogLevel::production);
        return std::nullopt;
    }
    const std::string name = deviceName(settings->getValue(Key::deviceNamePrefix));
    auto response = addDevice(*installKey, name);
    if (response) {
        // A refusal replaces what was stored, too: the next refresh enrols from scratch.
        settings->setConfigFile(response);
    }
    return response;
}

std::optional<std::string> DeviceConfigManager::resolveDeviceKey(bool force) {
    if (!settings->getValue(Key::installKey)) {
        return deviceKey();
    }
    const auto configuration = mainConfiguration(force);
    if (configuration && configuration->result) {
        return configuration->result->device;
    }
    return std::nullopt;
}

void DeviceConfigManager::configure(const std::string& key) {
    auto location = settings->getValue(Key::locationName);
    if (location && location->empty()) {
        location = computerNameManager->getComputerName();
    }
    // A failed exchange shows as no response; its error has been logged on the way.
    auto result = deviceInteraction->configureDevice(key, location);
    handleDeviceConfiguration(result.configuration, result.deviceError);
}

void DeviceConfigManager::handleDeviceConfiguration(
    const std::optional<DeviceConfiguration>& configuration,
    const std::optional<DeviceError>& deviceError) {
    if (deviceError) {
        // The account no longer knows the device: take the installer's values again, which
        // may bring an install key for a new enrolment. The policy in force stays.
        if (deviceError->message == "Unauthorized") {
            Utils::getValuesFromInstaller(*settings);
        }
        return;
    }
    if (!configuration) {
        return;
    }
    if (configuration->result && configuration->result->cfg &&
        configuration->result->cfg->runtime &&
        !configuration->result->cfg->runtime->locations.empty()) {
        settings->setValue(configuration->result->cfg->runtime->locations.front().tag, Key::userID);
    }
    saveDeviceConfiguration(*configuration);
    notificationPublisher->post(ChangeType::deviceConfigRefreshed, *configuration);
}

void DeviceConfigManager::saveDeviceConfiguration(const DeviceConfiguration& configuration) {
    const auto text = encodeJSON(configuration);
    if (!text) {
        return;
    }
    const auto url = Utils::deviceFileURL();
    if (!url) {
        return;
    }
    platform::printLine("writing DeviceConfiguration to file://" + url->string());
    configWriter->saveConfigFile(*text, *url);
}

void DeviceConfigManager::refresh(bool force, std::function<void()> completion) {
    concurrentQueue->asyncBarrier(
        [weak = weak_from_this(), force, completion = std::move(completion)] {
            const auto self = weak.lock();
            if (!self) {
                return;
            }
            if (const auto key = self->resolveDeviceKey(force)) {
                self->settings->setValue(*key, Key::deviceKey);
                // Consumed only now: a failed enrolment keeps it for the next refresh.
                self->settings->userDefaults->removeObjectForKey(
                    std::string(rawValue(Key::installKey)));
                self->configure(*key);
            }
            self->settings->saveConfig(true, false);
            if (completion) {
                completion();
            }
        });
}

}  // namespace morvane
