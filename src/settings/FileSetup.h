#pragma once

#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "settings/ConfigFileWriter.h"
#include "settings/Settings.h"

namespace morvane {

/// The agent's start-up work on files: taking over what the installer left.
class FileSetup {
public:
    /// Imports the installer's values into the settings and its "config.json" into the
    /// support folder. True when the settings should be read again.
    bool importInstallerConfiguration();
    /// "config.json" exists in the support folder.
    bool hasConfigFile();
    /// "RPC_URL" is stored and reads as a URL.
    bool hasServerURL();

    Injected<TarnLogger> logger;
    Injected<ConfigFileWriter> configWriter;
    Injected<Settings> settings;
};

}  // namespace morvane
