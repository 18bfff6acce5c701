#include "platform/OperatingSystem.h"

#include <sys/utsname.h>

#include <charconv>

namespace morvane::platform {

namespace {

// The number at the start of the text, consumed; 0 when there is none.
unsigned long takeNumber(std::string_view& text) {
    unsigned long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) {
        return 0;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value;
}

}  // namespace

std::string majorMinorVersion(std::string_view release) {
    const unsigned long major = takeNumber(release);
    unsigned long minor = 0;
    if (!release.empty() && release.front() == '.') {
        release.remove_prefix(1);
        minor = takeNumber(release);
    }
    return std::to_string(major) + "." + std::to_string(minor);
}

std::string kernelVersion() {
    utsname names{};
    if (::uname(&names) != 0) {
        return majorMinorVersion({});
    }
    return majorMinorVersion(names.release);
}

}  // namespace morvane::platform
