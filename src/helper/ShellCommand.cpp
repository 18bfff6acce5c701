#include "helper/ShellCommand.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace morvane::helper {

std::string runCommand(const std::string& command) {
    int ignored = 0;
    return runCommand(command, ignored);
}

std::string shellQuoted(const std::string& text) {
    std::string out = "'";
    for (const char c : text) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

std::string runCommand(const std::string& command, int& exitStatus) {
    exitStatus = -1;
    syslog(LOG_INFO, "run command: %s", command.c_str());
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        return {};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    std::string shell = "/bin/sh";
    std::string dashC = "-c";
    std::string text = command;
    char* argv[] = {shell.data(), dashC.data(), text.data(), nullptr};
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    std::string output;
    if (spawned == 0) {
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(pipeFds[0], buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                break;
            }
            output.append(buffer, static_cast<std::size_t>(n));
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        if (WIFEXITED(status)) {
            exitStatus = WEXITSTATUS(status);
        }
    }
    ::close(pipeFds[0]);
    return output;
}

}  // namespace morvane::helper
