#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "proxy/ExtensionActivation.h"

class QDBusConnection;

namespace morvane {

/// Activation through systemd: StartUnit and StopUnit of the provider's unit on the system
/// bus, with polkit deciding. A call that polkit would only allow after asking someone is
/// first refused as needing interactive authorization; that is "needs user approval", and the
/// call is made again with asking allowed. The request finishes when the unit is active (or,
/// for a stop, inactive). Runs on the main thread's Qt event loop; a deactivation's outcome
/// is told on a worker thread.
class SystemdActivation : public ExtensionActivation,
                          public std::enable_shared_from_this<SystemdActivation> {
public:
    static constexpr const char* kUnit = "morvanecloud-dnsproxy.service";

    explicit SystemdActivation(std::chrono::milliseconds settleTimeout = std::chrono::seconds(90));

    /// Whether systemd runs this machine (its run-time folder exists) and the system bus
    /// answers.
    static bool available();

    void submitRequest(Kind kind, const std::string& identifier,
                       std::weak_ptr<ExtensionRequestDelegate> delegate) override;
    std::string name() const override;

private:
    struct Request;
    void call(std::shared_ptr<Request> request, bool interactive);
    void poll(std::shared_ptr<Request> request);
    void settle(std::shared_ptr<Request> request, const std::string& state);
    void finish(const std::shared_ptr<Request>& request, std::optional<ProxyError> error);

    std::chrono::milliseconds settleTimeout_;
};

}  // namespace morvane
