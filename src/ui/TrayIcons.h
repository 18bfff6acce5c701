#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace morvane::ui {

/// How the status item is presented: 0 none, 1 monochrome (a dark mark for light panels),
/// 2 colour, the default, 3 inverted (a light mark for dark panels). Nothing above 3 is
/// accepted by the helper; a larger number here is shown as colour.
using TrayType = std::uint32_t;

/// The icon file, without folder and suffix, for an image of the controller in a tray type:
/// "morvane_icon" in type 3 is "morvane_icon_inverted". Type 0 shows nothing and gives the
/// colour file.
std::string trayIconFileName(std::string_view imageName, TrayType trayType);

}  // namespace morvane::ui
