#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/Injected.h"
#include "core/TarnLogger.h"
#include "messages/DeviceError.h"
#include "messages/ServerMethods.h"
#include "messages/ServerResponse.h"
#include "platform/HttpsClient.h"
#include "platform/URL.h"

namespace morvane {

/// One device server address and one HTTPS session: posts a JSON-RPC body and turns the
/// reply into a response record. One call is one exchange; nothing is retried.
class Networking {
public:
    /// (response, transport error, JSON-RPC error of a configuration reply)
    using Completion =
        std::function<void(std::optional<ServerResponse>, std::optional<platform::HttpsError>,
                           std::optional<DeviceError>)>;

    static constexpr int kDefaultPort = 8443;
    static constexpr std::chrono::seconds kTimeout{60};

    /// With `allowWeakKey` any server certificate is accepted.
    Networking(platform::URL rpcURL, bool allowWeakKey);

    /// Posts `data` to `path` of the server and calls `completion` once, on the calling
    /// thread, before returning: the exchange blocks the caller for its whole length,
    /// bounded by the idle time-out.
    void postDeviceAPI(const std::string& data, ServerMethods method, std::string_view path,
                       const Completion& completion);

    /// Always https, the host of `rpcURL` and its port (8443 when it names none), and the
    /// given path in place of its own. Nothing when `rpcURL` has no host.
    std::optional<platform::URL> requestURL(std::string_view path) const;

    const platform::URL rpcURL;
    const bool allowWeakKey;
    Injected<TarnLogger> logger;

private:
    std::shared_ptr<const platform::HttpsClient> session();

    std::once_flag sessionOnce_;
    std::shared_ptr<const platform::HttpsClient> session_;
};

}  // namespace morvane
