#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "messages/MainConfiguration.h"

namespace morvane {

/// Writes the agent's files: always whole, through a temporary file and a rename, so that a
/// reader or a crash never meets half a file.
class ConfigFileWriter {
public:
    /// Where a command-line run as root leaves its values for the user's agent.
    static std::filesystem::path handOverFileURL();

    /// Writes the text to the file and gives it to the user named by "PWD".
    bool saveConfigFile(const std::string& text, const std::filesystem::path& url);
    /// Saves the enrolment answer as "config.json" with sorted keys. An answer that cannot be
    /// encoded leaves the stored file alone.
    void saveConfiguration(const MainConfiguration& configuration, bool quiet);
    /// Replaces the hand-over file with the KEY=VALUE text of the entries.
    void writeHandOverFile(const std::map<std::string, std::string>& entries);
    /// Removes the hand-over file, then waits one second (blocking) so that a watcher sees
    /// the new file with a modification time of its own.
    void deleteHandOverFile();

    Injected<TarnLogger> logger;
    bool SANDBOXED = false;
};

}  // namespace morvane
