#pragma once

#include <optional>
#include <string>

namespace morvane::platform {

/// What the machine knows about its users and itself, as the identity logic needs it. The
/// logic lives above this interface, so that it can be tried with any answers; the real
/// answers come from SystemAccountQueries.
class AccountQueries {
public:
    /// One entry of the account database.
    struct Account {
        std::string name;
        std::string gecos;  // the comment field: full name first, then comma-separated extras
    };

    /// The answer of a name service: an entry, no entry, or a failure with errno's code.
    struct Lookup {
        std::optional<Account> account;
        int errorCode = 0;
        std::string errorDescription;
    };

    virtual ~AccountQueries() = default;

    /// The short name of the account the process runs as.
    virtual std::string currentUserName() const = 0;
    /// The entry every configured name service agrees to give for the name (files first,
    /// then SSSD, LDAP, systemd and so on, as the machine's name service switch says).
    virtual Lookup lookUp(const std::string& name) const = 0;
    /// Whether the machine's own account file lists the name; an account known only to
    /// another name service is a directory account.
    virtual bool isInLocalAccountFiles(const std::string& name) const = 0;
    virtual std::string hostName() const = 0;
    virtual std::optional<std::string> environment(const std::string& name) const = 0;
};

}  // namespace morvane::platform
