#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/TestEnvironment.h"

namespace morvane::test {

/// A desktop of its own for a test: an X server (Xvfb) on a free display, a session bus
/// (dbus-daemon with a configuration that activates nothing, so no service of the machine
/// starts on it), and, when asked, a real notification daemon (dunst) on both. Every program
/// is a child of the test and is stopped with the object. Nothing of the machine's own
/// display or session bus is touched.
class DesktopSession {
public:
    DesktopSession();
    ~DesktopSession();
    DesktopSession(const DesktopSession&) = delete;
    DesktopSession& operator=(const DesktopSession&) = delete;

    /// Why the session could not be had (a program missing or failing); empty when it runs.
    const std::string& failure() const { return failure_; }
    bool startX();
    bool startBus();
    bool startNotificationDaemon();

    const std::string& display() const { return display_; }
    const std::string& busAddress() const { return busAddress_; }
    /// DISPLAY and DBUS_SESSION_BUS_ADDRESS for a program that joins this desktop.
    std::map<std::string, std::string> environment() const;
    const std::filesystem::path& folder() const { return dir_.path(); }

    /// Starts a program of the machine in this desktop; -1 when it could not start.
    pid_t spawn(const std::vector<std::string>& argv, int outputFd = -1,
                const std::map<std::string, std::string>& extra = {});
    static bool hasProgram(const std::string& name);

private:
    std::optional<std::string> readLine(int fd);

    TempDir dir_{"morvane-desktop"};
    std::string failure_;
    std::string display_;
    std::string busAddress_;
    std::vector<pid_t> children_;
};

}  // namespace morvane::test
