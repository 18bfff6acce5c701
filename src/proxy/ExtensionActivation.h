#pragma once

#include <memory>
#include <string>

#include "proxy/ProxyError.h"

namespace morvane {

/// Who hears how an activation or deactivation request goes. An activation's callbacks run
/// on the main queue; a deactivation's on a worker thread.
class ExtensionRequestDelegate {
public:
    virtual ~ExtensionRequestDelegate() = default;
    /// The request waits for the user (or an administrator) to allow it.
    virtual void requestNeedsUserApproval() = 0;
    /// An installed version is about to be replaced; the answer 1 allows it.
    virtual int actionForReplacingExtension(const std::string& existingVersion,
                                            const std::string& newVersion) = 0;
    /// Result 0 is done, 1 is done after a restart.
    virtual void requestDidFinishWithResult(const std::string& request, long long result) = 0;
    virtual void requestDidFailWithError(const std::string& request, const ProxyError& error) = 0;
};

/// Installs (starts) and removes (stops) the DNS proxy provider. The outcome of a submitted
/// request comes only through the delegate, which is held weakly.
class ExtensionActivation {
public:
    enum class Kind { activation, deactivation };

    virtual ~ExtensionActivation() = default;
    virtual void submitRequest(Kind kind, const std::string& identifier,
                               std::weak_ptr<ExtensionRequestDelegate> delegate) = 0;
    /// How requests are carried out, for the log ("systemd unit ...", "child process ...").
    virtual std::string name() const = 0;
};

}  // namespace morvane
