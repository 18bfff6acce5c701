#include "sys/UnixSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sys/SystemPaths.h"

namespace morvane::sys {

namespace {

using Clock = std::chrono::steady_clock;

std::string errnoText(int error) {
    return std::strerror(error);
}

bool fillAddress(const std::filesystem::path& path, sockaddr_un& address, std::string& error) {
    const std::string text = path.string();
    if (text.size() >= sizeof address.sun_path) {
        error = "socket path too long: " + text;
        return false;
    }
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
    return true;
}

int remainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

FileDescriptor::~FileDescriptor() {
    reset();
}

int FileDescriptor::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void FileDescriptor::reset(int fd) {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

FileDescriptor connectUnix(const std::filesystem::path& path, std::chrono::milliseconds timeout,
                           std::string& error) {
    sockaddr_un address{};
    if (!fillAddress(path, address, error)) {
        return {};
    }
    FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        error = "socket: " + errnoText(errno);
        return {};
    }
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno != EINPROGRESS && errno != EAGAIN) {
            error = "cannot connect to " + path.string() + ": " + errnoText(errno);
            return {};
        }
        pollfd waiting{fd.get(), POLLOUT, 0};
        const int ready = ::poll(&waiting, 1, static_cast<int>(timeout.count()));
        int soError = 0;
        socklen_t length = sizeof soError;
        if (ready <= 0 || ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &soError, &length) != 0 ||
            soError != 0) {
            error =
                "cannot connect to " + path.string() + ": " +
                (ready == 0 ? std::string("timed out") : errnoText(soError != 0 ? soError : errno));
            return {};
        }
    }
    return fd;
}

FileDescriptor listenUnix(const std::filesystem::path& path, mode_t mode, std::string& error) {
    sockaddr_un address{};
    if (!fillAddress(path, address, error)) {
        return {};
    }
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    if (ec) {
        error = "cannot create " + path.parent_path().string() + ": " + ec.message();
        return {};
    }
    if (std::filesystem::is_socket(std::filesystem::symlink_status(path, ec))) {
        std::string probeError;
        if (connectUnix(path, std::chrono::milliseconds(500), probeError).valid()) {
            error = "address in use: another process serves " + path.string();
            return {};
        }
        ::unlink(path.c_str());
    } else if (std::filesystem::exists(std::filesystem::symlink_status(path, ec))) {
        error = path.string() + " exists and is not a socket";
        return {};
    }
    FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        error = "socket: " + errnoText(errno);
        return {};
    }
    // The socket file is created with the final mode, never briefly wider.
    const mode_t old = ::umask(static_cast<mode_t>(~mode & 0777));
    const int bound = ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int bindErrno = errno;
    ::umask(old);
    if (bound != 0) {
        error = "cannot bind " + path.string() + ": " + errnoText(bindErrno);
        return {};
    }
    ::chmod(path.c_str(), mode);
    if (::listen(fd.get(), 64) != 0) {
        error = "cannot listen on " + path.string() + ": " + errnoText(errno);
        ::unlink(path.c_str());
        return {};
    }
    return fd;
}

bool writeAll(int fd, std::string_view bytes, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!bytes.empty()) {
        const ssize_t written = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (written > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
            continue;
        }
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd waiting{fd, POLLOUT, 0};
            const int left = remainingMs(deadline);
            if (left == 0 || ::poll(&waiting, 1, left) <= 0) {
                return false;
            }
            continue;
        }
        return false;
    }
    return true;
}

std::filesystem::path runtimeDirectory() {
    return systemPath("/run/morvanecloud");
}

}  // namespace morvane::sys
