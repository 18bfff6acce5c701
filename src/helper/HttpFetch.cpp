#include "helper/HttpFetch.h"

#include <curl/curl.h>

#include <cstdlib>
#include <mutex>

namespace morvane::helper {

namespace {

void ensureGlobalInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::size_t collect(char* data, std::size_t size, std::size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

}  // namespace

bool isURL(const std::string& text) {
    CURLU* handle = curl_url();
    if (handle == nullptr) {
        return false;
    }
    bool ok = curl_url_set(handle, CURLUPART_URL, text.c_str(), 0) == CURLUE_OK;
    char* host = nullptr;
    ok = ok && curl_url_get(handle, CURLUPART_HOST, &host, 0) == CURLUE_OK && host != nullptr &&
         *host != '\0';
    curl_free(host);
    curl_url_cleanup(handle);
    return ok;
}

FetchResult fetch(const std::string& url, std::chrono::seconds timeout) {
    ensureGlobalInit();
    FetchResult result;
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        result.error = "cannot start a transfer";
        return result;
    }
    std::string body;
    char errorText[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, static_cast<long>(timeout.count()));
    // The time-out is idle time, as for the other transfers of the system.
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(timeout.count()));
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(16) << 20);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    if (const char* file = std::getenv("MORVANECLOUD_CA_FILE"); file != nullptr && *file != '\0') {
        curl_easy_setopt(curl, CURLOPT_CAINFO, file);
    }
    const CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
    char* contentType = nullptr;
    curl_easy_getinfo(curl, CURLINFO_CONTENT_TYPE, &contentType);
    result.description = "<response URL " + url + " status " + std::to_string(result.status) +
                         (contentType != nullptr ? std::string(" type ") + contentType : "") +
                         " length " + std::to_string(body.size()) + ">";
    if (code != CURLE_OK) {
        result.error = errorText[0] != '\0' ? errorText : curl_easy_strerror(code);
    } else if (result.status >= 400) {
        result.error = "HTTP status " + std::to_string(result.status);
    } else {
        result.data = std::move(body);
    }
    curl_easy_cleanup(curl);
    return result;
}

}  // namespace morvane::helper
