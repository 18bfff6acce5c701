#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "support/TestEnvironment.h"

class QProcess;

namespace morvane::test {

/// tools/devserver as a child process: HTTPS on 127.0.0.1 with a certificate of its own,
/// steered through its control port. It also stops by itself when this process dies, since
/// it watches the end of its standard input. Calls throw std::runtime_error with the
/// server's own explanation when it cannot start or refuses a control request.
class DevServer {
public:
    static constexpr const char* kInstallKey = "test-install-key";
    static constexpr const char* kRegisterMethod = "account_add_device";
    static constexpr const char* kConfigureMethod = "device_configure";

    enum class FaultMode {
        Error,         // a JSON-RPC error with `code` and `message`
        Unauthorized,  // the JSON-RPC error "Unauthorized"
        EmptyBody,     // a reply with no body
        Undecodable,   // a body that does not decode (`body` to choose it)
        Status500,     // status 500 with the body a good reply would have had
        Stall,         // no answer for `stall`, then the usual one
        Drop,          // the connection closed without a reply
    };

    // Every member has an initializer, so that a designated initializer may leave any out.
    struct Fault {
        FaultMode mode = FaultMode::Error;
        std::optional<std::string> method{};  // both methods when absent
        std::optional<int> count{};           // until clearFaults() when absent
        std::optional<std::int64_t> code{};
        std::optional<std::string> message{};
        std::optional<std::string> body{};
        std::optional<int> status{};
        std::chrono::milliseconds stall{0};

        nlohmann::json toJson() const;
    };

    struct Options {
        std::vector<std::string> deviceKeys;
        /// What every new device gets a copy of; the server's own default when absent.
        std::optional<nlohmann::json> policy;
        /// Pending from the first request on.
        std::vector<Fault> faults;
        /// 0 for any free port. The install command accepts ports of at most four digits,
        /// which the system's free ports seldom are: see freeShortPort().
        int port = 0;
    };

    /// A port of 127.0.0.1 below 10000 that nothing listens on at this moment.
    static int freeShortPort();

    DevServer();
    explicit DevServer(const Options& options);
    DevServer(const DevServer&) = delete;
    DevServer& operator=(const DevServer&) = delete;
    ~DevServer();

    int port() const { return port_; }
    std::string baseUrl() const { return "https://127.0.0.1:" + std::to_string(port_); }
    /// The self-signed certificate the server presents, in PEM.
    const std::filesystem::path& certificatePath() const { return certificate_; }
    std::int64_t processId() const;

    void addFault(const Fault& fault) { control("POST", "/faults", fault.toJson()); }
    void clearFaults() { control("POST", "/faults/clear"); }
    nlohmann::json pendingFaults() { return control("GET", "/faults"); }

    /// Every request received, oldest first, each an object with "seq", "time", "method",
    /// "path", "headers", "body", "json", "rpc_method" and "fault".
    nlohmann::json requests() { return control("GET", "/requests"); }
    nlohmann::json requestsTo(const std::string& path);
    void clearRequests() { control("POST", "/requests/clear"); }

    void addDeviceKey(const std::string& key) { control("POST", "/keys", deviceKeys(key)); }
    /// A revoked device key makes its next configuration "Unauthorized", as on a real account.
    void removeDeviceKey(const std::string& key) {
        control("POST", "/keys/remove", deviceKeys(key));
    }
    /// With a device key, that device's policy exactly as given; without, the template for
    /// devices enrolled later.
    void setPolicy(const nlohmann::json& policy,
                   const std::optional<std::string>& deviceKey = std::nullopt);
    /// Install keys, devices with their policies, and the template.
    nlohmann::json account() { return control("GET", "/account"); }

private:
    void start(const Options& options);
    void stop();
    nlohmann::json control(const std::string& verb, const std::string& path,
                           const std::optional<nlohmann::json>& body = std::nullopt);
    /// Where the server's standard error goes, and what it wrote there.
    std::filesystem::path logPath() const { return folder_.path() / "devserver.log"; }
    std::string log() const { return readFile(logPath()); }
    static nlohmann::json deviceKeys(const std::string& key) {
        return {{"device_keys", nlohmann::json::array({key})}};
    }

    // Declared first so that it goes last, after the process that writes into it.
    TempDir folder_;
    std::unique_ptr<QProcess> process_;
    int port_ = 0;
    int controlPort_ = 0;
    std::filesystem::path certificate_;
};

}  // namespace morvane::test
