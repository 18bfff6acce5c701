#pragma once

#include <optional>

#include "app/ChangeObserver.h"
#include "app/DepenencyInjection.h"
#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "settings/FileSetup.h"
#include "settings/InstallerHelper.h"
#include "settings/Settings.h"
#include "watch/NetworkCheck.h"
#include "watch/SleepWakeMonitor.h"

namespace morvane {

/// Owns what exists from the first moment of the process, and builds the service table.
class ApplicationStartHelper {
public:
    /// Builds the service table and makes it the shared container.
    void setupDependencies();

    Injected<ChangeObserver> changeObserver;
    Injected<TarnLogger> logger;
    Injected<Settings> settings;
    Injected<InstallerHelper> installerHelper;
    FileSetup fileSetup;
    /// Its own path watch, not the container's: watching begins as this helper is built.
    NetworkCheck networkCheck;
    SleepWakeMonitor sleepmonitor;
    std::optional<DepenencyInjection> dependency;
};

}  // namespace morvane
