#include "sys/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace morvane::sys {

namespace {

std::string describe(const std::string& what, const std::filesystem::path& path, int code) {
    return "Cannot " + what + " " + path.string() + ": " + std::strerror(code);
}

void syncFolder(const std::filesystem::path& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

// Writes the temporary file; gives its path, or an empty path with errno set.
std::filesystem::path writeTemporary(const std::filesystem::path& path, const std::string& content,
                                     mode_t mode) {
    std::string name = (path.parent_path() / ("." + path.filename().string() + ".XXXXXX")).string();
    const int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) {
        return {};
    }
    const bool ok = ::fchmod(fd, mode) == 0 && writeAllTo(fd, content) && ::fsync(fd) == 0;
    const int saved = errno;
    ::close(fd);
    if (!ok) {
        ::unlink(name.c_str());
        errno = saved;
        return {};
    }
    return name;
}

bool writeInPlace(const std::filesystem::path& path, const std::string& content, int& code) {
    // No O_TRUNC: the old bytes stay until the new ones are there, then the tail is cut.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        code = errno;
        return false;
    }
    const bool ok = writeAllTo(fd, content) &&
                    ::ftruncate(fd, static_cast<off_t>(content.size())) == 0 && ::fsync(fd) == 0;
    code = errno;
    ::close(fd);
    return ok;
}

}  // namespace

bool writeAllTo(int fd, std::string_view content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

std::optional<std::string> readWholeFile(const std::filesystem::path& path, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error) {
            *error = describe("open", path, errno);
        }
        return std::nullopt;
    }
    std::ostringstream bytes;
    bytes << in.rdbuf();
    if (in.bad()) {
        if (error) {
            *error = describe("read", path, errno);
        }
        return std::nullopt;
    }
    return bytes.str();
}

bool writeFileAtomically(const std::filesystem::path& path, const std::string& content, mode_t mode,
                         std::string& error) {
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);
    const auto temporary = writeTemporary(path, content, mode);
    if (temporary.empty()) {
        error = describe("write", path, errno);
        return false;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        error = describe("write", path, errno);
        ::unlink(temporary.c_str());
        return false;
    }
    syncFolder(path.parent_path());
    return true;
}

bool replaceOrWriteInPlace(const std::filesystem::path& path, const std::string& content,
                           mode_t mode, WriteMethod& method, std::string& error) {
    const auto temporary = writeTemporary(path, content, mode);
    if (!temporary.empty()) {
        if (::rename(temporary.c_str(), path.c_str()) == 0) {
            syncFolder(path.parent_path());
            method = WriteMethod::Replaced;
            return true;
        }
        const int code = errno;
        ::unlink(temporary.c_str());
        if (code != EBUSY && code != EXDEV && code != EPERM) {
            error = describe("replace", path, code);
            return false;
        }
    }
    // The folder refused a new file, or the name is a mount point: the file's own inode is
    // what others read, so it is written where it is.
    int code = 0;
    if (!writeInPlace(path, content, code)) {
        error = describe("write", path, code);
        return false;
    }
    method = WriteMethod::InPlace;
    return true;
}

}  // namespace morvane::sys
