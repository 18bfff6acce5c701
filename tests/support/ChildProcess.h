#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace morvane::test {

/// A function that the test executable runs as a second process of its own instead of its
/// tests: the way to check what survives the end of a process. Register one at namespace
/// scope with MORVANE_CHILD_ROLE(name) { ...; return exitStatus; }.
using ChildRole = int (*)();
bool registerChildRole(const char* name, ChildRole role);
/// For the test runner's main: the exit status of the role this process was started as.
std::optional<int> runChildRoleIfAsked();

/// Runs the test executable as the named role with extra environment, or any program, and
/// gives its exit status (-1 when it could not run or died of a signal), with standard
/// output and error collected into `output` when given.
int runChild(const std::string& role, const std::map<std::string, std::string>& environment,
             std::string* output = nullptr);
int runProgram(const std::vector<std::string>& argv,
               const std::map<std::string, std::string>& environment,
               std::string* output = nullptr);
/// Starts the role without waiting: the caller reaps the process id with waitpid. Gives -1
/// when it could not start.
int startChild(const std::string& role, const std::map<std::string, std::string>& environment);
/// Starts a program without waiting, its output going where ours goes; -1 when it could not.
int startProgram(const std::vector<std::string>& argv,
                 const std::map<std::string, std::string>& environment);

}  // namespace morvane::test

#define MORVANE_CHILD_ROLE(name)                                             \
    static int morvaneChildRole_##name();                                    \
    [[maybe_unused]] static const bool morvaneChildRoleRegistered_##name =   \
        ::morvane::test::registerChildRole(#name, &morvaneChildRole_##name); \
    static int morvaneChildRole_##name()
