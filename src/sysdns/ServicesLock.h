#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace morvane::sysdns {

/// Exclusive access to the network services among changers in this and other processes: an
/// flock(2) on a file under /run, taken through a descriptor of its own, so two holders in one
/// process wait for each other as well. The kernel drops it when its holder dies.
class ServicesLock {
public:
    ServicesLock(std::filesystem::path path, std::function<void(const std::string&)> log)
        : path_(std::move(path)), log_(std::move(log)) {}
    ~ServicesLock() { unlock(); }
    ServicesLock(const ServicesLock&) = delete;
    ServicesLock& operator=(const ServicesLock&) = delete;

    /// Waits. Without a lock file (no /run to write), holds nothing, logs it and says false.
    bool lock();
    void unlock();

private:
    std::filesystem::path path_;
    std::function<void(const std::string&)> log_;
    int fd_ = -1;
};

}  // namespace morvane::sysdns
