#include "helper/DownloadCertManager.h"

#include "helper/CertificateTrust.h"
#include "helper/HttpFetch.h"
#include "helper/ShellCommand.h"
#include "helper/TarnLogHelper.h"

namespace morvane {

namespace {

void log(const std::string& line) {
    TarnLogHelper::sharedInstance()->log(line);
}

}  // namespace

std::future<void> DownloadCertManager::downloadAndInstallCertFrom(const std::string& url) {
    return std::async(std::launch::async, [url] { downloadAndInstall(url); });
}

void DownloadCertManager::downloadAndInstall(const std::string& url) {
    log("Install Cert Requesting from " + url);
    const auto result = helper::fetch(url);
    log("Cert request complete " + result.description);
    if (!result.data) {
        log("Failed to retrieve cert " + result.error);
        return;
    }
    if (result.data->empty()) {
        log("Certificate contained no data");
        return;
    }
    const auto pem = helper::certificatePem(*result.data);
    if (!pem) {
        log("Failed to read cert: the data from " + url + " is not a certificate");
        return;
    }
    std::filesystem::path placed;
    std::string error;
    const std::string name = helper::certificateName(url.substr(url.rfind('/') + 1));
    if (helper::addTrustedCertificate(*pem, name, placed, error) != helper::AddResult::added) {
        log("Failed to add cert " + error);
        return;
    }
    int status = 0;
    const std::string command = helper::trustUpdateCommand();
    const std::string output = helper::runCommand(command, status);
    if (status != 0) {
        log("Failed to update cert " + command + " exited with status " + std::to_string(status) +
            ": " + output);
    }
}

}  // namespace morvane
