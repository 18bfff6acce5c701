#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace morvane::test {

/// A function that a test executable can run as a second process of its own, instead of its
/// tests: the way to check what survives the end of a process. Register one at namespace
/// scope with MORVANE_CHILD_ROLE(name) { ...; return exitStatus; }.
using ChildRole = int (*)();
bool registerChildRole(const char* name, ChildRole role);
/// Called by the test runner's main: runs the role named in $MORVANE_TEST_CHILD_ROLE, if any,
/// and gives its exit status.
std::optional<int> runChildRoleIfAsked();

/// Starts the current test executable as the named child role, with extra environment
/// variables, waits for it and returns its exit status (-1 when it could not run or died of
/// a signal).
int runChild(const std::string& role, const std::map<std::string, std::string>& environment,
             std::string* output = nullptr);
/// Starts the current test executable as the named child role without waiting for it; the
/// caller reaps it with waitpid. Gives -1 when it could not start.
int startChild(const std::string& role, const std::map<std::string, std::string>& environment);

/// Runs a program with arguments and extra environment and returns its exit status, with
/// standard output and error collected into `output` when given.
int runProgram(const std::vector<std::string>& argv,
               const std::map<std::string, std::string>& environment,
               std::string* output = nullptr);

}  // namespace morvane::test

#define MORVANE_CHILD_ROLE(name)                                             \
    static int morvaneChildRole_##name();                                    \
    [[maybe_unused]] static const bool morvaneChildRoleRegistered_##name =   \
        ::morvane::test::registerChildRole(#name, &morvaneChildRole_##name); \
    static int morvaneChildRole_##name()
