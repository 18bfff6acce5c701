#include "device/ComputerNameManager.h"

#include <vector>

#include "platform/SystemAccountQueries.h"
#include "platform/SystemLog.h"
#include "platform/UserDefaults.h"

namespace morvane {

namespace {

bool endsWith(const std::string& text, std::string_view end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The pieces between separators; empty pieces are dropped.
std::vector<std::string> pieces(const std::string& text, char separator) {
    std::vector<std::string> result;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(separator, start);
        if (end == std::string::npos) {
            end = text.size();
        }
        if (end > start) {
            result.push_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return result;
}

std::string firstField(const std::string& gecos) {
    return gecos.substr(0, gecos.find(','));
}

}  // namespace

ComputerNameManager::ComputerNameManager()
    : ComputerNameManager(platform::SystemAccountQueries::shared()) {}

ComputerNameManager::ComputerNameManager(std::shared_ptr<const platform::AccountQueries> queries)
    : queries_(std::move(queries)) {}

bool ComputerNameManager::isLocalUser() const {
    const std::string user = queries_->currentUserName();
    if (queries_->isInLocalAccountFiles(user)) {
        return true;
    }
    // No name service knows the account at all: there is no identity that could be another
    // authority's.
    return !queries_->lookUp(user).account.has_value();
}

std::optional<std::string> ComputerNameManager::directoryName(const std::string& user) const {
    const auto lookup = queries_->lookUp(user);
    if (lookup.errorCode != 0) {
        platform::writeSystemLog("ODQuery::queryWithNode error " + lookup.errorDescription + " (" +
                                 std::to_string(lookup.errorCode) + ")");
    }
    if (!lookup.account) {
        return std::nullopt;
    }
    const auto parts = pieces(firstField(lookup.account->gecos), ':');
    if (parts.size() < 2) {
        return std::nullopt;
    }
    return parts[1];
}

std::string ComputerNameManager::getComputerName() const {
    const std::string user = queries_->currentUserName();
    std::optional<std::string> candidate;
    if (!isLocalUser()) {
        candidate = directoryName(user);
    }
    std::string name = candidate ? *candidate : user + "@" + queries_->hostName();
    // The test is on the bare word: "intralocal" counts as well as "box.local".
    if (!endsWith(name, "local")) {
        name += ".local";
    }
    return name;
}

std::string ComputerNameManager::getEMail() const {
    const std::string name = nsUserName();
    std::string host = queries_->hostName();
    if (endsWith(host, "local")) {
        for (std::size_t at = host.find("local"); at != std::string::npos;
             at = host.find("local", at + 3)) {
            host.replace(at, 5, "com");
        }
    }
    return name + "@" + host;
}

std::string ComputerNameManager::nsUserName() const {
    const std::string user = queries_->currentUserName();
    if (user != "root") {
        return user;
    }
    // Under sudo the working folder is the only trace of the user who typed the command.
    const auto folder = queries_->environment("PWD");
    return folder ? userNameFrom(*folder) : user;
}

std::string ComputerNameManager::fullUserName() const {
    const std::string user = queries_->currentUserName();
    const auto lookup = queries_->lookUp(user);
    if (lookup.account) {
        if (std::string full = firstField(lookup.account->gecos); !full.empty()) {
            return full;
        }
    }
    return user;
}

void ComputerNameManager::saveComputerName(const std::string& name) const {
    platform::UserDefaults::standard()->setValue(name, "computerName");
}

std::string ComputerNameManager::userNameFrom(const std::string& path) {
    // Components as a path is read: the root is one, and repeated or trailing slashes add
    // nothing.
    std::vector<std::string> components;
    if (!path.empty() && path.front() == '/') {
        components.push_back("/");
    }
    for (auto& piece : pieces(path, '/')) {
        components.push_back(std::move(piece));
    }
    return components.size() > 2 ? components[2] : path;
}

}  // namespace morvane
