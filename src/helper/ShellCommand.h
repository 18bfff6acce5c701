#pragma once

#include <string>

namespace morvane::helper {

/// Runs `/bin/sh -c command` with a pipe as its standard output, reads the pipe to its end and
/// gives it back; blocks until the output ends. The system log gets "run command: <command>".
std::string runCommand(const std::string& command);
/// The same, also giving the exit status (-1 when the shell could not run or was killed).
std::string runCommand(const std::string& command, int& exitStatus);

/// The text in single quotes for the shell, whatever it holds.
std::string shellQuoted(const std::string& text);

}  // namespace morvane::helper
