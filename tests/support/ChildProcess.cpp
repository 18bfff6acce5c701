#include "support/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace morvane::test {

namespace {

constexpr const char* kRoleVariable = "MORVANE_TEST_CHILD_ROLE";

std::map<std::string, ChildRole>& roles() {
    static std::map<std::string, ChildRole> registered;
    return registered;
}

std::string selfPath() {
    char self[4096];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    return length > 0 ? std::string(self, static_cast<std::size_t>(length)) : std::string();
}

// Spawns the program with the environment merged over ours. With `pipeOut`, standard output
// and error go into a new pipe whose read end is handed back there.
pid_t spawn(const std::vector<std::string>& argv,
            const std::map<std::string, std::string>& environment, int* pipeOut) {
    std::map<std::string, std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const char* equals = std::strchr(*entry, '=');
        if (equals != nullptr) {
            merged[std::string(*entry, static_cast<std::size_t>(equals - *entry))] = equals + 1;
        }
    }
    for (const auto& [name, value] : environment) {
        merged[name] = value;
    }
    std::vector<std::string> envText;
    for (const auto& [name, value] : merged) {
        envText.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& text : envText) {
        envp.push_back(text.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (auto& arg : args) {
        argp.push_back(arg.data());
    }
    argp.push_back(nullptr);

    int pipeFds[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (pipeOut != nullptr) {
        if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
            posix_spawn_file_actions_destroy(&actions);
            return -1;
        }
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    }
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (pipeOut != nullptr) {
        ::close(pipeFds[1]);
        if (spawned == 0) {
            *pipeOut = pipeFds[0];
        } else {
            ::close(pipeFds[0]);
        }
    }
    return spawned == 0 ? pid : -1;
}

}  // namespace

int runProgram(const std::vector<std::string>& argv,
               const std::map<std::string, std::string>& environment, std::string* output) {
    int pipeFd = -1;
    const pid_t pid = spawn(argv, environment, output != nullptr ? &pipeFd : nullptr);
    if (pid < 0) {
        return -1;
    }
    if (pipeFd >= 0) {
        char buffer[4096];
        ssize_t n;
        while ((n = ::read(pipeFd, buffer, sizeof buffer)) > 0) {
            output->append(buffer, static_cast<std::size_t>(n));
        }
        ::close(pipeFd);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
    auto withRole = environment;
    withRole[kRoleVariable] = role;
    return runProgram({selfPath()}, withRole, output);
}

int startChild(const std::string& role, const std::map<std::string, std::string>& environment) {
    auto withRole = environment;
    withRole[kRoleVariable] = role;
    return spawn({selfPath()}, withRole, nullptr);
}

}  // namespace morvane::test
