#pragma once

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "app/ApplicationStartHelper.h"
#include "platform/DispatchQueue.h"
#include "settings/Settings.h"

namespace morvane {

/// Exit statuses of the program, so that an install script can tell what happened.
enum class ExitStatus : int {
    success = 0,
    /// The install command's values failed validation; nothing was enrolled.
    invalidArguments = 1,
    /// The values were stored, but an action they asked for (STOP, RESET) cannot be carried
    /// out by this build.
    actionNotAvailable = 4,
};

/// Decides which of its two roles the process plays and runs that role's sequence: the
/// agent in the user's session, or the install command started from a shell.
class AppDelegate {
public:
    /// How the delegate ends the process; the program's main makes it end the event loop.
    using Terminate = std::function<void(ExitStatus)>;

    AppDelegate(std::vector<std::string> arguments, Terminate terminate);

    /// The whole start sequence; one block of main-thread work.
    void start();
    /// The answer to a request to quit: true when the process may go at once.
    bool applicationShouldTerminate(bool sessionEnding);

    ApplicationStartHelper appHelper;
    Injected<TarnLogger> logger;
    Injected<Settings> settings;
    std::shared_ptr<platform::DispatchQueue> concurrentQueue;

private:
    void startAgent();
    void startCommandLine();
    void clearSettings();
    void handleCommandLine(const std::vector<std::string>& arguments);
    void downloadCertificateIfNeeded();
    bool stopProxyIfNeeded();
    bool resetExtensionIfNeeded();
    void finishCommandLineRun();
    void registerAppDefaults();
    void endExtensionAndQuit();
    void notCarriedOut(const std::string& what);
    void terminate();
    static bool installExtensionRequested();
    static bool isRunningInDevelopmentTool();

    std::vector<std::string> arguments_;
    Terminate terminate_;
    bool wasRunFromCommandLine_ = false;
    bool terminated_ = false;
    ExitStatus status_ = ExitStatus::success;
    std::future<void> certificateDownload_;
};

}  // namespace morvane
