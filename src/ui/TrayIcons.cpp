#include "ui/TrayIcons.h"

namespace morvane::ui {

std::string trayIconFileName(std::string_view imageName, TrayType trayType) {
    std::string name(imageName);
    switch (trayType) {
        case 1:
            return name + "_mono";
        case 3:
            return name + "_inverted";
        default:
            return name;
    }
}

}  // namespace morvane::ui
