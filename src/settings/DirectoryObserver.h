#pragma once

#include <filesystem>
#include <memory>
#include <vector>

#include "core/Injected.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "platform/DispatchQueue.h"
#include "platform/FileWatch.h"
#include "settings/Settings.h"

namespace morvane {

class InstallerHelper;

/// Watches the agent's configuration files and the hand-over file of the install command.
///
/// A change of a watched file becomes `deviceConfigEditedLocally`; a change of root's copy is
/// first copied into the user's folder. Every 10 seconds the hand-over file is looked at: a
/// new modification date means new values from a run as root, which are imported before a
/// fresh install check runs.
class DirectoryObserver : public std::enable_shared_from_this<DirectoryObserver> {
public:
    DirectoryObserver();
    ~DirectoryObserver();

    /// Watches the file, creating it empty when it is missing, and (re)starts the timer of
    /// the hand-over file. Main thread only.
    void watch(const std::filesystem::path& url);

    /// One tick of the hand-over timer; the timer calls it, tests may too.
    void checkHandOverFile();

    Injected<NotificationPublisher> notificationPublisher;
    Injected<TarnLogger> logger;
    Injected<Settings> settings;
    Injected<InstallerHelper> installerHelper;

    const double tolerance = 2.0;
    const double timerInterval = 10.0;
    std::shared_ptr<platform::DispatchQueue> concurrentQueue;
    std::filesystem::file_time_type savedFileDate;

private:
    void startTimer();
    void scheduleTick(std::uint64_t generation);
    void fileChanged(const std::filesystem::path& url);
    bool hasFileChanged(const std::filesystem::path& path);
    bool isTrustedHandOverFile(const std::filesystem::path& path);

    // Every watch stays live for the life of the observer, one per watched file.
    std::vector<std::unique_ptr<platform::FileWatch>> watches_;
    std::uint64_t timerGeneration_ = 0;
};

}  // namespace morvane
