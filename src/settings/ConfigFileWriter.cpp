#include "settings/ConfigFileWriter.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "messages/JSONCoding.h"
#include "platform/Files.h"
#include "platform/StandardOutput.h"
#include "sys/Files.h"
#include "sys/SystemPaths.h"
#include "settings/KeyValueText.h"
#include "settings/Utils.h"

namespace morvane {

namespace fs = std::filesystem;

fs::path ConfigFileWriter::handOverFileURL() {
    return sys::systemPath("/tmp/.tarncookie");
}

bool ConfigFileWriter::saveConfigFile(const std::string& text, const fs::path& url) {
    logger->log("saving config file to " + url.string(), LogLevel::production);
    // The policy and the device key are the user's own: nobody else reads them, whatever
    // umask the agent or the install command was started with.
    std::string failure;
    if (!sys::writeFileAtomically(url, text, 0600, failure)) {
        platform::printLine("A write error occured " + failure);
        return false;
    }
    Utils::fixOwner(url);
    return true;
}

void ConfigFileWriter::saveConfiguration(const MainConfiguration& configuration, bool quiet) {
    std::string error;
    const auto text = encodeJSON(configuration, &error);
    if (!text) {
        logger->log("Failed to get JSON string from the device register " + error,
                    LogLevel::production);
    } else if (const auto url = Utils::configFileURL()) {
        saveConfigFile(*text, *url);
    }
    if (!quiet) {
        logger->log("Configuration Succeeded:: Configration file", LogLevel::production);
        logger->log(text.value_or(""), LogLevel::production);
    }
}

void ConfigFileWriter::deleteHandOverFile() {
    std::error_code error;
    if (!fs::remove(handOverFileURL(), error) && !error) {
        error = std::make_error_code(std::errc::no_such_file_or_directory);
    }
    if (error) {
        platform::printLine("failed to delete item at path /tmp with " + error.message());
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
}

void ConfigFileWriter::writeHandOverFile(const std::map<std::string, std::string>& entries) {
    deleteHandOverFile();
    const fs::path url = handOverFileURL();
    // Root writes it and the user's agent reads it, and the agent ignores a file that others
    // may write: the mode is set here rather than left to the umask of the shell that ran sudo.
    std::string failure;
    if (!sys::writeFileAtomically(url, key_value_text::format(entries), 0644, failure)) {
        platform::printLine("file could not be written to file://" + url.string() + " with " +
                            failure);
    }
}

}  // namespace morvane
