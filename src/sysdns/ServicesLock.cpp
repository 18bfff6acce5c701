#include "sysdns/ServicesLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace morvane::sysdns {

bool ServicesLock::lock() {
    if (fd_ >= 0) {
        return true;
    }
    std::error_code ignored;
    std::filesystem::create_directories(path_.parent_path(), ignored);
    const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    bool locked = fd >= 0;
    while (locked && ::flock(fd, LOCK_EX) != 0) {
        locked = errno == EINTR;
    }
    if (!locked) {
        if (log_) {
            log_("Cannot take the lock of the network services at " + path_.string() + ": " +
                 std::strerror(errno));
        }
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    fd_ = fd;
    return true;
}

void ServicesLock::unlock() {
    if (fd_ >= 0) {
        ::close(fd_);  // releases the flock
        fd_ = -1;
    }
}

}  // namespace morvane::sysdns
