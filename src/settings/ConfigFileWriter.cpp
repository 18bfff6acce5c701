#include "settings/ConfigFileWriter.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "messages/JSONCoding.h"
#include "platform/Files.h"
#include "platform/StandardOutput.h"
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
    if (auto failure = platform::writeFileAtomically(url, text)) {
        platform::printLine("A write error occured " + *failure);
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
    std::error_code ignored;
    fs::create_directories(url.parent_path(), ignored);
    if (auto failure = platform::writeFileAtomically(url, key_value_text::format(entries))) {
        platform::printLine("file could not be written to file://" + url.string() + " with " +
                            *failure);
    }
}

}  // namespace morvane
