#include "settings/InstallerHelper.h"

#include <cstdio>

#include "device/DeviceConfigManager.h"
#include "platform/StandardOutput.h"
#include "settings/CommmonValidator.h"

namespace morvane {

using Key = MorvaneServerInfoSection;

InstallerHelper::InstallerHelper()
    : concurrentQueue(platform::DispatchQueue::create("InstallerHelper.queue",
                                                      platform::DispatchQueue::Kind::concurrent)) {}

void InstallerHelper::log(const std::string& message) {
    logger->log(message, LogLevel::production);
}

std::map<Key, std::string> InstallerHelper::parseArguments(
    const std::vector<std::string>& arguments) {
    std::map<Key, std::string> parsed;
    for (const auto& argument : arguments) {
        const auto equals = argument.find('=');
        if (equals == std::string::npos || argument.find('=', equals + 1) != std::string::npos) {
            continue;
        }
        if (const auto key = serverInfoFromRawValue(std::string_view(argument).substr(0, equals))) {
            parsed[*key] = argument.substr(equals + 1);
        }
    }
    return parsed;
}

bool InstallerHelper::validateAndStoreParameters() {
    const auto given = [this](Key key) -> const std::string* {
        const auto found = saveInstallerDict.find(key);
        return found == saveInstallerDict.end() ? nullptr : &found->second;
    };
    const auto failed = [this] {
        log("failed to validate a required setting: bailing");
        return false;
    };

    bool storedReset = false;
    if (const auto* reset = given(Key::reset)) {
        settings->setValue(*reset, Key::reset);
        storedReset = true;
    }
    if (const auto* stop = given(Key::stop)) {
        settings->setValue(*stop, Key::stop);
        return true;
    }
    if (storedReset) {
        return true;
    }

    const auto* url = given(Key::rpcURL);
    if (url == nullptr) {
        log("Missing value for RPC_URL. Please provide a URL in the command line");
        return failed();
    }
    if (!CommmonValidator::isValidURL(*url)) {
        platform::printLine(" RPC_URL value \"" + *url + "\" is invalid, please check again");
        return failed();
    }
    settings->setValue(*url, Key::rpcURL);

    if (const auto* installKey = given(Key::installKey)) {
        settings->setValue(*installKey, Key::installKey);
    } else {
        log("Missing install Key");
        const auto* deviceKey = given(Key::deviceKey);
        if (deviceKey == nullptr) {
            return failed();
        }
        settings->setValue(*deviceKey, Key::deviceKey);
    }

    if (const auto* name = given(Key::deviceName)) {
        const auto* prefix = given(Key::deviceNamePrefix);
        settings->setValue(prefix ? *prefix + "-" + *name : *name, Key::deviceName);
    }
    if (const auto* port = given(Key::rpcPort)) {
        settings->setValue(*port, Key::rpcPort);
    }
    const auto* location = given(Key::locationName);
    settings->setValue(location ? *location : "", Key::locationName);
    const auto* trayType = given(Key::trayType);
    settings->setValue(trayType ? *trayType : "1", Key::trayType);
    if (const auto* email = given(Key::customerEmail)) {
        if (CommmonValidator::isValidEmail(*email)) {
            settings->setValue(*email, Key::customerEmail);
        } else {
            platform::printLine(" Email is in invalid format, please try again");
        }
    }
    const auto* testMenu = given(Key::showTestMenu);
    settings->setValue(testMenu ? *testMenu : "TRUE", Key::showTestMenu);
    for (const Key key : {Key::ignoreVPNS, Key::allowWeakKey, Key::importCert}) {
        if (const auto* value = given(key)) {
            settings->setValue(*value, key);
        }
    }
    return true;
}

bool InstallerHelper::needToGetMainConfig() {
    const auto& defaults = settings->userDefaults;
    if (!defaults->stringForKey("INSTALL_KEY")) {
        log("needToGetMainConfig:: no install key in settings.getValue, checking for device key");
        return false;
    }
    const auto configFile = settings->configFile();
    const bool enrolled = configFile && configFile->result;
    return !defaults->stringForKey("DEVICE_KEY") && !enrolled;
}

void InstallerHelper::refreshDeviceConfiguration() {
    auto key = settings->userDefaults->stringForKey("DEVICE_KEY");
    if (!key) {
        if (const auto configFile = settings->configFile(); configFile && configFile->result) {
            key = configFile->result->device;
        }
    }
    if (key) {
        deviceConfiguration->configure(*key);
    }
}

void InstallerHelper::runInstallCheck(bool force, std::function<void()> completion) {
    concurrentQueue->async([weak = weak_from_this(), force, completion = std::move(completion)] {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        if (self->needToGetMainConfig() || force) {
            self->deviceConfiguration->refresh(force, [weak, completion] {
                auto helper = weak.lock();
                if (!helper) {
                    return;
                }
                helper->refreshDeviceConfiguration();
                helper->settings->saveConfig(false, false);
                helper->logSavedDefaults();
                helper->settings->saveConfig(true, false);
                if (completion) {
                    completion();
                }
            });
            return;
        }
        self->refreshDeviceConfiguration();
        self->notificationPublisher->post(ChangeType::onStartup);
        if (completion) {
            completion();
        }
    });
}

void InstallerHelper::logSavedDefaults() {
    std::string text = "\nSaved as default::\n";
    for (const Key key : server_info::allCases) {
        if (key == Key::deviceKey) {
            continue;
        }
        const std::string raw(rawValue(key));
        if (const auto value = settings->userDefaults->stringForKey(raw)) {
            text += raw + " = " + *value + "\n";
        }
    }
    log(text);
}

}  // namespace morvane
