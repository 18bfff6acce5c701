#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane::ui {

/// The program, with its arguments, that opens on this desktop the settings a preference
/// URL names. The notification settings exist on the common desktops, each with its own
/// program; the security settings, where another system lets the user allow the extension,
/// have no counterpart (polkit asks by itself), so that URL gives nothing anywhere, as does
/// an unknown desktop or a desktop whose program is not installed.
///
/// `currentDesktop` is $XDG_CURRENT_DESKTOP ("ubuntu:GNOME", "KDE", ...); `hasProgram`
/// answers whether a program of that name can be run.
std::optional<std::vector<std::string>> preferencePaneCommand(
    std::string_view url, std::string_view currentDesktop,
    const std::function<bool(const std::string&)>& hasProgram);

}  // namespace morvane::ui
