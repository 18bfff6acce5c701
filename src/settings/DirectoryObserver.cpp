#include "settings/DirectoryObserver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "platform/Files.h"
#include "platform/MainQueue.h"
#include "platform/StandardOutput.h"
#include "settings/ConfigFileWriter.h"
#include "settings/InstallerHelper.h"
#include "settings/KeyValueText.h"
#include "settings/Utils.h"

namespace morvane {

namespace fs = std::filesystem;
using platform::MainQueue;

namespace {

bool createIfMissing(const fs::path& path) {
    std::error_code error;
    if (fs::exists(path, error)) {
        return true;
    }
    std::ofstream create(path, std::ios::app);
    return static_cast<bool>(create);
}

}  // namespace

DirectoryObserver::DirectoryObserver()
    : concurrentQueue(platform::DispatchQueue::create("DirectoryObserver.queue",
                                                      platform::DispatchQueue::Kind::concurrent)),
      savedFileDate(fs::file_time_type::clock::now()) {}

DirectoryObserver::~DirectoryObserver() = default;

void DirectoryObserver::watch(const fs::path& url) {
    createIfMissing(url);
    startTimer();
    auto watch = platform::FileWatch::start(url, [weak = weak_from_this(), url] {
        if (auto self = weak.lock()) {
            self->fileChanged(url);
        }
    });
    if (watch) {
        watches_.push_back(std::move(watch));
    }
}

void DirectoryObserver::startTimer() {
    // A new generation silences the ticks of the timer of an earlier call: one timer runs.
    scheduleTick(++timerGeneration_);
}

void DirectoryObserver::scheduleTick(std::uint64_t generation) {
    const auto interval = std::chrono::duration_cast<platform::Clock::duration>(
        std::chrono::duration<double>(timerInterval));
    MainQueue::after(interval, [weak = weak_from_this(), generation] {
        auto self = weak.lock();
        if (!self || self->timerGeneration_ != generation) {
            return;
        }
        self->checkHandOverFile();
        self->scheduleTick(generation);
    });
}

void DirectoryObserver::fileChanged(const fs::path& url) {
    const fs::path rootFolder = Utils::rootHome();
    const std::string text = url.lexically_normal().string();
    const std::string root = rootFolder.lexically_normal().string();
    if (text.rfind(root + "/", 0) == 0) {
        std::optional<fs::path> target;
        if (url.filename() == "device.json") {
            target = Utils::deviceFileURL();
        } else if (url.filename() == "config.json") {
            target = Utils::configFileURL();
        }
        if (target) {
            std::error_code error;
            // Like the platform's copy, never over an existing file.
            fs::copy_file(url, *target, fs::copy_options::none, error);
            if (error) {
                logger->log("failed to copy url " + url.string() + " to url " + target->string() +
                                " with error " + error.message(),
                            LogLevel::production);
            }
        }
    }
    if (auto configuration = Utils::readDeviceConfiguration()) {
        notificationPublisher->post(ChangeType::deviceConfigEditedLocally, *configuration);
    } else {
        notificationPublisher->post(ChangeType::deviceConfigEditedLocally);
    }
}

bool DirectoryObserver::isTrustedHandOverFile(const fs::path& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        return false;
    }
    const bool ownerTrusted = info.st_uid == 0 || info.st_uid == ::geteuid();
    const bool writableByOthers = (info.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (S_ISREG(info.st_mode) && ownerTrusted && !writableByOthers) {
        return true;
    }
    logger->log("ignoring the hand-over file " + path.string() +
                    ": it must be a plain file of root or of this user that nobody else can "
                    "write",
                LogLevel::production);
    return false;
}

bool DirectoryObserver::hasFileChanged(const fs::path& path) {
    std::error_code error;
    if (!fs::exists(path, error)) {
        return false;
    }
    const auto modified = fs::last_write_time(path, error);
    if (error || modified == savedFileDate) {
        return false;
    }
    savedFileDate = modified;
    return true;
}

void DirectoryObserver::checkHandOverFile() {
    const fs::path path = ConfigFileWriter::handOverFileURL();
    if (!hasFileChanged(path)) {
        return;
    }
    // The path is shared and world-writable: a file planted by someone else must not
    // redirect the agent to another server.
    if (!isTrustedHandOverFile(path)) {
        return;
    }
    logger->log("Install params have changed", LogLevel::production);
    std::string error;
    if (const auto text = platform::readTextFile(path, &error)) {
        for (const auto& [key, value] : key_value_text::parse(*text)) {
            platform::printLine("getValuesFromInstaller:  saving value " + value + " for key " +
                                std::string(rawValue(key)));
            settings->setValue(value, key);
        }
    } else {
        platform::printLine("failed to get the reat the path " + path.string() +
                            " with error: " + error);
    }
    logger->log("reConfiguring server", LogLevel::production);
    installerHelper->runInstallCheck(true, [logger = logger.get()] {
        logger->log("updated configuration because the root configuration was updated",
                    LogLevel::production);
    });
}

}  // namespace morvane
