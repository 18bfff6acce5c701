#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "proxy/ProxyError.h"

namespace morvane {

/// What the provider is told besides the enable flag: where its default answers come from
/// and the dictionary through which the policy reaches it. The dictionary keeps the order in
/// which its keys were written.
struct DNSProxyProviderProtocol {
    std::optional<std::string> serverAddress;
    std::string providerBundleIdentifier;
    nlohmann::ordered_json providerConfiguration = nlohmann::ordered_json::object();
    bool disconnectOnSleep = false;
    bool enforceRoutes = false;
};

/// The system's DNS proxy preferences for this application: one configuration object held
/// across calls, filled by a load, stored by a save, deleted by a removal. Completions arrive
/// on the main queue, each with an error or nothing. The object's fields are touched on the
/// main queue only.
class DNSProxyPreferences {
public:
    using Completion = std::function<void(std::optional<ProxyError>)>;

    virtual ~DNSProxyPreferences() = default;

    virtual void loadFromPreferences(Completion completion) = 0;
    virtual void saveToPreferences(Completion completion) = 0;
    virtual void removeFromPreferences(Completion completion) = 0;

    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }
    const std::optional<DNSProxyProviderProtocol>& providerProtocol() const {
        return providerProtocol_;
    }
    void setProviderProtocol(std::optional<DNSProxyProviderProtocol> providerProtocol) {
        providerProtocol_ = std::move(providerProtocol);
    }
    const std::optional<std::string>& localizedDescription() const { return localizedDescription_; }
    void setLocalizedDescription(std::optional<std::string> text) {
        localizedDescription_ = std::move(text);
    }

protected:
    bool enabled_ = false;
    std::optional<DNSProxyProviderProtocol> providerProtocol_;
    std::optional<std::string> localizedDescription_;
};

}  // namespace morvane
