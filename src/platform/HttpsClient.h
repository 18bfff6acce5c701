#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace morvane::platform {

/// Why an exchange produced no reply: libcurl's error code and its explanation.
struct HttpsError {
    int code = 0;
    std::string description;

    bool operator==(const HttpsError&) const = default;
};

struct HttpsResponse {
    long status = 0;   // 0 when no reply came
    std::string body;  // empty for a reply without a body
    std::optional<HttpsError> error;
};

/// One HTTPS session over libcurl: a set of rules that every exchange it makes follows. Each
/// exchange has a handle of its own, so one client may serve several threads at once.
///
/// The server's certificate and host name are checked against the system's authorities
/// unless `acceptAnyCertificate` is set. For tests and development, MORVANECLOUD_CA_FILE in
/// the environment names a PEM file to trust instead of the system's authorities (it trusts
/// less, never more: the file replaces the system's list), so that a self-signed local
/// server can be reached with every check on.
class HttpsClient {
public:
    struct Options {
        bool acceptAnyCertificate = false;
        /// A reply that sends nothing for this long ends the exchange; so does a connection
        /// that takes longer to set up. Not a limit on the whole exchange.
        std::chrono::seconds idleTimeout{60};
    };

    static constexpr std::size_t kMaximumBodySize = 16 * 1024 * 1024;

    explicit HttpsClient(Options options);

    /// POSTs the body to an https URL with the given "Name: value" headers and waits for the
    /// whole reply, on the calling thread. The status code of the reply is reported, not
    /// judged.
    HttpsResponse post(const std::string& url, const std::vector<std::string>& headers,
                       const std::string& body) const;

    const Options& options() const { return options_; }
    const std::optional<std::filesystem::path>& trustedCertificates() const { return caFile_; }

private:
    Options options_;
    std::optional<std::filesystem::path> caFile_;
};

}  // namespace morvane::platform
