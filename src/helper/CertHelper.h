#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace morvane {

/// The service's certificate work in two steps: download to a file of the helper's folder,
/// then import the file into the machine's trust store. Both log through `TarnLogHelper`.
class CertHelper {
public:
    /// The file of that name in the helper's folder. Only the last component of the name is
    /// used, so a caller cannot place a file elsewhere; none for a name that has none.
    static std::optional<std::filesystem::path> downloadFilePath(const std::string& fileName);
    /// Fetches the URL and writes what came, atomically, to the target; gives the target
    /// whether or not the file is there (none only for a name that gives no target).
    static std::optional<std::filesystem::path> downloadCert(const std::string& url,
                                                             const std::string& fileName);
    /// Adds the certificate in the file (PEM or DER) to the trust store and updates the
    /// system's list; always true, the outcome is in the log.
    static bool importCert(const std::string& path);
};

}  // namespace morvane
