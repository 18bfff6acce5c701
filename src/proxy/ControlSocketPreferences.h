#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/DispatchQueue.h"
#include "proxy/DNSProxyPreferences.h"

namespace morvane {

/// The DNS proxy preferences kept by the provider: `load`, `save` and `remove` over its
/// control socket, "dnsproxy.control" in the run-time folder. Each exchange runs on a queue of
/// its own and its completion comes back on the main queue; nothing is done when this object
/// is gone by then. A socket that does not answer is a failure of the connection domain.
class ControlSocketPreferences : public DNSProxyPreferences,
                                 public std::enable_shared_from_this<ControlSocketPreferences> {
public:
    /// The control socket of this machine (under $MORVANECLOUD_SYSROOT when set).
    static std::filesystem::path defaultSocketPath();

    explicit ControlSocketPreferences(std::filesystem::path socketPath = defaultSocketPath(),
                                      std::chrono::milliseconds timeout = std::chrono::seconds(10));

    void loadFromPreferences(Completion completion) override;
    void saveToPreferences(Completion completion) override;
    void removeFromPreferences(Completion completion) override;

    /// The save's arguments for the current state of the object.
    nlohmann::json saveArguments() const;

private:
    void exchange(const std::string& message, nlohmann::json arguments, bool fillFromReply,
                  Completion completion);
    void fill(const nlohmann::json& reply);

    std::filesystem::path socketPath_;
    std::chrono::milliseconds timeout_;
    std::shared_ptr<platform::DispatchQueue> queue_;
};

}  // namespace morvane
