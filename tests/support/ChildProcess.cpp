#include "support/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

extern char** environ;

namespace morvane::test {

namespace {

constexpr const char* kRoleVariable = "MORVANE_TEST_CHILD_ROLE";

std::map<std::string, ChildRole>& roles() {
    static std::map<std::string, ChildRole> registered;
    return registered;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (auto& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

// Spawns the program with the environment given over ours. With `pipeOut`, standard output
// and error go into a new pipe whose read end is handed back there.
pid_t spawn(std::vector<std::string> argv, const std::map<std::string, std::string>& environment,
            int* pipeOut) {
    std::vector<std::string> envText;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (environment.count(text.substr(0, text.find('='))) == 0) {
            envText.push_back(text);
        }
    }
    for (const auto& [name, value] : environment) {
        envText.push_back(name + "=" + value);
    }

    int pipeFds[2] = {-1, -1};
    if (pipeOut != nullptr && ::pipe2(pipeFds, O_CLOEXEC) != 0) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (pipeOut != nullptr) {
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    }
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, argv[0].c_str(), &actions, nullptr,
                                      pointers(argv).data(), pointers(envText).data());
    posix_spawn_file_actions_destroy(&actions);
    if (pipeOut != nullptr) {
        ::close(pipeFds[1]);
        *pipeOut = pipeFds[0];
    }
    return spawned == 0 ? pid : -1;
}

std::string selfPath() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

std::map<std::string, std::string> withRole(const std::string& role,
                                            std::map<std::string, std::string> environment) {
    environment[kRoleVariable] = role;
    return environment;
}

}  // namespace

int runProgram(const std::vector<std::string>& argv,
               const std::map<std::string, std::string>& environment, std::string* output) {
    int pipeFd = -1;
    const pid_t pid = spawn(argv, environment, output != nullptr ? &pipeFd : nullptr);
    if (pipeFd >= 0) {
        char buffer[4096];
        for (ssize_t n; (n = ::read(pipeFd, buffer, sizeof buffer)) > 0;) {
            output->append(buffer, static_cast<std::size_t>(n));
        }
        ::close(pipeFd);
    }
    int status = 0;
    pid_t waited = -1;
    while (pid >= 0 && (waited = ::waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
    }
    return waited == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool registerChildRole(const char* name, ChildRole role) {
    roles()[name] = role;
    return true;
}

std::optional<int> runChildRoleIfAsked() {
    const char* name = std::getenv(kRoleVariable);
    if (name == nullptr || *name == '\0') {
        return std::nullopt;
    }
    const auto role = roles().find(name);
    if (role == roles().end()) {
        std::fprintf(stderr, "no child role named %s in this test executable\n", name);
        return 127;
    }
    return role->second();
}

int runChild(const std::string& role, const std::map<std::string, std::string>& environment,
             std::string* output) {
    return runProgram({selfPath()}, withRole(role, environment), output);
}

int startChild(const std::string& role, const std::map<std::string, std::string>& environment) {
    return spawn({selfPath()}, withRole(role, environment), nullptr);
}

int startProgram(const std::vector<std::string>& argv,
                 const std::map<std::string, std::string>& environment) {
    return spawn(argv, environment, nullptr);
}

}  // namespace morvane::test
