#include "helper/HelperFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>

#include "sys/SystemPaths.h"

namespace morvane::helper {

namespace {

std::string lastError(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

}  // namespace

std::filesystem::path supportDirectory() {
    return sys::systemPath("/var/lib/morvanecloud");
}

std::filesystem::path supportFile(const std::string& name) {
    const auto folder = supportDirectory();
    std::error_code ignored;
    std::filesystem::create_directories(folder, ignored);
    return folder / name;
}

bool writeFileAtomically(const std::filesystem::path& path, const std::string& content, mode_t mode,
                         std::string& error) {
    std::string temporary = path.string() + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        error = lastError("cannot create a temporary file beside " + path.string());
        return false;
    }
    bool written = fchmod(fd, mode) == 0;
    std::size_t done = 0;
    while (written && done < content.size()) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        written = n > 0;
        done += written ? static_cast<std::size_t>(n) : 0;
    }
    written = written && fsync(fd) == 0;
    if (!written) {
        error = lastError("cannot write " + temporary);
    }
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        if (written) {
            error = lastError("cannot rename " + temporary + " to " + path.string());
        }
        ::unlink(temporary.c_str());
        return false;
    }
    const auto folder =
        path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
    if (const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
        fsync(dir);
        ::close(dir);
    }
    return true;
}

std::optional<std::string> readWholeFile(const std::filesystem::path& path, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = lastError("cannot open " + path.string());
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        error = "cannot read " + path.string();
        return std::nullopt;
    }
    return text.str();
}

}  // namespace morvane::helper
