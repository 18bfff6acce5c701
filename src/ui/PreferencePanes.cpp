#include "ui/PreferencePanes.h"

#include <algorithm>
#include <cctype>

namespace morvane::ui {

namespace {

struct PaneProgram {
    const char* desktop;  // a name of $XDG_CURRENT_DESKTOP, compared without case
    std::vector<std::string> command;
};

const std::vector<PaneProgram>& notificationPrograms() {
    static const std::vector<PaneProgram> programs{
        {"GNOME", {"gnome-control-center", "notifications"}},
        {"Unity", {"gnome-control-center", "notifications"}},
        {"Budgie", {"budgie-control-center", "notifications"}},
        {"KDE", {"systemsettings", "kcm_notifications"}},
        {"KDE", {"systemsettings5", "kcm_notifications"}},
        {"XFCE", {"xfce4-notifyd-config"}},
        {"X-Cinnamon", {"cinnamon-settings", "notifications"}},
        {"Cinnamon", {"cinnamon-settings", "notifications"}},
        {"MATE", {"mate-notification-properties"}},
        {"LXQt", {"lxqt-config-notificationd"}},
    };
    return programs;
}

bool sameName(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) ==
               std::tolower(static_cast<unsigned char>(y));
    });
}

std::vector<std::string_view> desktops(std::string_view list) {
    std::vector<std::string_view> names;
    while (!list.empty()) {
        const auto colon = list.find(':');
        names.push_back(list.substr(0, colon));
        if (colon == std::string_view::npos) {
            break;
        }
        list.remove_prefix(colon + 1);
    }
    return names;
}

}  // namespace

std::optional<std::vector<std::string>> preferencePaneCommand(
    std::string_view url, std::string_view currentDesktop,
    const std::function<bool(const std::string&)>& hasProgram) {
    if (url != "x-apple.systempreferences:com.apple.preference.notifications") {
        return std::nullopt;
    }
    // The desktops in the order the session lists them: the first that has its program wins.
    for (const auto desktop : desktops(currentDesktop)) {
        for (const auto& program : notificationPrograms()) {
            if (sameName(desktop, program.desktop) && hasProgram(program.command.front())) {
                return program.command;
            }
        }
    }
    return std::nullopt;
}

}  // namespace morvane::ui
