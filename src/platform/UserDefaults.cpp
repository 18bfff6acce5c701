#include "platform/UserDefaults.h"

#include <QSettings>
#include <QString>
#include <cstdlib>

namespace morvane::platform {

namespace fs = std::filesystem;

namespace {

QString toQt(const std::string& text) {
    return QString::fromStdString(text);
}

std::string textOf(const UserDefaults::Value& value) {
    if (const bool* flag = std::get_if<bool>(&value)) {
        return *flag ? "true" : "false";
    }
    return std::get<std::string>(value);
}

}  // namespace

fs::path UserDefaults::standardPath() {
    fs::path base;
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/') {
        base = config;
    } else if (const char* home = std::getenv("HOME"); home && *home) {
        base = fs::path(home) / ".config";
    } else {
        base = "/tmp";
    }
    return base / "MorvaneCloud" / "defaults.ini";
}

std::shared_ptr<UserDefaults> UserDefaults::standard() {
    static const auto defaults = std::make_shared<UserDefaults>(standardPath());
    return defaults;
}

UserDefaults::UserDefaults(fs::path file)
    : path_(std::move(file)),
      settings_(std::make_unique<QSettings>(QString::fromStdString(path_.string()),
                                            QSettings::IniFormat)) {}

UserDefaults::~UserDefaults() {
    std::lock_guard lock(mutex_);
    settings_->sync();
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) const {
    std::lock_guard lock(mutex_);
    const QString name = toQt(key);
    if (settings_->contains(name)) {
        return settings_->value(name).toString().toStdString();
    }
    if (auto registered = registered_.find(key); registered != registered_.end()) {
        return textOf(registered->second);
    }
    return std::nullopt;
}

bool UserDefaults::boolForKey(const std::string& key) const {
    const auto text = stringForKey(key);
    if (!text) {
        return false;
    }
    // The same reading of text as a boolean that the platform's defaults apply.
    const std::string& value = *text;
    std::size_t at = value.find_first_not_of(" \t\n");
    if (at != std::string::npos && (value[at] == '+' || value[at] == '-')) {
        ++at;
    }
    while (at < value.size() && value[at] == '0') {
        ++at;
    }
    if (at >= value.size()) {
        return false;
    }
    const char first = value[at];
    return first == 'Y' || first == 'y' || first == 'T' || first == 't' ||
           (first >= '1' && first <= '9');
}

void UserDefaults::setValue(const std::string& value, const std::string& key) {
    std::lock_guard lock(mutex_);
    settings_->setValue(toQt(key), toQt(value));
    settings_->sync();
}

void UserDefaults::setBool(bool value, const std::string& key) {
    setValue(value ? "true" : "false", key);
}

void UserDefaults::removeObjectForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    settings_->remove(toQt(key));
    settings_->sync();
}

void UserDefaults::registerDefaults(const std::map<std::string, Value>& defaults) {
    std::lock_guard lock(mutex_);
    for (const auto& [key, value] : defaults) {
        registered_[key] = value;
    }
}

std::map<std::string, std::string> UserDefaults::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    std::map<std::string, std::string> result;
    for (const QString& key : settings_->allKeys()) {
        result[key.toStdString()] = settings_->value(key).toString().toStdString();
    }
    return result;
}

bool UserDefaults::synchronize() {
    std::lock_guard lock(mutex_);
    settings_->sync();
    return settings_->status() == QSettings::NoError;
}

}  // namespace morvane::platform
