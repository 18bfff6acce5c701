#include "app/AppDelegate.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "helper/DownloadCertManager.h"
#include "platform/MainQueue.h"
#include "platform/RunningInstances.h"
#include "platform/StandardOutput.h"
#include "platform/SystemLog.h"
#include "platform/URL.h"
#include "proxy/NetworkExtensionManager.h"
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
        NetworkExtensionManager::shared()->activateExtension();
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
    NetworkExtensionManager::shared()->stopProxy();
    return true;
}

bool AppDelegate::resetExtensionIfNeeded() {
    logger->log("resetExtensionIfNeeded", LogLevel::production);
    if (settings->userDefaults->stringForKey("RESET") != "true") {
        return false;
    }
    NetworkExtensionManager::shared()->deactivateExtension([this](std::optional<ProxyError> error) {
        // The request's completion comes on a queue of the proxy control; the process is
        // ended from the main queue.
        MainQueue::async([this, failed = error.has_value()] {
            if (failed) {
                logger->log("failed to removed extension", LogLevel::production);
            } else {
                terminateOtherInstances();
            }
            terminate();
        });
    });
    return true;
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
    if (wasRunFromCommandLine_ && status_ == ExitStatus::success) {
        status_ = ExitStatus::invalidArguments;
    }
    // Only begins the quit: the rest of the start runs on until the unload has reported back.
    NetworkExtensionManager::shared()->unloadConfigurations(
        true, [this](std::optional<ProxyError>) { MainQueue::async([this] { terminate(); }); });
}

void AppDelegate::terminateOtherInstances() {
    // A quit asked of each, as the user's own quit would.
    for (const pid_t pid : platform::otherInstances()) {
        ::kill(pid, SIGINT);
    }
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

AppDelegate::TerminateReply AppDelegate::applicationShouldTerminate(
    bool sessionEnding, std::function<void()> replyToTerminate) {
    if (wasRunFromCommandLine_) {
        return TerminateReply::now;
    }
    settings->userDefaults->setBool(true, "uninstalling");
    auto observer = appHelper.changeObserver.get();
    observer->cancelSubscriptions(observer->cancellables);
    if (sessionEnding) {
        // Configuration and provider stay in place, and so does "uninstalling": the next
        // start of the session asks for no activation, the one after it does.
        return TerminateReply::now;
    }
    auto manager = NetworkExtensionManager::shared();
    manager->unloadConfigurations(false, [](std::optional<ProxyError> error) {
        if (error) {
            platform::writeSystemLog("Error removing preferences " + error->localizedDescription);
        } else {
            platform::writeSystemLog("Removed extension from preferences");
        }
    });
    // The user's quit on Linux (SIGINT, `--quit`) comes without the menu's own quit before it,
    // which would have made the manager refuse new cycles. A pass still queued, or the refresh
    // the provider's stop report would publish, must not switch the proxy back on between the
    // removal just sent and the end of the process: so the manager refuses from here on.
    manager->isTerminating = true;
    manager->deactivateExtension(
        [this, replyToTerminate = std::move(replyToTerminate)](std::optional<ProxyError>) {
            MainQueue::async([this, replyToTerminate] {
                settings->userDefaults->removeObjectForKey("uninstalling");
                settings->userDefaults->synchronize();
                if (replyToTerminate) {
                    replyToTerminate();
                }
            });
        });
    return TerminateReply::later;
}

void AppDelegate::applicationWillTerminate() {
    platform::printLine("applicationWillTerminate");
}

bool AppDelegate::installExtensionRequested() {
    return !environmentIs("INSTALLEXTENSION", "false");
}

bool AppDelegate::isRunningInDevelopmentTool() {
    return environmentIs("XCODE", "running");
}

}  // namespace morvane
