#include "helper/CertHelper.h"

#include "helper/CertificateTrust.h"
#include "helper/HelperFiles.h"
#include "sys/Files.h"
#include "helper/HttpFetch.h"
#include "helper/ShellCommand.h"
#include "helper/TarnLogHelper.h"

namespace morvane {

namespace {

void log(const std::string& line) {
    TarnLogHelper::sharedInstance()->log(line);
}

}  // namespace

std::optional<std::filesystem::path> CertHelper::downloadFilePath(const std::string& fileName) {
    const std::string name = std::filesystem::path(fileName).filename().string();
    if (name.empty() || name == "." || name == "..") {
        return std::nullopt;
    }
    return helper::supportFile(name);
}

std::optional<std::filesystem::path> CertHelper::downloadCert(const std::string& url,
                                                              const std::string& fileName) {
    const auto target = downloadFilePath(fileName);
    if (!target) {
        log("Invalid file name: " + fileName);
        return std::nullopt;
    }
    log("Target folder " + target->parent_path().string());
    log("Downloading file from: " + url + " and save as " + target->string());
    const auto result = helper::fetch(url);
    if (!result.data) {
        log("Download Error:" + result.error);
        return target;
    }
    std::string error;
    if (!sys::writeFileAtomically(*target, *result.data, 0644, error)) {
        log("Failed to write file: " + error);
    } else {
        log("File is saved to " + target->string());
    }
    return target;
}

bool CertHelper::importCert(const std::string& path) {
    std::string error;
    const auto data = sys::readWholeFile(path, &error);
    const auto pem = data ? helper::certificatePem(*data) : std::nullopt;
    if (!pem) {
        log("Failed to import cert \"" + path + "\": " + (data ? "not a certificate" : error));
        return true;
    }
    std::filesystem::path placed;
    if (helper::addTrustedCertificate(*pem, helper::certificateName(path), placed, error) ==
        helper::AddResult::failed) {
        log("Failed to import cert \"" + path + "\": " + error);
        return true;
    }
    const std::string command = helper::trustUpdateCommand();
    const std::string output = helper::runCommand(command);
    log("Command " + command + " output " + output);
    return true;
}

}  // namespace morvane
