#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/AccountQueries.h"

namespace morvane {

/// Who the user is and what the device is called, worked out afresh from the machine at
/// every call; nothing is kept. Safe on any thread. Calls may block for as long as the name
/// services take.
///
/// A local user is one the machine's own account file lists. A directory user is known only
/// to another name service (SSSD, LDAP, ...), and the directory's say on the device name is
/// the first value of the comment (GECOS) field that service gives for the account: a value
/// of the form "Kind:name" names the device "name". With SSSD, `ldap_user_gecos =
/// altSecurityIdentities` in its domain section makes that the account's Kerberos mapping,
/// such as "Kerberos:alice@CORP.EXAMPLE".
class ComputerNameManager {
public:
    /// The answers of this machine.
    ComputerNameManager();
    explicit ComputerNameManager(std::shared_ptr<const platform::AccountQueries> queries);

    /// user@machine, or the directory's name for the user, ending in "local".
    std::string getComputerName() const;
    /// user@host, with "local" in the host turned into "com" when the host ends in it.
    std::string getEMail() const;
    /// The short name of the user; when running as root, the user whose folder "PWD" is in.
    std::string nsUserName() const;
    /// The full-name part of the account's comment field; the short name when it is empty.
    std::string fullUserName() const;
    bool isLocalUser() const;
    void saveComputerName(const std::string& name) const;

    /// The third component of a path ("/home/alice/src" gives "alice"), or the path itself
    /// when it has no more than two.
    static std::string userNameFrom(const std::string& path);

private:
    std::optional<std::string> directoryName(const std::string& user) const;

    std::shared_ptr<const platform::AccountQueries> queries_;
};

}  // namespace morvane
