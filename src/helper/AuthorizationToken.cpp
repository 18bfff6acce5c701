#include "helper/AuthorizationToken.h"

#include <sys/random.h>

#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>

#include "helper/HelperFiles.h"
#include "sys/Files.h"
#include "sys/SystemPaths.h"
#include "sys/UnixSocket.h"

namespace morvane {

namespace {

std::mutex& tokensMutex() {
    static std::mutex mutex;
    return mutex;
}

nlohmann::json loadList(const std::filesystem::path& path) {
    std::string error;
    const auto text = sys::readWholeFile(path, &error);
    if (!text) {
        return nlohmann::json::array();
    }
    auto parsed = nlohmann::json::parse(*text, nullptr, false);
    return parsed.is_array() ? parsed : nlohmann::json::array();
}

}  // namespace

AuthorizationTokens::AuthorizationTokens()
    : AuthorizationTokens(sys::runtimeDirectory() / "helper-authorizations.json") {}

AuthorizationTokens::AuthorizationTokens(std::filesystem::path path) : path_(std::move(path)) {}

std::string AuthorizationTokens::toHex(const std::uint8_t* data, std::size_t size) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 0x0f];
    }
    return out;
}

std::optional<std::string> AuthorizationTokens::fromHex(const std::string& text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    auto value = [](char c) -> int {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        if (c >= 'A' && c <= 'F') {
            return c - 'A' + 10;
        }
        return -1;
    };
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = value(text[i]);
        const int low = value(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes += static_cast<char>(high * 16 + low);
    }
    return bytes;
}

bool AuthorizationTokens::mayCreate(uid_t uid, std::string& why) {
    if (uid == 0) {
        return true;
    }
    const auto ownerIn = [](const std::filesystem::path& file, const char* key) {
        std::string ignored;
        const auto text = sys::readWholeFile(file, &ignored);
        const auto parsed = text ? nlohmann::json::parse(*text, nullptr, false) : nlohmann::json();
        const auto found = parsed.is_object() ? parsed.find(key) : parsed.end();
        return parsed.is_object() && found != parsed.end() && found->is_number_integer() &&
                       found->get<long long>() >= 0
                   ? std::optional<long long>(found->get<long long>())
                   : std::nullopt;
    };
    const std::lock_guard lock(tokensMutex());
    if (const auto proxyOwner =
            ownerIn(sys::systemPath("/var/lib/morvanecloud/dnsproxy.json"), "ownerUid")) {
        why = "the DNS proxy belongs to uid " + std::to_string(*proxyOwner);
        return *proxyOwner == static_cast<long long>(uid);
    }
    const auto ownerFile = helper::supportFile("helper-owner.json");
    if (const auto owner = ownerIn(ownerFile, "uid")) {
        why = "the helper belongs to uid " + std::to_string(*owner);
        return *owner == static_cast<long long>(uid);
    }
    std::string error;
    if (!sys::writeFileAtomically(
            ownerFile, nlohmann::json{{"uid", static_cast<long long>(uid)}}.dump() + "\n", 0644,
            error)) {
        why = error;
        return false;
    }
    return true;
}

std::optional<AuthorizationTokens::Token> AuthorizationTokens::create(uid_t uid) {
    Token token{};
    if (getrandom(token.data(), token.size(), 0) != static_cast<ssize_t>(token.size())) {
        return std::nullopt;
    }
    const std::lock_guard lock(tokensMutex());
    auto list = loadList(path_);
    std::size_t ofUser = 0;
    for (const auto& entry : list) {
        ofUser += entry.value("uid", -1) == static_cast<long long>(uid) ? 1 : 0;
    }
    for (auto it = list.begin(); ofUser >= kPerUser && it != list.end();) {
        if (it->value("uid", -1) == static_cast<long long>(uid)) {
            it = list.erase(it);
            --ofUser;
        } else {
            ++it;
        }
    }
    const auto created = std::chrono::duration_cast<std::chrono::seconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count();
    list.push_back({{"token", toHex(token.data(), token.size())},
                    {"uid", static_cast<long long>(uid)},
                    {"created", created}});
    std::error_code ignored;
    std::filesystem::create_directories(path_.parent_path(), ignored);
    std::string error;
    if (!sys::writeFileAtomically(path_, list.dump() + "\n", 0600, error)) {
        return std::nullopt;
    }
    return token;
}

std::optional<uid_t> AuthorizationTokens::owner(const Token& token) const {
    const std::string hex = toHex(token.data(), token.size());
    const std::lock_guard lock(tokensMutex());
    for (const auto& entry : loadList(path_)) {
        if (entry.is_object() && entry.value("token", "") == hex && entry.value("uid", -1LL) >= 0) {
            return static_cast<uid_t>(entry.value("uid", -1LL));
        }
    }
    return std::nullopt;
}

}  // namespace morvane
