#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

namespace morvane {

/// The privileged service's own small log: "tarnHelper.log" in the helper's folder, one line
/// "[yyyy-MM-dd HH:mm:ss.SSS] message" each, with one generation of backup (".bak") made at
/// start when the file has grown past 1 MiB.
class TarnLogHelper {
public:
    /// Above this size the log is moved to its backup at the next start; exactly this size stays.
    static constexpr std::uintmax_t kMaxLogBytes = 1048576;

    explicit TarnLogHelper(std::filesystem::path path);

    /// The one instance, on "tarnHelper.log" of the helper's folder. A test that moves
    /// $MORVANECLOUD_SYSROOT gets a fresh instance on the new place.
    static std::shared_ptr<TarnLogHelper> sharedInstance();

    /// Appends one line. The file is opened and closed for each line; when it cannot be opened
    /// the line is lost.
    void log(const std::string& message);

    /// Creates the file when it is missing; moves one larger than 1 MiB to the ".bak" name
    /// (replacing an older backup) and starts an empty one.
    static void manageLogfile(const std::string& path);

    const std::string path;

private:
    std::mutex mutex_;
};

}  // namespace morvane
