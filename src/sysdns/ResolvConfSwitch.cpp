#include "sysdns/ResolvConfSwitch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "sys/Files.h"
#include "sysdns/ResolvConf.h"

namespace morvane::sysdns {

namespace {

constexpr const char* kRecordName = "resolv.conf.json";
constexpr const char* kOriginalName = "resolv.conf.original";

struct Record {
    bool existed = true;
    bool wasSymlink = false;
    std::string linkTarget;
    mode_t mode = 0644;
    std::string proxyAddress;
    std::vector<std::string> originalServers;
    std::string original;
};

std::optional<Record> loadRecord(const std::filesystem::path& folder) {
    const auto text = sys::readWholeFile(folder / kRecordName);
    const auto original = sys::readWholeFile(folder / kOriginalName);
    if (!text || !original) {
        return std::nullopt;
    }
    const auto json = nlohmann::json::parse(*text, nullptr, false);
    if (!json.is_object()) {
        return std::nullopt;
    }
    Record record;
    record.existed = json.value("existed", true);
    record.wasSymlink = json.value("wasSymlink", false);
    record.linkTarget = json.value("linkTarget", std::string());
    record.mode = static_cast<mode_t>(json.value("mode", 0644));
    record.proxyAddress = json.value("proxyAddress", std::string());
    if (json.contains("originalServers") && json["originalServers"].is_array()) {
        for (const auto& server : json["originalServers"]) {
            if (server.is_string()) {
                record.originalServers.push_back(server.get<std::string>());
            }
        }
    }
    record.original = *original;
    return record;
}

bool isOurs(const std::string& content, const std::string& proxyAddress) {
    if (content.find(ResolvConfSwitch::kHeader) != std::string::npos) {
        return true;
    }
    const auto parsed = ResolvConf::parse(content);
    return !proxyAddress.empty() && parsed.nameservers.size() == 1 &&
           parsed.nameservers.front() == proxyAddress;
}

}  // namespace

const char* const ResolvConfSwitch::kHeader =
    "# Written by morvanecloud-dnsproxy while its DNS proxy is enabled; the previous file comes "
    "back when it stops.";

ResolvConfSwitch::ResolvConfSwitch(Options options) : options_(std::move(options)) {
    for (const auto& folder : recordDirectories()) {
        if (auto record = loadRecord(folder)) {
            originalServers_ = record->originalServers;
            break;
        }
    }
}

ResolvConfSwitch::~ResolvConfSwitch() {
    if (inotify_ >= 0) {
        ::close(inotify_);
    }
}

std::string ResolvConfSwitch::render(const std::string& address, const std::string& original) {
    std::string text = std::string(kHeader) + "\nnameserver " + address + "\n";
    for (const auto& line : ResolvConf::parse(original).keptLines) {
        text += line + "\n";
    }
    return text;
}

std::vector<std::filesystem::path> ResolvConfSwitch::recordDirectories() const {
    std::vector<std::filesystem::path> folders{options_.stateDirectory};
    if (!options_.durableDirectory.empty()) {
        folders.push_back(options_.durableDirectory);
    }
    return folders;
}

void ResolvConfSwitch::log(const std::string& line) const {
    if (options_.log) {
        options_.log(line);
    }
}

bool ResolvConfSwitch::saveRecord(const std::string& original, bool existed,
                                  const std::string& proxyAddress, std::string& error) {
    struct stat info {};
    const bool isLink = ::lstat(options_.path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
    struct stat target {};
    const mode_t mode =
        ::stat(options_.path.c_str(), &target) == 0 ? (target.st_mode & 07777) : 0644;
    nlohmann::json json{{"path", options_.path.string()}, {"existed", existed},
                        {"wasSymlink", isLink},           {"mode", mode},
                        {"proxyAddress", proxyAddress},   {"originalServers", originalServers_}};
    if (isLink) {
        std::error_code code;
        json["linkTarget"] = std::filesystem::read_symlink(options_.path, code).string();
    }
    for (const auto& folder : recordDirectories()) {
        // The original first: a record never names bytes that are not there.
        if (!sys::writeFileAtomically(folder / kOriginalName, original, 0600, error) ||
            !sys::writeFileAtomically(folder / kRecordName, json.dump(), 0600, error)) {
            dropRecords();
            return false;
        }
    }
    return true;
}

void ResolvConfSwitch::dropRecords() {
    for (const auto& folder : recordDirectories()) {
        std::error_code ignored;
        std::filesystem::remove(folder / kRecordName, ignored);
        std::filesystem::remove(folder / kOriginalName, ignored);
    }
}

bool ResolvConfSwitch::apply(const SwitchTarget& target, std::string& error) {
    std::lock_guard lock(mutex_);
    if (target.port != 53) {
        error = options_.path.string() + " can only name servers on port 53, not " +
                std::to_string(target.port);
        return false;
    }
    std::optional<Record> record;
    for (const auto& folder : recordDirectories()) {
        if ((record = loadRecord(folder))) {
            break;
        }
    }
    bool recordedNow = false;
    if (!record) {
        const auto current = sys::readWholeFile(options_.path);
        const bool existed = current.has_value() || errno != ENOENT;
        const std::string original = current.value_or(std::string());
        if (isOurs(original, target.address)) {
            error = options_.path.string() +
                    " already names the proxy and its original is not kept: not switched";
            return false;
        }
        originalServers_ = networkServers(ResolvConf::parse(original).nameservers, target.address);
        if (!saveRecord(original, existed, target.address, error)) {
            return false;
        }
        recordedNow = true;
        record = Record{};
        record->original = original;
        log("Kept " + options_.path.string() + " to put back later; its servers: " + [this] {
            std::string list;
            for (const auto& server : originalServers_) {
                list += (list.empty() ? "" : " ") + server;
            }
            return list.empty() ? std::string("none") : list;
        }());
    }
    const std::string content = render(target.address, record->original);
    sys::WriteMethod method = sys::WriteMethod::Replaced;
    if (!sys::replaceOrWriteInPlace(options_.path, content, 0644, method, error)) {
        if (recordedNow) {
            dropRecords();
        }
        return false;
    }
    if (method == sys::WriteMethod::InPlace) {
        log(options_.path.string() + " cannot be replaced (a mount point?): written in place");
    }
    written_ = content;
    watchFile();
    return true;
}

bool ResolvConfSwitch::restore(std::string& error) {
    std::lock_guard lock(mutex_);
    std::optional<Record> record;
    for (const auto& folder : recordDirectories()) {
        if ((record = loadRecord(folder))) {
            break;
        }
    }
    if (!record) {
        written_.reset();
        return true;
    }
    const auto current = sys::readWholeFile(options_.path);
    if (current && !isOurs(*current, record->proxyAddress)) {
        log(options_.path.string() +
            " was rewritten by another program since the switch; left as it is");
        dropRecords();
        written_.reset();
        return true;
    }
    if (record->wasSymlink && !record->linkTarget.empty()) {
        const auto temporary =
            options_.path.parent_path() / ("." + options_.path.filename().string() + ".link");
        std::error_code code;
        std::filesystem::remove(temporary, code);
        std::filesystem::create_symlink(record->linkTarget, temporary, code);
        if (!code && ::rename(temporary.c_str(), options_.path.c_str()) == 0) {
            dropRecords();
            written_.reset();
            log("Put back " + options_.path.string() + " as a symlink to " + record->linkTarget);
            return true;
        }
        std::filesystem::remove(temporary, code);
        // A link cannot land on a mount point: its bytes are the next best thing.
    }
    if (!record->existed) {
        if (::unlink(options_.path.c_str()) != 0 && errno != ENOENT) {
            error = "Cannot remove " + options_.path.string() + ": " + std::strerror(errno);
            return false;
        }
    } else {
        sys::WriteMethod method = sys::WriteMethod::Replaced;
        if (!sys::replaceOrWriteInPlace(options_.path, record->original, record->mode, method, error)) {
            return false;
        }
    }
    dropRecords();
    written_.reset();
    log("Put back " + options_.path.string());
    return true;
}

std::vector<std::string> ResolvConfSwitch::originalServers() const {
    std::lock_guard lock(mutex_);
    return originalServers_;
}

bool ResolvConfSwitch::stillApplied() {
    std::lock_guard lock(mutex_);
    if (!written_) {
        return true;
    }
    const auto current = sys::readWholeFile(options_.path);
    return current && *current == *written_;
}

void ResolvConfSwitch::watchFile() {
    if (inotify_ < 0) {
        inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (inotify_ < 0) {
            return;
        }
        // The folder tells of a file put in its place; the file itself of writes in place,
        // which is all a bind-mounted file ever sees.
        ::inotify_add_watch(inotify_, options_.path.parent_path().c_str(),
                            IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE);
    }
    if (fileWatch_ >= 0) {
        ::inotify_rm_watch(inotify_, fileWatch_);
    }
    fileWatch_ = ::inotify_add_watch(
        inotify_, options_.path.c_str(),
        IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW);
}

int ResolvConfSwitch::changeDescriptor() {
    std::lock_guard lock(mutex_);
    return inotify_;
}

void ResolvConfSwitch::takeChanges() {
    std::lock_guard lock(mutex_);
    if (inotify_ < 0) {
        return;
    }
    alignas(struct inotify_event) char buffer[4096];
    while (::read(inotify_, buffer, sizeof buffer) > 0) {
    }
    // The file may be a new inode now.
    watchFile();
}

}  // namespace morvane::sysdns
