#include "provider/Policy.h"

#include <algorithm>

namespace morvane::provider {

std::vector<std::string> Policy::defaultResolvers() const {
    std::vector<std::string> result;
    for (const auto& rule : rules) {
        const bool hasDomain = rule.domain && !rule.domain->empty();
        const bool hasNetwork = rule.network && !rule.network->empty();
        if (hasDomain || hasNetwork) {
            continue;
        }
        for (const auto& resolver : rule.resolvers) {
            if (std::find(result.begin(), result.end(), resolver) == result.end()) {
                result.push_back(resolver);
            }
        }
    }
    if (result.empty() && serverAddress && !serverAddress->empty()) {
        result.push_back(*serverAddress);
    }
    return result;
}

}  // namespace morvane::provider
