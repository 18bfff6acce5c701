#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "settings/MorvaneServerInfoSection.h"

namespace morvane {

/// The KEY=VALUE text of the installer's values and of the hand-over file: one entry per
/// line, no quoting, no comments.
namespace key_value_text {

/// The entries that count, in the order of the lines, repeats included. A line counts only
/// when it splits at "=" into exactly two parts and its key is a known setting; so a value
/// holding "=" and an empty line are both skipped.
std::vector<std::pair<MorvaneServerInfoSection, std::string>> parse(std::string_view text);

/// One "KEY=VALUE\n" line per entry.
std::string format(const std::map<std::string, std::string>& entries);

}  // namespace key_value_text

}  // namespace morvane
