#include "platform/RunningApplications.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <system_error>

namespace morvane::platform {

namespace {

std::string fileName(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The files of /proc are small and report no size, so they are read in pieces.
std::string readText(const std::filesystem::path& path) {
    std::string text;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count <= 0 || text.size() > 65536) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(fd);
    return text;
}

}  // namespace

std::vector<std::string> runningApplicationNames(const std::filesystem::path& proc) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(proc, error), end; !error && it != end;
         it.increment(error)) {
        const std::string pid = it->path().filename().string();
        if (pid.empty() ||
            !std::all_of(pid.begin(), pid.end(), [](char c) { return c >= '0' && c <= '9'; })) {
            continue;
        }
        std::vector<std::string> own;
        auto add = [&own](std::string name) {
            while (!name.empty() && (name.back() == '\n' || name.back() == '\0')) {
                name.pop_back();
            }
            if (!name.empty() && std::find(own.begin(), own.end(), name) == own.end()) {
                own.push_back(std::move(name));
            }
        };
        add(readText(it->path() / "comm"));
        std::error_code linkError;
        const auto executable = std::filesystem::read_symlink(it->path() / "exe", linkError);
        if (!linkError) {
            // A replaced executable reads "name (deleted)"; the name is what counts.
            std::string name = fileName(executable.string());
            if (const auto mark = name.rfind(" (deleted)");
                mark != std::string::npos && mark + 10 == name.size()) {
                name.erase(mark);
            }
            add(name);
        }
        const std::string commandLine = readText(it->path() / "cmdline");
        add(fileName(commandLine.substr(0, commandLine.find('\0'))));
        std::move(own.begin(), own.end(), std::back_inserter(names));
    }
    return names;
}

}  // namespace morvane::platform
