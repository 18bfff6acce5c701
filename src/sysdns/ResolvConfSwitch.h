#pragma once

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sysdns/DnsSwitch.h"

namespace morvane::sysdns {

/// The switch for machines where nothing manages /etc/resolv.conf: the file is rewritten to
/// name the proxy only, and the bytes it had (or the symlink it was) come back on restore.
/// The record of the switch and the original lie in the state folder under /run; as the file
/// itself is on disk and outlives a power cut, a copy of that record also lies in a durable
/// folder, which restore reads when /run was emptied by a reboot and the file is still ours.
class ResolvConfSwitch : public DnsSwitch {
public:
    struct Options {
        std::filesystem::path path = "/etc/resolv.conf";
        /// Where the original and the record of the switch are kept.
        std::filesystem::path stateDirectory;
        /// A folder that survives a reboot; empty for none.
        std::filesystem::path durableDirectory;
        std::function<void(const std::string&)> log;
    };

    explicit ResolvConfSwitch(Options options);
    ~ResolvConfSwitch() override;

    std::string name() const override { return "resolv.conf"; }
    bool supportsSplitDns() const override { return false; }
    bool apply(const SwitchTarget& target, std::string& error) override;
    bool restore(std::string& error) override;
    std::vector<std::string> originalServers() const override;

    bool stillApplied() override;
    int changeDescriptor() override;
    void takeChanges() override;

    /// The file written while switched: a header, the proxy, and the original's search and
    /// options lines.
    static std::string render(const std::string& address, const std::string& original);
    /// The header line that marks a file as ours.
    static const char* const kHeader;

private:
    std::vector<std::filesystem::path> recordDirectories() const;
    bool saveRecord(const std::string& original, bool existed, const std::string& proxyAddress,
                    std::string& error);
    void dropRecords();
    void log(const std::string& line) const;
    void watchFile();

    Options options_;
    mutable std::mutex mutex_;
    std::optional<std::string> written_;
    std::vector<std::string> originalServers_;
    int inotify_ = -1;
    int fileWatch_ = -1;
};

}  // namespace morvane::sysdns
