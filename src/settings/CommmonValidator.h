#pragma once

#include <string>

namespace morvane {

/// The pattern checks of the install command's values.
struct CommmonValidator {
    /// A dotted-quad IPv4 address, the whole text.
    static bool isValidIPv4(const std::string& text);
    /// A server address as the install command accepts it: a search, case sensitive, for
    /// lower-case host names only.
    static bool isValidURL(const std::string& text);
    /// An e-mail address, the whole text.
    static bool isValidEmail(const std::string& text);
};

}  // namespace morvane
