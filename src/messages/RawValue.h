#pragma once

#include <optional>
#include <string_view>

namespace morvane {

/// The enumeration case whose text form is `raw`, or nothing when no case has that text.
/// Each enumeration that travels as text specialises this beside a `rawValue` overload, so
/// that the message coders can read and write any of them the same way.
template <typename Enum>
std::optional<Enum> enumFromRawValue(std::string_view raw);

}  // namespace morvane
