#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace morvane {

/// A handle on the system log with a subsystem and a category, as the DNS proxy control
/// writes its "TarnNetExtMgr: " lines: syslog, with both names at the head of the line.
/// A test may add a listener that sees every line with its type.
class ProxySystemLog {
public:
    enum class Type { defaultType, info, debug };
    using Listener = std::function<void(Type type, const std::string& line)>;

    ProxySystemLog(std::string subsystem, std::string category);

    void info(const std::string& line) const { write(Type::info, line); }
    void debug(const std::string& line) const { write(Type::debug, line); }
    /// The default log at the default level.
    void notice(const std::string& line) const { write(Type::defaultType, line); }

    /// Every line of every handle goes to the listener too; an empty one removes it.
    static void setListener(Listener listener);

    const std::string subsystem;
    const std::string category;

private:
    void write(Type type, const std::string& line) const;
};

}  // namespace morvane
