#include "platform/HttpsClient.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>
#include <mutex>

namespace morvane::platform {

namespace {

bool initialiseOnce() {
    static std::once_flag once;
    static bool initialised = false;
    std::call_once(once, [] { initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; });
    return initialised;
}

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct Collected {
    std::string body;
    bool tooLarge = false;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* target) {
    auto* collected = static_cast<Collected*>(target);
    const std::size_t bytes = size * count;
    if (collected->body.size() + bytes > HttpsClient::kMaximumBodySize) {
        collected->tooLarge = true;
        return 0;  // makes libcurl end the transfer with a write error
    }
    collected->body.append(data, bytes);
    return bytes;
}

// The time-out counts from the last byte that moved either way, so a slow but steady reply
// is never cut off, and a silent one is cut off after the idle time. libcurl's own
// low-speed check averages over a window of several seconds and would add those to it.
struct Idleness {
    std::chrono::steady_clock::duration limit;
    std::chrono::steady_clock::time_point lastActivity = std::chrono::steady_clock::now();
    curl_off_t received = 0;
    curl_off_t sent = 0;
    bool exceeded = false;
};

int checkIdleness(void* target, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
    auto* idleness = static_cast<Idleness*>(target);
    const auto now = std::chrono::steady_clock::now();
    if (received != idleness->received || sent != idleness->sent) {
        idleness->received = received;
        idleness->sent = sent;
        idleness->lastActivity = now;
        return 0;
    }
    if (now - idleness->lastActivity >= idleness->limit) {
        idleness->exceeded = true;
        return 1;  // ends the transfer
    }
    return 0;
}

HttpsError errorFor(CURLcode code, const char* detail) {
    std::string description = curl_easy_strerror(code);
    if (detail != nullptr && *detail != '\0') {
        description += ": ";
        description += detail;
    }
    return {static_cast<int>(code), std::move(description)};
}

}  // namespace

HttpsClient::HttpsClient(Options options) : options_(options) {
    if (const char* file = std::getenv("MORVANECLOUD_CA_FILE"); file != nullptr && *file != '\0') {
        caFile_ = file;
    }
}

HttpsResponse HttpsClient::post(const std::string& url, const std::vector<std::string>& headers,
                                const std::string& body) const {
    HttpsResponse response;
    if (!initialiseOnce()) {
        response.error = errorFor(CURLE_FAILED_INIT, "libcurl could not be initialised");
        return response;
    }
    std::unique_ptr<CURL, EasyDeleter> handle(curl_easy_init());
    if (!handle) {
        response.error = errorFor(CURLE_FAILED_INIT, nullptr);
        return response;
    }
    std::unique_ptr<curl_slist, ListDeleter> list;
    for (const auto& header : headers) {
        curl_slist* extended = curl_slist_append(list.get(), header.c_str());
        if (extended == nullptr) {
            response.error = errorFor(CURLE_OUT_OF_MEMORY, nullptr);
            return response;
        }
        list.release();
        list.reset(extended);
    }
    // Without this, libcurl holds back larger bodies for a "100 Continue" that most servers
    // never send, which costs a second per exchange.
    if (curl_slist* extended = curl_slist_append(list.get(), "Expect:")) {
        list.release();
        list.reset(extended);
    }

    Collected collected;
    char detail[CURL_ERROR_SIZE] = {};
    CURL* curl = handle.get();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list.get());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &collected);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, detail);
    // Worker threads must not get signals of libcurl's time-outs.
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    const long idleSeconds = static_cast<long>(options_.idleTimeout.count());
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, idleSeconds);
    Idleness idleness{options_.idleTimeout};
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, checkIdleness);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &idleness);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    if (options_.acceptAnyCertificate) {
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    } else if (caFile_) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, caFile_->c_str());
        curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
    }

    const CURLcode result = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
    if (idleness.exceeded) {
        const std::string reason = "nothing came for " + std::to_string(idleSeconds) + " seconds";
        response.error = errorFor(CURLE_OPERATION_TIMEDOUT, reason.c_str());
        return response;
    }
    if (result != CURLE_OK) {
        response.error = collected.tooLarge ? errorFor(result, "the reply is larger than 16 MiB")
                                            : errorFor(result, detail);
        return response;
    }
    response.body = std::move(collected.body);
    return response;
}

}  // namespace morvane::platform
