#include "app/StatusReport.h"

#include <chrono>
#include <sstream>

#include "app/DepenencyInjection.h"
#include "messages/DeviceConfiguration.h"
#include "messages/JSONCoding.h"
#include "messages/MainConfiguration.h"
#include "platform/Files.h"
#include "platform/UserDefaults.h"
#include "settings/Utils.h"
#include "sys/MessageClient.h"
#include "sys/UnixSocket.h"
#include "watch/VPNMonitor.h"

namespace morvane {

namespace {

std::optional<std::string> nonEmpty(std::optional<std::string> text) {
    if (text && text->empty()) {
        return std::nullopt;
    }
    return text;
}

template <typename T>
std::optional<T> readDocument(const std::optional<std::filesystem::path>& url) {
    if (!url) {
        return std::nullopt;
    }
    const auto text = platform::readTextFile(*url);
    return text ? decodeJSON<T>(*text) : std::nullopt;
}

}  // namespace

StatusReport StatusReport::collect() {
    StatusReport report;
    // An object of its own on the file, not the process-wide one, so that nothing of it is
    // ever written back.
    const platform::UserDefaults defaults(platform::UserDefaults::standardPath());
    report.serverURL = nonEmpty(defaults.stringForKey("RPC_URL"));
    report.externalIP = nonEmpty(defaults.stringForKey("EXTERNAL_IP"));

    if (const auto config = readDocument<MainConfiguration>(Utils::configFileURL());
        config && config->result) {
        report.deviceKey = nonEmpty(config->result->device);
    }
    if (!report.deviceKey) {
        report.deviceKey = nonEmpty(defaults.stringForKey("DEVICE_KEY"));
    }
    report.enrolled = report.deviceKey.has_value();

    const auto policy = readDocument<DeviceConfiguration>(Utils::deviceFileURL());
    if (policy && policy->result) {
        report.hasPolicy = true;
        const auto& cfg = policy->result->cfg;
        if (cfg && cfg->runtime && !cfg->runtime->locations.empty()) {
            report.locationTag = cfg->runtime->locations.front().tag;
        }
    }

    sys::MessageClient provider(sys::runtimeDirectory() / "dnsproxy.control");
    std::string error;
    if (const auto status =
            provider.call("status", nlohmann::json::object(), std::chrono::seconds(3), error)) {
        report.providerReachable = true;
        report.proxyEnabled = status->value("enabled", false);
        report.listening = status->value("listening", "");
        report.switchInForce = status->value("switch", "");
    } else {
        report.providerProblem = error;
    }

    // The agent's own judgement: a tunnel with an address and a running client of a known name.
    // The service table lets the monitor reach its logger; no event loop runs here, so nothing
    // it might log reaches a file.
    const DepenencyInjection dependencies;
    VPNMonitor monitor;
    monitor.deviceConfig = policy;
    report.vpnRunning = monitor.isVPNRunning();
    if (!policy) {
        report.vpnNote = "no policy to judge by";
    }
    return report;
}

std::string StatusReport::text() const {
    std::ostringstream out;
    const auto orNone = [](const std::optional<std::string>& text, const char* none) {
        return text ? *text : std::string(none);
    };
    out << "Enrolled:          " << (enrolled ? "yes" : "no") << '\n';
    out << "Device key:        " << orNone(deviceKey, "none") << '\n';
    out << "Device server:     " << orNone(serverURL, "not set") << '\n';
    out << "Policy:            "
        << (hasPolicy
                ? "stored" + (locationTag ? " (location " + *locationTag + ")" : std::string())
                : "none")
        << '\n';
    if (providerReachable) {
        out << "DNS proxy:         " << (proxyEnabled ? "enabled" : "disabled")
            << (listening.empty() ? "" : ", serving on " + listening) << '\n';
        out << "System DNS switch: " << (switchInForce.empty() ? "none" : switchInForce) << '\n';
    } else {
        out << "DNS proxy:         not reachable (" << providerProblem << ")\n";
        out << "System DNS switch: unknown\n";
    }
    out << "VPN:               "
        << (vpnRunning ? (*vpnRunning ? "running" : "not running") : "unknown")
        << (vpnNote.empty() ? "" : " (" + vpnNote + ")") << '\n';
    out << "External address:  " << orNone(externalIP, "unknown") << '\n';
    return out.str();
}

}  // namespace morvane
