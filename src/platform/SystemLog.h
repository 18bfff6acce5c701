#pragma once

#include <string>

namespace morvane::platform {

/// A handle on the system log for one subsystem and category: the lines go to syslog with
/// the subsystem as ident and "[category] " in front of the message.
class SystemLog {
public:
    SystemLog(std::string subsystem, std::string category);

    void error(const std::string& message) const;

    const std::string& subsystem() const { return subsystem_; }
    const std::string& category() const { return category_; }

private:
    std::string subsystem_;
    std::string category_;
};

}  // namespace morvane::platform
