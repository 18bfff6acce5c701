#include "logging/ConsoleDestination.h"

#include "platform/SystemLog.h"

namespace morvane::logging {

ConsoleDestination::ConsoleDestination() {
    setLevelColor(hearts());
}

void ConsoleDestination::setUseTerminalColors(bool useTerminalColors) {
    useTerminalColors_ = useTerminalColors;
    if (useTerminalColors) {
        setReset(std::string(kTerminalReset));
        setEscape(std::string(kTerminalEscape));
        setLevelColor(terminalLevelColor());
    } else {
        setLevelColor(hearts());
    }
}

std::optional<std::string> ConsoleDestination::send(Level level, const std::string& message,
                                                    const std::string& thread,
                                                    const std::string& file,
                                                    const std::string& function, int line,
                                                    const Context& context) {
    auto rendered = BaseDestination::send(level, message, thread, file, function, line, context);
    if (!rendered) {
        return std::nullopt;
    }
    if (useNSLog_) {
        platform::writeSystemLog(*rendered);
    } else {
        printLine(*rendered);
    }
    return rendered;
}

ConsoleDestination::LevelColor ConsoleDestination::hearts() {
    return {
        "\U0001F49C ",    // purple heart
        "\U0001F49A ",    // green heart
        "\U0001F499 ",    // blue heart
        "\U0001F49B ",    // yellow heart
        "\u2764\uFE0F ",  // red heart
    };
}

}  // namespace morvane::logging
