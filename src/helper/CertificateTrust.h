#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace morvane::helper {

/// The machine's trust store as Debian keeps it: PEM files in /usr/local/share/ca-certificates/
/// made part of the system's list by `update-ca-certificates`. Under $MORVANECLOUD_SYSROOT every
/// folder of that command lies under the sysroot, so nothing of the machine's store is touched.

/// The certificate as PEM: PEM text is kept as it is, one DER certificate is converted; none
/// when the data is neither.
std::optional<std::string> certificatePem(const std::string& data);

/// Where a certificate of that name is placed: "morvanecloud-<name>.crt" in the local folder.
std::filesystem::path trustedCertificatePath(const std::string& name);

/// The command that makes the local folder part of the system's list.
std::string trustUpdateCommand();

enum class AddResult { added, alreadyThere, failed };

/// Places the PEM in the local folder. The same certificate there already is `alreadyThere`
/// and nothing is written; `error` says why on failure.
AddResult addTrustedCertificate(const std::string& pem, const std::string& name,
                                std::filesystem::path& placed, std::string& error);

/// A name for the trust file from a file name or URL path: its stem, with anything but
/// letters, digits, '.', '-' and '_' made '_'; "certificate" when nothing is left.
std::string certificateName(const std::string& fileName);

}  // namespace morvane::helper
