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
    enum class TerminateReply { now, later };
    /// The answer to a request to quit. `sessionEnding` tells a quit by the end of the user's
    /// session from one by the user. `later`: the provider's configuration is being removed and
    /// `replyToTerminate` is called on the main queue when the process may go.
    TerminateReply applicationShouldTerminate(bool sessionEnding,
                                              std::function<void()> replyToTerminate);
    /// The last word before the process ends.
    void applicationWillTerminate();

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
    void terminateOtherInstances();
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
