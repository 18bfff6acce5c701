#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace morvane::ui {

/// What choosing a menu entry does; `none` for the lines that only inform.
enum class MenuAction {
    none,
    showPrivacyPanel,
    openAppSupport,
    setLogDebug,
    authorizeNotification,
    showAboutWindow,
    /// Not in the menu the controller lays out: the desktop edge offers it to testers.
    showLocalRulesWindow,
};

/// One entry of the status menu as the controller decides it: title, action, enabled flag and
/// check mark, or a separator, or a submenu. The toolkit renders it and follows its changes
/// through `onChange`, so a title set after the menu is open shows at once.
class StatusMenuItem {
public:
    static std::shared_ptr<StatusMenuItem> make(std::string title, MenuAction action, bool enabled);
    static std::shared_ptr<StatusMenuItem> separator();

    const std::string& title() const { return title_; }
    MenuAction action() const { return action_; }
    bool isEnabled() const { return enabled_; }
    /// The check mark.
    bool state() const { return state_; }
    bool isSeparator() const { return separator_; }
    const std::vector<std::shared_ptr<StatusMenuItem>>& submenu() const { return submenu_; }

    void setTitle(std::string title);
    void setAction(MenuAction action);
    void setEnabled(bool enabled);
    void setState(bool on);
    void setSubmenu(std::vector<std::shared_ptr<StatusMenuItem>> items);

    /// Called after every change; set by whoever renders the item.
    std::function<void(const StatusMenuItem&)> onChange;

private:
    void changed();

    std::string title_;
    MenuAction action_ = MenuAction::none;
    bool enabled_ = true;
    bool state_ = false;
    bool separator_ = false;
    std::vector<std::shared_ptr<StatusMenuItem>> submenu_;
};

using StatusMenu = std::vector<std::shared_ptr<StatusMenuItem>>;

}  // namespace morvane::ui
