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

int runProgram(const std::vector<std::string>& argv,
               const std::map<std::string, std::string>& environment, std::string* output) {
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
    if (output != nullptr) {
        if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
            return -1;
        }
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    }
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (output != nullptr) {
        ::close(pipeFds[1]);
        if (spawned == 0) {
            char buffer[4096];
            ssize_t n;
            while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) {
                output->append(buffer, static_cast<size_t>(n));
            }
        }
        ::close(pipeFds[0]);
    }
    if (spawned != 0) {
        return -1;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

namespace {

constexpr const char* kRoleVariable = "MORVANE_TEST_CHILD_ROLE";

std::map<std::string, ChildRole>& roles() {
    static std::map<std::string, ChildRole> registered;
    return registered;
}

}  // namespace

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
    char self[4096];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
        return -1;
    }
    self[length] = '\0';
    auto withRole = environment;
    withRole[kRoleVariable] = role;
    return runProgram({self}, withRole, output);
}

}  // namespace morvane::test
