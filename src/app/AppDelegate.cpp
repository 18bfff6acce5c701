#include "app/AppDelegate.h"

#include <cstdio>
#include <cstdlib>

#include "helper/DownloadCertManager.h"
#include "platform/MainQueue.h"
#include "platform/StandardOutput.h"
#include "platform/URL.h"
#include "settings/Utils.h"

namespace morvane {

using Key = MorvaneServerInfoSection;
using platform::MainQueue;

namespace {

bool environmentIs(const char* name, const char* value) {
    const char* found = std::getenv(name);
    return found != nullptr && std::string(found) == value;
}

}  // namespace

AppDelegate::AppDelegate(std::vector<std::string> arguments, Terminate terminate)
    : concurrentQueue(platform::DispatchQueue::create("AppDelegate.queue",
                                                      platform::DispatchQueue::Kind::concurrent)),
      arguments_(std::move(arguments)),
      terminate_(std::move(terminate)) {}

void AppDelegate::start() {
    appHelper.setupDependencies();
    wasRunFromCommandLine_ = Utils::wasRunFromCommandLine();
    if (wasRunFromCommandLine_) {
        startCommandLine();
    } else {
        startAgent();
    }
}

void AppDelegate::startAgent() {
    platform::printLine("was not run from the command line");
    auto& fileSetup = appHelper.fileSetup;
    if (fileSetup.importInstallerConfiguration()) {
        settings->reloadConfiguration();
    }
    fileSetup.watchUserFiles();
    fileSetup.watchRootFiles();
    settings->setValue("false", Key::showTestMenu);
    if (installExtensionRequested() && !settings->userDefaults->boolForKey("uninstalling")) {
        logger->log(
            "The DNS proxy extension cannot be activated: this build has no DNS proxy "
            "control yet",
            LogLevel::production);
    }
    settings->userDefaults->removeObjectForKey("uninstalling");
    registerAppDefaults();
    appHelper.changeObserver->startObserving();
}

void AppDelegate::registerAppDefaults() {
    settings->userDefaults->registerDefaults({{"TRAY_TYPE", std::string("2")},
                                              {"LogDebug", true},
                                              {"SHOW_TEST_MENU", std::string("true")}});
    settings->userDefaults->synchronize();
}

void AppDelegate::startCommandLine() {
    platform::printLine("wasRunFromCommandLine");
    clearSettings();
    handleCommandLine(arguments_);
    downloadCertificateIfNeeded();
    // A termination ends the process on the spot: no later step runs after it.
    if (!terminated_ && !stopProxyIfNeeded()) {
        finishCommandLineRun();
    }
    if (!terminated_ && !resetExtensionIfNeeded()) {
        finishCommandLineRun();
    }
}

void AppDelegate::clearSettings() {
    for (const Key key : server_info::allCases) {
        if (key != Key::installKey) {
            settings->userDefaults->removeObjectForKey(std::string(rawValue(key)));
        }
    }
    settings->userDefaults->synchronize();
}

void AppDelegate::handleCommandLine(const std::vector<std::string>& arguments) {
    if (std::getenv("XCTestConfigurationFilePath") != nullptr) {
        return;
    }
    auto installer = Dependencies::shared()->resolve<InstallerHelper>();
    installer->saveInstallerDict = InstallerHelper::parseArguments(arguments);
    installer->numberOfArguments = installer->saveInstallerDict.size();
    if (!installer->validateAndStoreParameters()) {
        endExtensionAndQuit();
        return;
    }
    settings->saveConfig(true, false);
}

void AppDelegate::downloadCertificateIfNeeded() {
    const auto& defaults = settings->userDefaults;
    if (!defaults->stringForKey("RPC_URL") || defaults->stringForKey("DOWNLOAD_CERT") != "true") {
        return;
    }
    std::string text = *defaults->stringForKey("RPC_URL");
    for (auto at = text.find("https"); at != std::string::npos; at = text.find("https", at)) {
        text.replace(at, 5, "http");
        at += 4;
    }
    const auto url = platform::URL::parse(text);
    if (!url || !url->host()) {
        return;
    }
    std::string path = url->path();
    for (const char* component : {"ssl", "ca.der"}) {
        path += (path.empty() || path.back() != '/' ? "/" : "") + std::string(component);
    }
    const auto withPort = platform::URL::make(url->scheme(), *url->host(), url->port(), path);
    const auto withoutPort = platform::URL::make(url->scheme(), *url->host(), std::nullopt, path);
    const auto& chosen = withoutPort ? withoutPort : withPort;
    if (!chosen) {
        return;
    }
    // The install command ends soon after; it waits for this work in terminate() so that the
    // certificate is not cut off half-way.
    certificateDownload_ = DownloadCertManager::downloadAndInstallCertFrom(chosen->text());
}

bool AppDelegate::stopProxyIfNeeded() {
    logger->log("stopProxyIfNeeded", LogLevel::production);
    if (settings->userDefaults->stringForKey("STOP") != "TRUE") {
        return false;
    }
    notCarriedOut("STOP=TRUE (stopping the DNS proxy)");
    return true;
}

bool AppDelegate::resetExtensionIfNeeded() {
    logger->log("resetExtensionIfNeeded", LogLevel::production);
    if (settings->userDefaults->stringForKey("RESET") != "true") {
        return false;
    }
    notCarriedOut("RESET=true (resetting the DNS proxy)");
    // The deactivation would have ended the process when it reported back.
    MainQueue::async([this] { terminate(); });
    return true;
}

void AppDelegate::notCarriedOut(const std::string& what) {
    std::fprintf(stderr,
                 "morvanecloud: %s is stored but not carried out: this build has no DNS proxy "
                 "control or certificate installation yet\n",
                 what.c_str());
    if (status_ == ExitStatus::success) {
        status_ = ExitStatus::actionNotAvailable;
    }
}

void AppDelegate::finishCommandLineRun() {
    if (Utils::isRunningAsRoot()) {
        settings->saveConfig(true, true);
        terminate();
        return;
    }
    auto installer = Dependencies::shared()->resolve<InstallerHelper>();
    installer->runInstallCheck(true, [this] {
        MainQueue::async([this] {
            if (isRunningInDevelopmentTool()) {
                platform::printLine("Is running in xCode");
                return;
            }
            MainQueue::after(std::chrono::seconds(3), [this] {
                platform::printLine("quitting");
                terminate();
            });
        });
    });
}

void AppDelegate::endExtensionAndQuit() {
    status_ = ExitStatus::invalidArguments;
    // Only begins the quit: the rest of the start runs on until the unload has reported
    // back. Nothing of the proxy's configuration exists to unload in this build, so the
    // report is the next block of the main queue.
    MainQueue::async([this] { terminate(); });
}

void AppDelegate::terminate() {
    if (terminated_) {
        return;
    }
    terminated_ = true;
    if (certificateDownload_.valid()) {
        certificateDownload_.wait();
    }
    if (terminate_) {
        terminate_(status_);
    }
}

bool AppDelegate::applicationShouldTerminate(bool sessionEnding) {
    if (wasRunFromCommandLine_) {
        return true;
    }
    settings->userDefaults->setBool(true, "uninstalling");
    auto observer = appHelper.changeObserver.get();
    observer->cancelSubscriptions(observer->cancellables);
    if (sessionEnding) {
        // Configuration and extension stay as they are, and so does "uninstalling".
        return true;
    }
    // Removing the proxy's configuration and the extension needs DNS proxy control, which
    // this build does not have yet: the process goes as at the end of a session.
    logger->log("quitting without removing the DNS proxy: this build has no DNS proxy control",
                LogLevel::production);
    return true;
}

bool AppDelegate::installExtensionRequested() {
    return !environmentIs("INSTALLEXTENSION", "false");
}

bool AppDelegate::isRunningInDevelopmentTool() {
    return environmentIs("XCODE", "running");
}

}  // namespace morvane
