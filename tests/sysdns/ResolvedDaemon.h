#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace morvane::sysdns::test {

/// The real systemd-resolved, unpacked from its Debian package into a temporary folder (never
/// installed on the machine) and run inside the test's namespaces against the private system
/// bus. It runs without systemd as PID 1: it needs only its user (added to a private copy of
/// /etc/passwd bound over the machine's inside the mount namespace), a private /run/systemd
/// and the bus. The package must be of the machine's systemd version, whose shared library it
/// links; anything else is a reason to skip, given in `error`.
class ResolvedDaemon {
public:
    explicit ResolvedDaemon(std::filesystem::path folder);
    ~ResolvedDaemon();
    ResolvedDaemon(const ResolvedDaemon&) = delete;
    ResolvedDaemon& operator=(const ResolvedDaemon&) = delete;

    /// Fetches and unpacks the package (kept in the build tree between runs). Runs outside the
    /// namespaces, before them; false with the reason when it cannot be had.
    static bool prepare(const std::filesystem::path& unpackInto, std::string& error);
    /// Starts it in this process's namespaces (after the bus); waits until it owns its name.
    bool start(std::string& error);
    void stop();
    std::filesystem::path logFile() const { return folder_ / "resolved.log"; }

private:
    std::filesystem::path folder_;
    pid_t pid_ = -1;
};

}  // namespace morvane::sysdns::test
