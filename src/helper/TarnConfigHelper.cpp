#include "helper/TarnConfigHelper.h"

#include <syslog.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <memory>

#include "helper/HelperFiles.h"
#include "sys/Files.h"
#include "helper/TarnLogHelper.h"

namespace morvane {

namespace {

icu::UnicodeString unicode(const std::string& text) {
    return icu::UnicodeString::fromUTF8(text);
}

std::string utf8(const icu::UnicodeString& text) {
    std::string out;
    text.toUTF8String(out);
    return out;
}

/// Every character that is not a letter or digit escaped, so that the pattern matches the key
/// as it is spelled.
std::string literalPattern(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80 && std::isalnum(byte) == 0) {
            out += '\\';
        }
        out += c;
    }
    return out;
}

/// "$" and "\" escaped, so that the replacement is taken literally.
std::string literalReplacement(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '$' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out;
}

std::unique_ptr<icu::RegexMatcher> matcher(const std::string& pattern, uint32_t flags,
                                           const icu::UnicodeString& text) {
    UErrorCode status = U_ZERO_ERROR;
    auto result = std::make_unique<icu::RegexMatcher>(unicode(pattern), text, flags, status);
    if (U_FAILURE(status)) {
        return nullptr;
    }
    return result;
}

void log(const std::string& line) {
    TarnLogHelper::sharedInstance()->log(line);
}

}  // namespace

std::filesystem::path TarnConfigHelper::configFilePath() {
    return helper::supportFile("config.ini");
}

std::optional<std::string> TarnConfigHelper::configFileContent() {
    const auto path = configFilePath();
    std::string error;
    auto content = sys::readWholeFile(path, &error);
    if (!content) {
        log("Error reading file at " + path.string() + ": " + error);
    }
    return content;
}

bool TarnConfigHelper::setConfigFileContent(const std::string& content) {
    std::string error;
    return sys::writeFileAtomically(configFilePath(), content, 0644, error);
}

bool TarnConfigHelper::updateConfigFileSection(const std::string& section, const std::string& key,
                                               const std::string& value) {
    const auto content = configFileContent();
    if (!content || content->empty()) {
        return false;
    }
    const std::string newLine = key + "=" + value + "\n";
    const std::string pattern = literalPattern(key) + "=\\w*\\n";
    const icu::UnicodeString text = unicode(*content);

    std::string updated;
    auto search = matcher(pattern, 0, text);
    UErrorCode status = U_ZERO_ERROR;
    if (search && search->find(0, status) && U_SUCCESS(status)) {
        auto replace = matcher(pattern, UREGEX_CASE_INSENSITIVE, text);
        if (!replace) {
            return false;
        }
        status = U_ZERO_ERROR;
        const icu::UnicodeString result =
            replace->replaceAll(unicode(literalReplacement(newLine)), status);
        if (U_FAILURE(status)) {
            return false;
        }
        updated = utf8(result);
    } else {
        const std::string header = "[" + section + "]\n";
        const auto at = content->find(header);
        if (at == std::string::npos) {
            log("Unable to find file section: " + section);
            return false;
        }
        updated = *content;
        updated.insert(at + header.size(), newLine);
    }

    if (updated.empty()) {
        syslog(LOG_ERR, "%s", "Invalid config update - config.ini was not updated");
        return false;
    }
    if (!setConfigFileContent(updated)) {
        log("Unable to update config.ini");
        return false;
    }
    log(key + " updated successfully");
    return true;
}

}  // namespace morvane
