#include "ui/DesktopSession.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace morvane::test {

namespace {

constexpr auto kStartLimit = std::chrono::seconds(60);

}  // namespace

DesktopSession::DesktopSession() = default;

DesktopSession::~DesktopSession() {
    // Latest first: the notification daemon before the bus and the X server it uses.
    for (auto it = children_.rbegin(); it != children_.rend(); ++it) {
        ::kill(*it, SIGTERM);
        int status = 0;
        ::waitpid(*it, &status, 0);
    }
}

bool DesktopSession::hasProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        auto colon = dirs.find(':', start);
        if (colon == std::string::npos) {
            colon = dirs.size();
        }
        const std::string candidate = dirs.substr(start, colon - start) + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return true;
        }
        start = colon + 1;
    }
    return false;
}

std::map<std::string, std::string> DesktopSession::environment() const {
    std::map<std::string, std::string> env;
    if (!display_.empty()) {
        env["DISPLAY"] = display_;
    }
    if (!busAddress_.empty()) {
        env["DBUS_SESSION_BUS_ADDRESS"] = busAddress_;
    }
    env["XDG_RUNTIME_DIR"] = folder().string();
    env["HOME"] = folder().string();
    env["XDG_CONFIG_HOME"] = (folder() / "config").string();
    return env;
}

pid_t DesktopSession::spawn(const std::vector<std::string>& argv, int outputFd,
                            const std::map<std::string, std::string>& extra) {
    std::map<std::string, std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos) {
            env[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    for (const auto& [name, value] : environment()) {
        env[name] = value;
    }
    for (const auto& [name, value] : extra) {
        env[name] = value;
    }
    std::vector<std::string> envTexts;
    for (const auto& [name, value] : env) {
        envTexts.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& text : envTexts) {
        envp.push_back(text.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (auto& arg : args) {
        argp.push_back(arg.data());
    }
    argp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string log = (folder() / (argv.front() + ".log")).string();
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (outputFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, outputFd, 3);
    }
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        failure_ = argv.front() + " could not start: " + std::strerror(error);
        return -1;
    }
    children_.push_back(pid);
    return pid;
}

std::optional<std::string> DesktopSession::readLine(int fd) {
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd entry{fd, POLLIN, 0};
        if (::poll(&entry, 1, 200) <= 0) {
            continue;
        }
        char c = 0;
        const ssize_t got = ::read(fd, &c, 1);
        if (got <= 0) {
            return std::nullopt;
        }
        if (c == '\n') {
            return line;
        }
        line += c;
    }
    return std::nullopt;
}

bool DesktopSession::startX() {
    if (!hasProgram("Xvfb")) {
        failure_ = "Xvfb is not installed (Debian package xvfb)";
        return false;
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        failure_ = "no pipe";
        return false;
    }
    const pid_t pid = spawn(
        {"Xvfb", "-displayfd", "3", "-screen", "0", "1024x640x24", "-nolisten", "tcp", "-noreset"},
        fds[1]);
    ::close(fds[1]);
    const auto number = pid > 0 ? readLine(fds[0]) : std::nullopt;
    ::close(fds[0]);
    if (!number || number->empty()) {
        failure_ = "Xvfb did not report a display";
        return false;
    }
    display_ = ":" + *number;
    return true;
}

bool DesktopSession::startBus() {
    if (!hasProgram("dbus-daemon")) {
        failure_ = "dbus-daemon is not installed (Debian package dbus)";
        return false;
    }
    const auto config = folder() / "session.conf";
    writeFile(config,
              "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig><type>session</type>\n"
              "<listen>unix:dir=" +
                  folder().string() +
                  "</listen>\n"
                  "<auth>EXTERNAL</auth>\n"
                  "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                  "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>\n"
                  "</busconfig>\n");
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        failure_ = "no pipe";
        return false;
    }
    const pid_t pid =
        spawn({"dbus-daemon", "--config-file=" + config.string(), "--nofork", "--print-address=3"},
              fds[1]);
    ::close(fds[1]);
    const auto address = pid > 0 ? readLine(fds[0]) : std::nullopt;
    ::close(fds[0]);
    if (!address || address->empty()) {
        failure_ = "dbus-daemon did not report its address";
        return false;
    }
    busAddress_ = *address;
    return true;
}

bool DesktopSession::startNotificationDaemon() {
    if (!hasProgram("dunst")) {
        failure_ = "dunst is not installed (Debian package dunst)";
        return false;
    }
    // Notices stay up until closed, so that a test sees what is on screen.
    const auto config = folder() / "dunstrc";
    writeFile(config,
              "[global]\n    font = Sans 10\n    width = 360\n    offset = 12x12\n"
              "    origin = top-right\n    frame_color = \"#0F7C8C\"\n"
              "[urgency_normal]\n    background = \"#FFFFFF\"\n    foreground = \"#202020\"\n"
              "    timeout = 0\n");
    return spawn({"dunst", "-config", config.string()}) > 0;
}

}  // namespace morvane::test
