#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

class QSettings;

namespace morvane::platform {

/// The user's persistent key and value store, in INI form at
/// $XDG_CONFIG_HOME/MorvaneCloud/defaults.ini. Values are texts or booleans. Registered
/// defaults answer for keys that have no stored value and are never written to the file.
/// Safe to use from any thread.
class UserDefaults {
public:
    using Value = std::variant<std::string, bool>;

    /// The store of the current user, opened once per process at the path above (read at
    /// first use, so HOME and XDG_CONFIG_HOME must be settled before).
    static std::shared_ptr<UserDefaults> standard();
    /// A store at an explicit file, for tests and for the root helper.
    explicit UserDefaults(std::filesystem::path file);
    ~UserDefaults();
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    static std::filesystem::path standardPath();
    const std::filesystem::path& path() const { return path_; }

    /// The text of a key, stored or registered. Booleans are kept as "true" and "false", so
    /// that they read the same before and after a restart.
    std::optional<std::string> stringForKey(const std::string& key) const;
    /// True when the text, after blanks, a sign and leading zeros, starts with "Y", "y", "T",
    /// "t" or a digit from 1 to 9.
    bool boolForKey(const std::string& key) const;

    void setValue(const std::string& value, const std::string& key);
    void setBool(bool value, const std::string& key);
    void removeObjectForKey(const std::string& key);
    /// Adds to the registered defaults (kept in memory only, never written).
    void registerDefaults(const std::map<std::string, Value>& defaults);
    /// Every stored key with its value (registered defaults not included).
    std::map<std::string, std::string> dictionaryRepresentation() const;
    /// Writes pending changes and reads changes of other processes; false on a write error.
    bool synchronize();

private:
    std::filesystem::path path_;
    mutable std::mutex mutex_;
    std::unique_ptr<QSettings> settings_;
    std::map<std::string, Value> registered_;
};

}  // namespace morvane::platform
