#include "helper/TarnLogHelper.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "helper/HelperFiles.h"

namespace morvane {

namespace {

/// "yyyy-MM-dd HH:mm:ss.SSS" in local time.
std::string timestamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    char stamp[48];
    std::snprintf(stamp, sizeof stamp, "%.*s.%03d", static_cast<int>(length), text,
                  static_cast<int>(millis));
    return stamp;
}

void createEmpty(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
    if (fd >= 0) {
        ::close(fd);
    }
}

}  // namespace

TarnLogHelper::TarnLogHelper(std::filesystem::path logPath) : path(logPath.string()) {
    manageLogfile(path);
}

std::shared_ptr<TarnLogHelper> TarnLogHelper::sharedInstance() {
    static std::mutex mutex;
    static std::shared_ptr<TarnLogHelper> instance;
    const std::lock_guard lock(mutex);
    const auto place = helper::supportFile("tarnHelper.log");
    if (!instance || instance->path != place.string()) {
        instance = std::make_shared<TarnLogHelper>(place);
    }
    return instance;
}

void TarnLogHelper::manageLogfile(const std::string& logPath) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(logPath).parent_path(), error);
    if (!std::filesystem::exists(logPath, error)) {
        createEmpty(logPath);
        return;
    }
    const auto size = std::filesystem::file_size(logPath, error);
    if (error || size <= kMaxLogBytes) {
        return;
    }
    const std::string backup = logPath + ".bak";
    std::filesystem::remove(backup, error);
    std::filesystem::rename(logPath, backup, error);
    createEmpty(logPath);
}

void TarnLogHelper::log(const std::string& message) {
    const std::string line = "[" + timestamp() + "] " + message + "\n";
    // Lines of concurrent connections stay whole; O_APPEND keeps them in one file with other
    // writers.
    const std::lock_guard lock(mutex_);
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
        if (n <= 0) {
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    ::close(fd);
}

}  // namespace morvane
