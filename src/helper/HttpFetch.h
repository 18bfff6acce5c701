#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace morvane::helper {

struct FetchResult {
    std::optional<std::string> data;  // the body, also when empty; none on failure
    long status = 0;                  // the HTTP status, 0 when none came
    std::string error;                // why there is no data
    std::string description;          // a line about the response, for the log
};

/// Fetches a URL with libcurl, blocking, following redirects; certificates are checked (the
/// file named by $MORVANECLOUD_CA_FILE is trusted instead of the system's list, a test and
/// development hook). An answer with a status of 400 or more counts as failed: its body is an
/// error page, never a certificate.
FetchResult fetch(const std::string& url, std::chrono::seconds timeout = std::chrono::seconds(60));

/// Whether curl can make a URL with a scheme and a host of the text.
bool isURL(const std::string& text);

}  // namespace morvane::helper
