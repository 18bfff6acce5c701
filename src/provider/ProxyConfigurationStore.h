#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "provider/ProxyConfiguration.h"

namespace morvane::provider {

/// The one file that holds the stored proxy configuration. Writes are atomic (a temporary
/// file beside it, flushed to the disk, then renamed over it), so a power cut leaves the old
/// configuration or the new one. A file that cannot be read or parsed, whatever the reason,
/// means no configuration.
class ProxyConfigurationStore {
public:
    /// The file's place: /var/lib/morvanecloud/dnsproxy.json, under $MORVANECLOUD_SYSROOT.
    static std::filesystem::path defaultFile();

    explicit ProxyConfigurationStore(std::filesystem::path file);

    const std::filesystem::path& file() const { return file_; }

    /// The stored configuration; none when there is no file. A file that does not read
    /// gives none too, with the reason in `problem` (empty when the file simply is not there).
    std::optional<ProxyConfiguration> load(std::string& problem) const;
    /// Replaces the stored configuration; false with `error` set, the old file untouched.
    bool save(const ProxyConfiguration& configuration, std::string& error) const;
    /// Deletes the file; true when it is gone (also when there was none).
    bool remove(std::string& error) const;
    /// Moves an unreadable file aside (".bad" appended) so that an administrator can look at
    /// it and the next save does not overwrite the evidence; the path it went to, or none.
    std::optional<std::filesystem::path> setAside(std::string& error) const;

private:
    std::filesystem::path file_;
};

}  // namespace morvane::provider
