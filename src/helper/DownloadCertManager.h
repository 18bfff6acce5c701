#pragma once

#include <future>
#include <string>

namespace morvane {

/// Fetches the service's root certificate and makes the machine trust it, for the install
/// command. The work runs on a thread of its own; the future ends when it is done, so that the
/// command can wait for it before it exits.
class DownloadCertManager {
public:
    static std::future<void> downloadAndInstallCertFrom(const std::string& url);
    /// The same, on the caller's thread.
    static void downloadAndInstall(const std::string& url);
};

}  // namespace morvane
