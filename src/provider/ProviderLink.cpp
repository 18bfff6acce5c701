#include "provider/ProviderLink.h"

#include <iostream>

namespace morvane::provider {

namespace {

void printLine(const std::string& line) {
    std::cout << line << std::endl;
}

}  // namespace

ProviderLink::ProviderLink(std::optional<std::string> displayName, ServiceLog& log, Send send,
                           Print print)
    : name_(displayName && !displayName->empty() ? *displayName : "unknown"),
      log_(log),
      send_(std::move(send)),
      print_(print ? std::move(print) : Print(printLine)) {}

void ProviderLink::connectionOpened(std::uint64_t connection) {
    std::lock_guard lock(mutex_);
    currentConnection_ = connection;
}

void ProviderLink::connectionClosed(std::uint64_t connection) {
    std::lock_guard lock(mutex_);
    if (currentConnection_ == connection) {
        currentConnection_.reset();
    }
}

std::optional<nlohmann::json> ProviderLink::handle(std::uint64_t connection,
                                                   const std::string& selector,
                                                   const nlohmann::json& arguments) {
    (void)connection;
    if (selector == "register:") {
        return nlohmann::json{{"text", "Registered extension " + name_}};
    }
    if (selector != "updateConfigWithConfig:completionHandler:") {
        return std::nullopt;
    }
    log_.info("Received configData from the app");
    print_("Fetching device config");
    std::string error;
    std::optional<NetworkExtConfig> config;
    auto data = arguments.is_object() ? arguments.find("config") : arguments.end();
    if (!arguments.is_object() || data == arguments.end()) {
        error = "no \"config\" in the message";
    } else if (!data->is_string()) {
        error = "\"config\" is not a text";
    } else {
        config = NetworkExtConfig::decode(data->get_ref<const std::string&>(), error);
    }
    if (!config) {
        print_("Unable to decode device config (" + error + ")");
        return nlohmann::json{{"text", name_ + " failed to unwrap the config"}};
    }
    {
        std::lock_guard lock(mutex_);
        networkConfig_ = std::move(config);
    }
    return nlohmann::json{{"text", name_ + " updated config"}};
}

bool ProviderLink::proxyStopped(StopReason reason) {
    return sendUp("proxyStoppedWithReason:", {{"reason", static_cast<int>(reason)}});
}

bool ProviderLink::connectionError(const nlohmann::json& error) {
    return sendUp("connectionErrorWithReason:", {{"error", error}});
}

bool ProviderLink::sendUp(const std::string& message, const nlohmann::json& arguments) {
    std::optional<std::uint64_t> connection = currentConnection();
    if (!connection) {
        log_.info("No agent is connected to hear " + message);
        return false;
    }
    if (!send_(*connection, message, arguments)) {
        log_.info("The agent's connection is gone; " + message + " not delivered");
        connectionClosed(*connection);
        return false;
    }
    return true;
}

std::optional<NetworkExtConfig> ProviderLink::networkConfig() const {
    std::lock_guard lock(mutex_);
    return networkConfig_;
}

std::optional<std::uint64_t> ProviderLink::currentConnection() const {
    std::lock_guard lock(mutex_);
    return currentConnection_;
}

}  // namespace morvane::provider
