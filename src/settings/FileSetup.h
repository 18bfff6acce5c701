#pragma once

#include <memory>

#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "settings/ConfigFileWriter.h"
#include "settings/DirectoryObserver.h"
#include "settings/Settings.h"

namespace morvane {

/// The agent's start-up work on files: taking over what the installer left, and watching
/// the configuration files from then on.
class FileSetup {
public:
    /// Root's copies of the two documents, left by a run of the install command as root.
    static std::filesystem::path rootSupportFolder();

    /// Imports the installer's values into the settings and its "config.json" into the
    /// support folder. True when the settings should be read again.
    bool importInstallerConfiguration();
    /// "config.json" exists in the support folder.
    bool hasConfigFile();
    /// "RPC_URL" is stored and reads as a URL.
    bool hasServerURL();
    /// Watches "config.json" and "device.json" of the user's support folder.
    void watchUserFiles();
    /// Watches root's two copies; a change there is copied into the user's folder.
    void watchRootFiles();

    Injected<TarnLogger> logger;
    Injected<ConfigFileWriter> configWriter;
    Injected<Settings> settings;
    std::shared_ptr<DirectoryObserver> directoryObserver = std::make_shared<DirectoryObserver>();
};

}  // namespace morvane
