#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "ui/StatusMenuItem.h"

namespace morvane::ui {

/// The desktop under the status bar controller: one status item with an image and a menu,
/// opening URLs, and the about panel. The controller decides everything shown; this only
/// shows it. The Qt edge is `QtStatusBar`; tests record the calls.
class StatusBarPlatform {
public:
    /// What a click on the status item asks for.
    using ClickHandler = std::function<void()>;

    virtual ~StatusBarPlatform() = default;

    /// Makes the status item. False when the desktop has no place to show it (no status
    /// notifier host); the item is made all the same and shows once a host appears.
    virtual bool createStatusItem(ClickHandler onClick) = 0;
    virtual void setImage(const std::string& imageName) = 0;
    /// From now on the item opens this menu itself; choosing an entry calls `onAction`.
    /// `onWillOpen` runs each time the menu is about to open.
    virtual void setMenu(const StatusMenu& menu, std::function<void(MenuAction)> onAction,
                         std::function<void()> onWillOpen) = 0;
    virtual void removeStatusItem() = 0;
    /// Opens a URL with the desktop; false when nothing could open it.
    virtual bool openURL(const std::string& url) = 0;
    /// The standard about panel with its options ("ApplicationName", "ApplicationVersion",
    /// "Version"), brought in front of other applications.
    virtual void showAboutPanel(const std::map<std::string, std::string>& options) = 0;
    /// Brings the given panel to the front over other applications.
    virtual void showPanel(const std::string& panelName) = 0;

    /// The desktop's tray (QtStatusBar).
    static std::shared_ptr<StatusBarPlatform> makeDefault();
};

}  // namespace morvane::ui
