#include "messages/UITrayIconDisplayType.h"

namespace morvane {

std::string_view rawValue(UITrayIconDisplayType type) {
    switch (type) {
        case UITrayIconDisplayType::balloon:
            return "balloon";
        case UITrayIconDisplayType::hidden:
            return "hidden";
        case UITrayIconDisplayType::tooltip:
            return "tooltip";
        case UITrayIconDisplayType::defaultType:
            return "default";
    }
    return "default";
}

template <>
std::optional<UITrayIconDisplayType> enumFromRawValue<UITrayIconDisplayType>(std::string_view raw) {
    for (UITrayIconDisplayType type :
         {UITrayIconDisplayType::balloon, UITrayIconDisplayType::hidden,
          UITrayIconDisplayType::tooltip, UITrayIconDisplayType::defaultType}) {
        if (rawValue(type) == raw) {
            return type;
        }
    }
    return std::nullopt;
}

}  // namespace morvane
