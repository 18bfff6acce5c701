#include "core/ActionManager.h"

#include <charconv>
#include <cstdint>
#include <vector>

#include "platform/BuildInfo.h"

namespace morvane {

namespace {

std::optional<std::int64_t> decimal(const std::string& text) {
    std::int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

std::vector<std::string> components(const std::string& text) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        const auto dot = text.find('.', start);
        parts.push_back(text.substr(start, dot - start));
        if (dot == std::string::npos) {
            return parts;
        }
        start = dot + 1;
    }
}

const char* flag(const std::optional<bool>& value) {
    return value.value_or(false) ? "true" : "false";
}

}  // namespace

bool ActionManager::handlesVersion(const std::optional<std::string>& versionText) {
    std::optional<std::int64_t> major;
    std::optional<std::int64_t> minor;
    if (versionText) {
        const auto parts = components(*versionText);
        if (parts.size() >= 2) {
            major = decimal(parts[0]);
        }
        if (parts.size() >= 3) {
            minor = decimal(parts[1]);
        }
    }
    // A version without a readable major number is taken for the first numbering that the
    // orders were not written for.
    const std::int64_t effectiveMajor = major.value_or(2);
    const bool refused = effectiveMajor >= 2 && (!minor || *minor < 1);
    return !refused;
}

ActionManager::ActionManager(std::optional<DeviceConfiguration> configuration,
                             std::optional<bool> shutdown)
    : ActionManager(std::move(configuration), shutdown, std::string(build::kVersion)) {}

ActionManager::ActionManager(std::optional<DeviceConfiguration> configuration,
                             std::optional<bool> shutdown,
                             const std::optional<std::string>& versionText) {
    if (handlesVersion(versionText)) {
        deviceConfiguration = std::move(configuration);
        isShutdown = shutdown;
    } else {
        notHandledInThisVersion = true;
    }
}

std::string description(const Actions& actions) {
    std::string text = "disable = ";
    text += flag(actions.disable);
    text += ")";
    text += "move url = ";
    text += actions.move && actions.move->rpc ? *actions.move->rpc : "-";
    text += "shutdown = ";
    text += flag(actions.shutdown);
    text += "uninstall = ";
    text += flag(actions.uninstall);
    text += "upgrade url = ";
    text += actions.upgrade && actions.upgrade->url ? *actions.upgrade->url : "-";
    return text;
}

}  // namespace morvane
