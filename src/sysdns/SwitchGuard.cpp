#include "sysdns/SwitchGuard.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace morvane::sysdns {

SwitchGuard::SwitchGuard(DnsSwitch& dnsSwitch, Options options)
    : switch_(dnsSwitch), options_(std::move(options)) {}

SwitchGuard::~SwitchGuard() {
    std::unique_lock lock(mutex_);
    stopWatching(lock);
}

bool SwitchGuard::engage(const SwitchTarget& target, std::string& error) {
    std::unique_lock lock(mutex_);
    stopWatching(lock);
    if (!switch_.apply(target, error)) {
        return false;
    }
    target_ = target;
    engaged_ = true;
    stopping_ = false;
    reasserts_ = 0;
    recent_.clear();
    if (::pipe2(wakeFds_, O_CLOEXEC | O_NONBLOCK) != 0) {
        wakeFds_[0] = wakeFds_[1] = -1;
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

bool SwitchGuard::release(std::string& error) {
    std::unique_lock lock(mutex_);
    stopWatching(lock);
    return switch_.restore(error);
}

bool SwitchGuard::engaged() const {
    std::lock_guard lock(mutex_);
    return engaged_;
}

int SwitchGuard::reasserts() const {
    std::lock_guard lock(mutex_);
    return reasserts_;
}

void SwitchGuard::stopWatching(std::unique_lock<std::mutex>& lock) {
    engaged_ = false;
    if (!thread_.joinable()) {
        return;
    }
    stopping_ = true;
    if (wakeFds_[1] >= 0) {
        const char byte = 0;
        [[maybe_unused]] const auto ignored = ::write(wakeFds_[1], &byte, 1);
    }
    auto thread = std::move(thread_);
    lock.unlock();
    thread.join();
    lock.lock();
    for (int& fd : wakeFds_) {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
}

void SwitchGuard::run() {
    using Clock = std::chrono::steady_clock;
    Clock::time_point pausedUntil{};
    while (true) {
        pollfd fds[2] = {{wakeFds_[0], POLLIN, 0}, {switch_.changeDescriptor(), POLLIN, 0}};
        ::poll(fds, 2, static_cast<int>(options_.checkInterval.count()));
        if (fds[1].revents != 0) {
            switch_.takeChanges();
        }
        std::unique_lock lock(mutex_);
        if (stopping_) {
            return;
        }
        const auto now = Clock::now();
        if (now < pausedUntil || switch_.stillApplied()) {
            continue;
        }
        while (!recent_.empty() && now - recent_.front() > options_.window) {
            recent_.pop_front();
        }
        if (static_cast<int>(recent_.size()) >= options_.maxReasserts) {
            if (options_.log) {
                options_.log(
                    "Another program keeps changing the system's DNS settings (" + switch_.name() +
                    "); the switch was applied again " + std::to_string(recent_.size()) +
                    " times and now waits " +
                    std::to_string(
                        std::chrono::duration_cast<std::chrono::seconds>(options_.window).count()) +
                    " s before it tries again");
            }
            pausedUntil = now + options_.window;
            recent_.clear();
            continue;
        }
        recent_.push_back(now);
        ++reasserts_;
        std::string error;
        if (!switch_.apply(target_, error)) {
            if (options_.log) {
                options_.log("The switch could not be applied again: " + error);
            }
        } else if (options_.log) {
            options_.log("The system's DNS settings were changed under the switch (" +
                         switch_.name() + "); applied again");
        }
    }
}

}  // namespace morvane::sysdns
