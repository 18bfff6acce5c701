#include "settings/KeyValueText.h"

#include <algorithm>

namespace morvane::key_value_text {

std::vector<std::pair<MorvaneServerInfoSection, std::string>> parse(std::string_view text) {
    std::vector<std::pair<MorvaneServerInfoSection, std::string>> entries;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const std::string_view line = text.substr(start, end - start);
        start = end + 1;
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos ||
            line.find('=', equals + 1) != std::string_view::npos) {
            continue;
        }
        if (const auto key = serverInfoFromRawValue(line.substr(0, equals))) {
            entries.emplace_back(*key, std::string(line.substr(equals + 1)));
        }
    }
    return entries;
}

std::string format(const std::map<std::string, std::string>& entries) {
    std::string text;
    for (const auto& [key, value] : entries) {
        text += key;
        text += '=';
        text += value;
        text += '\n';
    }
    return text;
}

}  // namespace morvane::key_value_text
