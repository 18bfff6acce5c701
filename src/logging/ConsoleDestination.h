#pragma once

#include "logging/BaseDestination.h"

namespace morvane::logging {

/// Writes each line to standard output, or to the system log. Levels are marked with
/// coloured hearts, or with terminal colours when useTerminalColors is set.
class ConsoleDestination : public BaseDestination {
public:
    ConsoleDestination();

    std::size_t defaultHashValue() const override { return 1; }

    bool useNSLog() const { return useNSLog_; }
    void setUseNSLog(bool useNSLog) { useNSLog_ = useNSLog; }
    bool useTerminalColors() const { return useTerminalColors_; }
    /// True switches reset, escape and the level colours to 256-colour terminal codes; false
    /// brings the hearts back and leaves reset and escape as they are.
    void setUseTerminalColors(bool useTerminalColors);

    std::optional<std::string> send(Level level, const std::string& message,
                                    const std::string& thread, const std::string& file,
                                    const std::string& function, int line,
                                    const Context& context) override;

private:
    static LevelColor hearts();

    bool useNSLog_ = false;
    bool useTerminalColors_ = false;
};

}  // namespace morvane::logging
