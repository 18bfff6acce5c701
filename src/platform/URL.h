#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace morvane::platform {

/// An absolute URL, parsed once by libcurl and kept as its parts. Any scheme parses; what a
/// caller does with the scheme is its own business.
class URL {
public:
    /// Nothing when the text is not an absolute URL, or its port is not a number from 0 to
    /// 65535.
    static std::optional<URL> parse(std::string_view text);
    /// "scheme://host[:port]path", or nothing when the parts don't make a URL (no host, a
    /// host with characters a URL can't carry).
    static std::optional<URL> make(const std::string& scheme, const std::string& host,
                                   std::optional<int> port, const std::string& path);

    /// The whole URL in libcurl's normalised form.
    const std::string& text() const { return text_; }
    const std::string& scheme() const { return scheme_; }
    /// Absent for URLs such as "file:///x".
    const std::optional<std::string>& host() const { return host_; }
    /// Only a port written in the URL; a scheme's default port doesn't count.
    std::optional<int> port() const { return port_; }
    const std::string& path() const { return path_; }

    bool operator==(const URL&) const = default;

private:
    URL() = default;

    std::string text_;
    std::string scheme_;
    std::optional<std::string> host_;
    std::optional<int> port_;
    std::string path_;
};

}  // namespace morvane::platform
