#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "proxy/ExtensionBundle.h"
#include "proxy/ProxyError.h"

namespace morvane {

/// The calls the provider makes to the application (AppCommunication). They reach the
/// receiver on the main queue.
class AppCommunication {
public:
    virtual ~AppCommunication() = default;
    virtual void proxyStoppedWithReason(long long reason) = 0;
    virtual void connectionErrorWithReason(const ProxyError& error) = 0;
};

/// The application's end of the provider link, as the DNS proxy control uses it.
class ProviderLink {
public:
    virtual ~ProviderLink() = default;
    /// Opens the way back from the provider, unless it is open, and gives the provider's (or
    /// the failure's) text to the completion, on a worker thread.
    virtual void registerWithProvider(const std::optional<ExtensionBundle>& bundle,
                                      std::weak_ptr<AppCommunication> delegate,
                                      std::function<void(const std::string&)> completion) = 0;
};

}  // namespace morvane
