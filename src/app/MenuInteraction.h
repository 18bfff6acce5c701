#pragma once

#include <memory>

#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "ui/TarnStatusBarController.h"
#include "ui/TrayIcons.h"

namespace morvane {

/// The status bar as the policy pass made it, with the tray type and the test menu flag it was
/// made with.
struct MenuInteraction {
    Injected<TarnLogger> logger;
    std::shared_ptr<TarnStatusBarController> statusMenu;
    ui::TrayType trayType = 1;
    bool showTestMenu = false;
};

}  // namespace morvane
