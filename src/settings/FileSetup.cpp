#include "settings/FileSetup.h"

#include <filesystem>

#include "platform/Files.h"
#include "settings/Utils.h"

namespace morvane {

namespace {

// A URL in the sense the agent needs: a scheme, "://" and something after it.
bool readsAsURL(const std::string& text) {
    const auto separator = text.find("://");
    return separator != std::string::npos && separator > 0 && separator + 3 < text.size() &&
           text.find_first_of(" \t\r\n") == std::string::npos;
}

}  // namespace

std::filesystem::path FileSetup::rootSupportFolder() {
    return Utils::rootHome() / ".local/share/MorvaneCloud";
}

void FileSetup::watchUserFiles() {
    for (const auto& url : {Utils::configFileURL(), Utils::deviceFileURL()}) {
        if (url) {
            directoryObserver->watch(*url);
        }
    }
}

void FileSetup::watchRootFiles() {
    for (const char* name : {"config.json", "device.json"}) {
        directoryObserver->watch(rootSupportFolder() / name);
    }
}

bool FileSetup::hasConfigFile() {
    const auto url = Utils::configFileURL();
    std::error_code ignored;
    return url && std::filesystem::exists(*url, ignored);
}

bool FileSetup::hasServerURL() {
    const auto url = settings->getValue(MorvaneServerInfoSection::rpcURL);
    return url && readsAsURL(*url);
}

bool FileSetup::importInstallerConfiguration() {
    logger->log("Testing if the installer has just run", LogLevel::production);
    if (hasConfigFile() && hasServerURL() && settings->installKey) {
        return true;
    }
    const auto installerFile = Utils::installerConfigurationURL();
    logger->log("Reading install path from " + installerFile.string(), LogLevel::production);
    const auto text = platform::readTextFile(installerFile);
    if (!text) {
        logger->log("Config file doesnt exist at ~Library/Caches/config.json. Recreating",
                    LogLevel::production);
    }
    Utils::getValuesFromInstaller(*settings);
    if (text) {
        if (const auto url = Utils::configFileURL()) {
            logger->log("configuration picked up from installer is " + *text, LogLevel::production);
            return configWriter->saveConfigFile(*text, *url);
        }
    }
    return true;
}

}  // namespace morvane
