#include "platform/StandardOutput.h"

#include <cstdio>
#include <string>

namespace morvane::platform {

void printLine(std::string_view text) {
    std::string line;
    line.reserve(text.size() + 1);
    line.append(text);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

}  // namespace morvane::platform
