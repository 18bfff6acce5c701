#include "platform/FileAppend.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstring>
#include <system_error>

#include "sys/Files.h"

namespace morvane::platform {

namespace {

int openForAppend(const std::filesystem::path& file) {
    int fd;
    do {
        fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

AppendResult failure(AppendResult::Status status, int error) {
    return {status, std::strerror(error)};
}

}  // namespace

AppendResult appendLocked(const std::filesystem::path& file, std::string_view bytes,
                          bool syncToDisk) {
    // Opening first and creating folders only on ENOENT keeps the common case to one
    // system call instead of a lookup before every line.
    int fd = openForAppend(file);
    if (fd < 0 && errno == ENOENT && file.has_parent_path()) {
        std::error_code error;
        std::filesystem::create_directories(file.parent_path(), error);
        if (error) {
            return {AppendResult::Status::couldNotWrite, error.message()};
        }
        fd = openForAppend(file);
    }
    if (fd < 0) {
        return failure(AppendResult::Status::couldNotWrite, errno);
    }

    int locked;
    do {
        locked = ::flock(fd, LOCK_EX);
    } while (locked != 0 && errno == EINTR);
    if (locked != 0) {
        const int error = errno;
        ::close(fd);
        return failure(AppendResult::Status::couldNotLock, error);
    }

    AppendResult result;
    if (!sys::writeAllTo(fd, bytes)) {
        result = failure(AppendResult::Status::couldNotWrite, errno);
    }
    if (result.status == AppendResult::Status::written && syncToDisk && ::fsync(fd) != 0) {
        result = failure(AppendResult::Status::couldNotWrite, errno);
    }
    // Closing the descriptor releases the lock.
    if (::close(fd) != 0 && result.status == AppendResult::Status::written && errno != EINTR) {
        result = failure(AppendResult::Status::couldNotWrite, errno);
    }
    return result;
}

}  // namespace morvane::platform
