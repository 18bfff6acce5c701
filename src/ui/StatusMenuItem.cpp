#include "ui/StatusMenuItem.h"

namespace morvane::ui {

std::shared_ptr<StatusMenuItem> StatusMenuItem::make(std::string title, MenuAction action,
                                                     bool enabled) {
    auto item = std::make_shared<StatusMenuItem>();
    item->title_ = std::move(title);
    item->action_ = action;
    item->enabled_ = enabled;
    return item;
}

std::shared_ptr<StatusMenuItem> StatusMenuItem::separator() {
    auto item = std::make_shared<StatusMenuItem>();
    item->separator_ = true;
    item->enabled_ = false;
    return item;
}

void StatusMenuItem::setTitle(std::string title) {
    if (title != title_) {
        title_ = std::move(title);
        changed();
    }
}

void StatusMenuItem::setAction(MenuAction action) {
    if (action != action_) {
        action_ = action;
        changed();
    }
}

void StatusMenuItem::setEnabled(bool enabled) {
    if (enabled != enabled_) {
        enabled_ = enabled;
        changed();
    }
}

void StatusMenuItem::setState(bool on) {
    if (on != state_) {
        state_ = on;
        changed();
    }
}

void StatusMenuItem::setSubmenu(std::vector<std::shared_ptr<StatusMenuItem>> items) {
    submenu_ = std::move(items);
    changed();
}

void StatusMenuItem::changed() {
    if (onChange) {
        onChange(*this);
    }
}

}  // namespace morvane::ui
