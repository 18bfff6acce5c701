#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "messages/DeviceConfiguration.h"

namespace morvane {

class Settings;

/// Where the agent's files are, and what the process was started as. A run from the command
/// line under sudo runs as root but works for the user who typed the command; the paths are
/// redirected out of root's home into that user's, found from "PWD".
class Utils {
public:
    /// A file in the support folder ("MorvaneCloud" in the user's data folder, redirected
    /// out of root's home); creates the folder. Nothing when it cannot be created.
    static std::optional<std::filesystem::path> supportFileURL(const std::string& name);
    static std::optional<std::filesystem::path> configFileURL();
    static std::optional<std::filesystem::path> deviceFileURL();

    /// The stored policy ("device.json"); nothing when it is missing or undecodable.
    static std::optional<DeviceConfiguration> readDeviceConfiguration();
    /// The stored policy with its "cfg" replaced by the one in "TEST_DEVICE_CONFIG", when that
    /// decodes and the stored policy has a result.
    static std::optional<DeviceConfiguration> readDeviceConfigurationWithOverlay(
        const Settings& settings);
    /// The policy in the file named by "TEST_DEVICE_CONFIG_PATH", if any.
    static std::optional<DeviceConfiguration> readTestDeviceConfiguration(const Settings& settings);
    /// Imports every KEY=VALUE line of the installer's values file into the settings; the
    /// file stays as it is.
    static void getValuesFromInstaller(Settings& settings);

    /// The installer's files, in the cache folder of the account's home.
    static std::filesystem::path installerConfigurationURL();
    static std::filesystem::path installerValuesURL();
    /// The text of the installer's values file, if it can be read.
    static std::optional<std::string> readInstallerValues();

    /// Gives the file to the user named by "PWD"; without "PWD" nothing happens.
    static void fixOwner(const std::filesystem::path& path);

    /// True when started from a shell ("SUDO_COMMAND" or "PWD" in the environment).
    static bool wasRunFromCommandLine();
    /// True when the account's home folder is root's.
    static bool isRunningAsRoot();

    /// The home folder of the user on whose behalf a command-line run works: from "PWD",
    /// the first two folders below "/" ("/home/someone/Work/x" gives "/home/someone"); a
    /// shorter path is the home itself. Nothing without "PWD".
    static std::optional<std::filesystem::path> homeFromPWD();
    /// The path with root's home replaced by the home from "PWD", when there is one.
    static std::filesystem::path redirectedOutOfRootsHome(const std::filesystem::path& path);
    /// Root's home folder, "/root" (below $MORVANECLOUD_SYSROOT when set).
    static std::filesystem::path rootHome();
};

}  // namespace morvane
