#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/AccountQueries.h"

namespace morvane::platform {

/// The answers of this machine: the C library's account lookups, the local account file,
/// gethostname and the process environment.
class SystemAccountQueries final : public AccountQueries {
public:
    static std::shared_ptr<SystemAccountQueries> shared();

    /// The local account file is "/etc/passwd" unless a test names another.
    explicit SystemAccountQueries(std::string localAccountFile = "/etc/passwd");

    std::string currentUserName() const override;
    Lookup lookUp(const std::string& name) const override;
    bool isInLocalAccountFiles(const std::string& name) const override;
    std::string hostName() const override;
    std::optional<std::string> environment(const std::string& name) const override;

private:
    std::string localAccountFile_;
};

}  // namespace morvane::platform
