#pragma once

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <string>

namespace morvane::sys {

/// An owned file descriptor, closed when it goes.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor();

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release();
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

/// Listens on a Unix stream socket at `path` with the given permission bits, creating the
/// folder if needed. A socket file left by a dead process is replaced; one that still answers
/// is an error ("address in use"), so two instances never steal each other's socket.
/// On failure returns an invalid descriptor and says why in `error`.
FileDescriptor listenUnix(const std::filesystem::path& path, mode_t mode, std::string& error);

/// Connects to the Unix stream socket at `path`, waiting at most `timeout`.
FileDescriptor connectUnix(const std::filesystem::path& path, std::chrono::milliseconds timeout,
                           std::string& error);

/// Writes all of `bytes`, waiting at most `timeout` for room; false on error or time-out.
bool writeAll(int fd, std::string_view bytes, std::chrono::milliseconds timeout);

/// The folder of the sockets and the run-time state of the three programs, /run/morvanecloud
/// (under $MORVANECLOUD_SYSROOT when set).
std::filesystem::path runtimeDirectory();

}  // namespace morvane::sys
