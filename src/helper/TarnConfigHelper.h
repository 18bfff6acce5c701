#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace morvane {

/// Edits single values of the system-wide "config.ini" in the helper's folder without parsing
/// the file as a whole: a key line "key=value" is replaced wherever it stands, or added as the
/// first line of its section when it is new.
///
/// The key is taken literally in the search pattern and the value literally in the
/// replacement, so that a location key holding "$" or "\" is written as it is given and a key
/// never acts as a pattern.
class TarnConfigHelper {
public:
    static bool updateConfigFileSection(const std::string& section, const std::string& key,
                                        const std::string& value);
    static std::filesystem::path configFilePath();
    static std::optional<std::string> configFileContent();
    /// Replaces the file atomically: a reader sees the old or the new text, never a part.
    static bool setConfigFileContent(const std::string& content);
};

}  // namespace morvane
