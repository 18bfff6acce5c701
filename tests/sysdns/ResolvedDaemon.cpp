#include "sysdns/ResolvedDaemon.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "sysdns/PrivateWorld.h"

namespace morvane::sysdns::test {

namespace fs = std::filesystem;

namespace {

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

fs::path binary(const fs::path& root) {
    for (const char* candidate :
         {"lib/systemd/systemd-resolved", "usr/lib/systemd/systemd-resolved"}) {
        if (fs::exists(root / candidate)) {
            return root / candidate;
        }
    }
    return {};
}

}  // namespace

ResolvedDaemon::ResolvedDaemon(fs::path folder) : folder_(std::move(folder)) {}

ResolvedDaemon::~ResolvedDaemon() {
    stop();
}

bool ResolvedDaemon::prepare(const fs::path& unpackInto, std::string& error) {
    std::string output;
    std::string systemd;
    if (::morvane::test::runProgram({"/usr/bin/dpkg-query", "-W", "-f=${Version}", "systemd"}, {},
                                    &systemd) != 0) {
        error = "systemd is not installed as a Debian package: " + systemd;
        return false;
    }
    systemd = trimmed(systemd);
    const fs::path cache = ::morvane::test::binaryDir() / "test-cache/systemd-resolved";
    fs::create_directories(cache);
    fs::path package;
    for (const auto& entry : fs::directory_iterator(cache)) {
        if (entry.path().extension() == ".deb") {
            package = entry.path();
        }
    }
    std::string version;
    if (!package.empty()) {
        ::morvane::test::runProgram({"/usr/bin/dpkg-deb", "-f", package.string(), "Version"}, {},
                                    &version);
        if (trimmed(version) != systemd) {
            fs::remove(package);
            package.clear();
        }
    }
    if (package.empty()) {
        // apt-get download writes into the working folder; a shell sets that.
        const std::string command =
            "cd '" + cache.string() + "' && apt-get download -q systemd-resolved=" + systemd;
        if (::morvane::test::runProgram({"/bin/sh", "-c", command}, {}, &output) != 0) {
            error = "cannot download systemd-resolved " + systemd + ": " + output;
            return false;
        }
        for (const auto& entry : fs::directory_iterator(cache)) {
            if (entry.path().extension() == ".deb") {
                package = entry.path();
            }
        }
    }
    fs::create_directories(unpackInto);
    if (package.empty() ||
        ::morvane::test::runProgram(
            {"/usr/bin/dpkg-deb", "-x", package.string(), unpackInto.string()}, {}, &output) != 0 ||
        binary(unpackInto).empty()) {
        error = "cannot unpack systemd-resolved: " + output;
        return false;
    }
    return true;
}

bool ResolvedDaemon::start(std::string& error) {
    const fs::path program = binary(folder_ / "root");
    if (program.empty()) {
        error = "systemd-resolved is not unpacked in " + (folder_ / "root").string();
        return false;
    }
    // Its user, in private copies of the account files.
    if (::getpwnam("systemd-resolve") == nullptr) {
        ::morvane::test::writeFile(folder_ / "passwd",
                                   ::morvane::test::readFile("/etc/passwd") +
                                       "systemd-resolve:x:990:990::/:/usr/sbin/nologin\n");
        ::morvane::test::writeFile(folder_ / "group", ::morvane::test::readFile("/etc/group") +
                                                          "systemd-resolve:x:990:\n");
        if (!bindOver(folder_ / "passwd", "/etc/passwd", error) ||
            !bindOver(folder_ / "group", "/etc/group", error)) {
            return false;
        }
    }
    if (!mountTmpfs("/run/systemd", error)) {
        return false;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
        const int log = ::open(logFile().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
        ::setenv("SYSTEMD_LOG_LEVEL", "debug", 1);
        ::execl(program.c_str(), "systemd-resolved", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    if (pid_ < 0) {
        error = "cannot start systemd-resolved";
        return false;
    }
    bool ended = false;
    int status = 0;
    const bool owned = waitUntil(
        [&] {
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                ended = true;
                return true;
            }
            std::string output;
            return ::morvane::test::runProgram(
                       {"/usr/bin/busctl", "--system", "status", "org.freedesktop.resolve1"}, {},
                       &output) == 0;
        },
        std::chrono::seconds(30));
    if (!owned || ended) {
        if (ended) {
            pid_ = -1;
        }
        error = std::string("systemd-resolved did not take its bus name") +
                (ended ? " (it ended)" : "") + ": " + ::morvane::test::readFile(logFile());
        return false;
    }
    return true;
}

void ResolvedDaemon::stop() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

}  // namespace morvane::sysdns::test
