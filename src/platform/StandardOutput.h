#pragma once

#include <string_view>

namespace morvane::platform {

/// Writes the text and a line feed to standard output in one piece and flushes, so that lines
/// written from several threads never run into each other.
void printLine(std::string_view text);

}  // namespace morvane::platform
