#include "proxy/ControlSocketPreferences.h"

#include "platform/MainQueue.h"
#include "sys/MessageClient.h"
#include "sys/UnixSocket.h"

namespace morvane {

namespace {

std::optional<std::string> textMember(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

/// A JSON object with its keys in the order given: the provider dictionary as it was made.
nlohmann::ordered_json ordered(const nlohmann::json& value) {
    return nlohmann::ordered_json::parse(value.dump());
}

}  // namespace

std::filesystem::path ControlSocketPreferences::defaultSocketPath() {
    return sys::runtimeDirectory() / "dnsproxy.control";
}

ControlSocketPreferences::ControlSocketPreferences(std::filesystem::path socketPath,
                                                   std::chrono::milliseconds timeout)
    : socketPath_(std::move(socketPath)),
      timeout_(timeout),
      queue_(platform::DispatchQueue::create("ControlSocketPreferences.queue")) {}

nlohmann::json ControlSocketPreferences::saveArguments() const {
    nlohmann::json arguments = nlohmann::json::object();
    arguments["enabled"] = enabled_;
    if (providerProtocol_) {
        if (providerProtocol_->serverAddress) {
            arguments["serverAddress"] = *providerProtocol_->serverAddress;
        }
        arguments["providerBundleIdentifier"] = providerProtocol_->providerBundleIdentifier;
        arguments["providerConfiguration"] =
            nlohmann::json::parse(providerProtocol_->providerConfiguration.dump());
    }
    if (localizedDescription_) {
        arguments["localizedDescription"] = *localizedDescription_;
    }
    return arguments;
}

void ControlSocketPreferences::loadFromPreferences(Completion completion) {
    exchange("load", nlohmann::json::object(), true, std::move(completion));
}

void ControlSocketPreferences::saveToPreferences(Completion completion) {
    exchange("save", saveArguments(), false, std::move(completion));
}

void ControlSocketPreferences::removeFromPreferences(Completion completion) {
    exchange("remove", nlohmann::json::object(), false, std::move(completion));
}

void ControlSocketPreferences::exchange(const std::string& message, nlohmann::json arguments,
                                        bool fillFromReply, Completion completion) {
    std::weak_ptr<ControlSocketPreferences> weakSelf = weak_from_this();
    queue_->async([weakSelf, message, arguments = std::move(arguments), fillFromReply,
                   completion = std::move(completion), path = socketPath_, timeout = timeout_] {
        std::string failure;
        std::optional<nlohmann::json> reply;
        {
            sys::MessageClient client(path);
            reply = client.call(message, arguments, timeout, failure);
        }
        std::optional<ProxyError> error;
        if (!reply) {
            error = ProxyError{proxy_error::kConnectionDomain, 1,
                               "The DNS proxy's control socket " + path.string() +
                                   " did not answer \"" + message + "\": " + failure,
                               nlohmann::json::object()};
        } else if (const auto found = reply->find("error"); found != reply->end()) {
            error = ProxyError::fromJson(*found);
            if (!error) {
                error = ProxyError{
                    proxy_error::kConnectionDomain, 2,
                    "The DNS proxy answered \"" + message + "\" with an error it did not describe",
                    nlohmann::json::object()};
            }
        }
        platform::MainQueue::async([weakSelf, error, reply, fillFromReply, completion] {
            auto self = weakSelf.lock();
            if (!self) {
                return;
            }
            if (!error && fillFromReply) {
                self->fill(*reply);
            }
            if (completion) {
                completion(error);
            }
        });
    });
}

void ControlSocketPreferences::fill(const nlohmann::json& reply) {
    const auto found = reply.find("configuration");
    if (found == reply.end() || !found->is_object()) {
        // Nothing stored: a fresh configuration, switched off.
        enabled_ = false;
        providerProtocol_.reset();
        localizedDescription_.reset();
        return;
    }
    const auto& stored = *found;
    enabled_ = stored.value("enabled", false);
    DNSProxyProviderProtocol providerProtocol;
    providerProtocol.serverAddress = textMember(stored, "serverAddress");
    providerProtocol.providerBundleIdentifier =
        textMember(stored, "providerBundleIdentifier").value_or("");
    if (const auto dictionary = stored.find("providerConfiguration");
        dictionary != stored.end() && dictionary->is_object()) {
        providerProtocol.providerConfiguration = ordered(*dictionary);
    }
    providerProtocol_ = std::move(providerProtocol);
    localizedDescription_ = textMember(stored, "localizedDescription");
}

}  // namespace morvane
