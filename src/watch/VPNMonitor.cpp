#include "watch/VPNMonitor.h"

#include <algorithm>
#include <cctype>

#include "platform/BuildInfo.h"
#include "platform/InterfaceAddresses.h"
#include "platform/NetworkInterfaces.h"
#include "platform/RouteWatch.h"
#include "platform/RunningApplications.h"
#include "platform/StandardOutput.h"
#include "watch/NetworkInterface.h"

namespace morvane {

namespace {

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace

const std::set<std::string>& VPNMonitor::builtInNames() {
    static const std::set<std::string> names{
        "AnyConnect",     "Citrix",   "Juniper",         "SonicWall mobile connect",
        "Global Connect", "Fortinet", "Anywhere Access",
    };
    return names;
}

VPNMonitor::VPNMonitor()
    : VPNMonitor(Machine{platform::interfacesWithIPv4Address,
                         [] { return platform::runningApplicationNames(); }}) {}

VPNMonitor::VPNMonitor(Machine machine) : machine_(std::move(machine)) {}

VPNMonitor::~VPNMonitor() = default;

void VPNMonitor::startMonitoring() {
    const std::string identifier = build::kBundleIdentifier;
    if (identifier.empty()) {
        platform::printLine("Could not get bundle identifier");
        return;
    }
    std::string error;
    auto watch = platform::RouteWatch::open(error);
    if (!watch) {
        platform::printLine("Could not connect SCDynamicStoreCreate");
        return;
    }
    // The list only serves this output, as a record of what the machine has.
    std::vector<NetworkInterface> interfaces;
    for (const auto& description : platform::networkInterfaces()) {
        if (description.bsdName.empty() || description.displayName.empty()) {
            continue;
        }
        interfaces.push_back({description.bsdName, description.displayName, false});
        platform::printLine("Hardware Port: " + description.displayName + " \nInterface " +
                            description.bsdName);
    }
    platform::RouteWatch* running = nullptr;
    {
        std::lock_guard lock(watchMutex_);
        if (stopped_) {
            return;
        }
        watch_ = std::move(watch);
        running = watch_.get();
    }
    running->run([this] { ipv4StateChanged(); });
}

void VPNMonitor::stopMonitoring() {
    std::lock_guard lock(watchMutex_);
    stopped_ = true;
    if (watch_) {
        watch_->stop();
    }
}

void VPNMonitor::ipv4StateChanged() {
    if (hasRunningVPN()) {
        vpnWasRunning = true;
        notificationPublisher->post(ChangeType::VPNDidStart);
    } else if (vpnWasRunning) {
        vpnWasRunning = false;
        notificationPublisher->post(ChangeType::VPNDidStop);
    }
}

bool VPNMonitor::hasRunningVPN() {
    const auto withAddress =
        machine_.interfacesWithIPv4Address ? machine_.interfacesWithIPv4Address() : std::nullopt;
    if (!withAddress) {
        platform::printLine("Failed to create store in SCDynamicStoreCreate");
    }
    bool found = false;
    for (int n = 0; n < kTunnelCount; ++n) {
        if (withAddress && withAddress->contains("tun" + std::to_string(n))) {
            found = true;
        }
    }
    return found;
}

std::vector<std::string> VPNMonitor::vpnNames() {
    std::set<std::string> names = builtInNames();
    if (deviceConfig && deviceConfig->result && deviceConfig->result->cfg &&
        deviceConfig->result->cfg->runtime && deviceConfig->result->cfg->runtime->tarn &&
        deviceConfig->result->cfg->runtime->tarn->interfacesToIgnore) {
        const auto& fromConfig = *deviceConfig->result->cfg->runtime->tarn->interfacesToIgnore;
        std::string list = "[";
        for (const auto& name : fromConfig) {
            list += (list.size() > 1 ? ", \"" : "\"") + name + "\"";
        }
        logger->log("vpnsFromConfig are " + list + "]", LogLevel::production);
        names.insert(fromConfig.begin(), fromConfig.end());
    }
    return {names.begin(), names.end()};
}

bool VPNMonitor::isVPNRunning() {
    if (!deviceConfig) {
        return false;
    }
    if (!hasRunningVPN()) {
        return false;
    }
    for (const auto& name : vpnNames()) {
        const std::string wanted = lowercased(name);
        // The list of programs is read anew for each name, as the programs may come and go.
        const auto running = machine_.runningApplicationNames ? machine_.runningApplicationNames()
                                                              : std::vector<std::string>{};
        const bool hit = std::any_of(running.begin(), running.end(), [&](const std::string& app) {
            return !app.empty() && lowercased(app).find(wanted) != std::string::npos;
        });
        if (hit) {
            return true;
        }
    }
    return false;
}

}  // namespace morvane
