#include "platform/URL.h"

#include <curl/curl.h>

#include <memory>

namespace morvane::platform {

namespace {

struct HandleDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using Handle = std::unique_ptr<CURLU, HandleDeleter>;

std::optional<std::string> part(CURLU* handle, CURLUPart which, unsigned int flags = 0) {
    char* value = nullptr;
    if (curl_url_get(handle, which, &value, flags) != CURLUE_OK || value == nullptr) {
        return std::nullopt;
    }
    std::string text(value);
    curl_free(value);
    return text;
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
    Handle handle(curl_url());
    if (!handle) {
        return std::nullopt;
    }
    const std::string copy(text);
    // Schemes libcurl can't fetch (say "ftp" in a build without it) still make a URL; only the
    // host and port are taken from it.
    if (curl_url_set(handle.get(), CURLUPART_URL, copy.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
        CURLUE_OK) {
        return std::nullopt;
    }
    URL url;
    auto whole = part(handle.get(), CURLUPART_URL);
    auto scheme = part(handle.get(), CURLUPART_SCHEME);
    if (!whole || !scheme) {
        return std::nullopt;
    }
    url.text_ = std::move(*whole);
    url.scheme_ = std::move(*scheme);
    url.host_ = part(handle.get(), CURLUPART_HOST);
    if (auto port = part(handle.get(), CURLUPART_PORT)) {
        url.port_ = std::stoi(*port);  // libcurl has already checked it is a number in range
    }
    url.path_ = part(handle.get(), CURLUPART_PATH).value_or("/");
    return url;
}

std::optional<URL> URL::make(const std::string& scheme, const std::string& host,
                             std::optional<int> port, const std::string& path) {
    if (host.empty()) {
        return std::nullopt;
    }
    std::string text = scheme + "://" + host;
    if (port) {
        text += ":" + std::to_string(*port);
    }
    if (path.empty() || path.front() != '/') {
        text += '/';
    }
    text += path;
    auto url = parse(text);
    // A host that smuggles in a port, a path or credentials would parse as something else.
    if (!url || url->host_ != host || url->port_ != port) {
        return std::nullopt;
    }
    return url;
}

}  // namespace morvane::platform
