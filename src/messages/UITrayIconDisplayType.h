#pragma once

#include <optional>
#include <string_view>

#include "messages/RawValue.h"

namespace morvane {

/// How the server would like the tray icon shown; carried in the policy and stored.
enum class UITrayIconDisplayType { balloon, hidden, tooltip, defaultType };

std::string_view rawValue(UITrayIconDisplayType type);

template <>
std::optional<UITrayIconDisplayType> enumFromRawValue<UITrayIconDisplayType>(std::string_view raw);

}  // namespace morvane
