#include "device/DeviceServerAPI.h"

#include <unicode/regex.h>

#include <algorithm>
#include <cctype>
#include <semaphore>

#include "messages/JSONCoding.h"
#include "platform/MainQueue.h"
#include "platform/OperatingSystem.h"
#include "platform/StandardOutput.h"

namespace morvane {

namespace {

using Key = MorvaneServerInfoSection;

// The caller's side of one exchange. The reply may come after the caller has stopped
// waiting (a main-thread call past its limit); it then finds the call abandoned and is
// dropped, and the shared state keeps it harmless.
template <class Result>
class PendingCall {
public:
    void complete(Result result) {
        {
            std::lock_guard lock(mutex_);
            if (abandoned_) {
                return;
            }
            result_ = std::move(result);
            done_ = true;
        }
        signal_.release();
    }

    Result wait() {
        if (!platform::MainQueue::isCurrent()) {
            signal_.acquire();
        } else if (!signal_.try_acquire_for(DeviceServerAPI::kMainThreadWait)) {
            std::lock_guard lock(mutex_);
            if (!done_) {
                abandoned_ = true;
                return Result{};
            }
        }
        std::lock_guard lock(mutex_);
        return std::move(result_);
    }

private:
    std::mutex mutex_;
    std::binary_semaphore signal_{0};
    bool done_ = false;
    bool abandoned_ = false;
    Result result_{};
};

// "^\S+@\S+\.\S+$" as the platform's regular expressions read it (Unicode white space,
// and "$" also before a final line end).
bool looksLikeAnAddress(const std::string& text) {
    static const std::unique_ptr<icu::RegexPattern> pattern = [] {
        UErrorCode status = U_ZERO_ERROR;
        UParseError where{};
        std::unique_ptr<icu::RegexPattern> compiled(icu::RegexPattern::compile(
            icu::UnicodeString::fromUTF8(R"(^\S+@\S+\.\S+$)"), 0, where, status));
        return U_SUCCESS(status) ? std::move(compiled) : nullptr;
    }();
    if (!pattern) {
        return false;
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::UnicodeString input = icu::UnicodeString::fromUTF8(text);
    std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(input, status));
    if (U_FAILURE(status) || !matcher) {
        return false;
    }
    const bool found = matcher->find(status);
    return U_SUCCESS(status) && found;
}

std::string upperCased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

DeviceServerAPI::DeviceServerAPI()
    : concurrentQueue(platform::DispatchQueue::create("DeviceServerAPI.queue",
                                                      platform::DispatchQueue::Kind::concurrent)) {}

std::shared_ptr<Networking> DeviceServerAPI::networking() const {
    std::lock_guard lock(mutex_);
    return networking_;
}

void DeviceServerAPI::configureNetworking() {
    const auto text = settings->userDefaults->stringForKey(std::string(rawValue(Key::rpcURL)));
    const auto url = text ? platform::URL::parse(*text) : std::nullopt;
    if (!url) {
        logger->log("missing RTC_URL in configureNetworking", LogLevel::production);
        return;
    }
    const bool allowWeakKey =
        settings->userDefaults->stringForKey(std::string(rawValue(Key::allowWeakKey))) == "true";
    auto fresh = std::make_shared<Networking>(*url, allowWeakKey);
    std::lock_guard lock(mutex_);
    networking_ = std::move(fresh);
}

std::optional<std::string> DeviceServerAPI::dataFromPayload(const Payload& payload) {
    std::string error;
    auto data = payload.toData(&error);
    if (!data) {
        platform::printLine("error in converting the payload to data: " + error);
    }
    return data;
}

std::optional<std::string> DeviceServerAPI::dataFromConfigRequest(
    const DeviceRequestModel& request) {
    std::string error;
    auto data = encodeJSON(request, &error);
    if (!data) {
        platform::printLine("error in converting the payload to data: " + error);
    }
    return data;
}

std::vector<NIC> DeviceServerAPI::nicsFrom(
    const std::vector<platform::InterfaceDescription>& list) {
    std::vector<NIC> nics;
    for (const auto& interface : list) {
        if (interface.bsdName.empty() || interface.displayName.empty()) {
            continue;
        }
        const bool wireless =
            interface.type && upperCased(*interface.type).find("WI-FI") != std::string::npos;
        nics.push_back(NIC{.nicDescription = interface.displayName, .enabled = wireless});
    }
    return nics;
}

DeviceServerAPI::RegisterResult DeviceServerAPI::registerDevice(const std::string& key,
                                                                const std::string& name) {
    configureNetworking();
    const auto data = dataFromPayload(Payload::make(key, name));
    if (!data) {
        logger->log("Failed to extract data from dataFromPayload()", LogLevel::production);
        return {};
    }
    // The client as it is now: a call starting on another thread may replace it meanwhile.
    const auto client = networking();
    if (!client) {
        return {};
    }
    auto call = std::make_shared<PendingCall<RegisterResult>>();
    platform::DispatchQueue::global()->async([client, data = *data, call] {
        client->postDeviceAPI(
            data, ServerMethods::accountAddDevice, urlPath(ServerMethods::accountAddDevice),
            [&call](std::optional<ServerResponse> response,
                    std::optional<platform::HttpsError> error, std::optional<DeviceError>) {
                RegisterResult result;
                if (auto* configuration =
                        response ? std::get_if<MainConfiguration>(&*response) : nullptr) {
                    result.configuration = std::move(*configuration);
                }
                result.error = std::move(error);
                call->complete(std::move(result));
            });
    });
    return call->wait();
}

DeviceServerAPI::ConfigureResult DeviceServerAPI::configureDevice(
    const std::string& key, const std::optional<std::string>& location) {
    configureNetworking();
    auto customerEmail =
        settings->userDefaults->stringForKey(std::string(rawValue(Key::customerEmail)));
    std::string email = customerEmail ? *customerEmail : computerNameManager->getEMail();
    const std::string fullName = computerNameManager->fullUserName();
    if (!looksLikeAnAddress(email)) {
        email += ".local";
    }
    logger->log("Calling configureDevice with username " + fullName + " for email " + email,
                LogLevel::production);

    DeviceRequestModel request;
    request.params.device = Device{.key = key, .version = std::string(kClientVersion)};
    request.params.extra =
        Extra{.nics = nicsFrom(platform::networkInterfaces()),
              .os = OperatingSystemInfo{.type = "Linux", .version = platform::kernelVersion()},
              .publicIP = std::nullopt};
    request.params.location =
        Location{.name = location, .randomize = !location || location->empty()};
    request.params.user = User{.email = email, .name = fullName, .uuid = std::nullopt};

    const auto data = dataFromConfigRequest(request);
    if (!data) {
        logger->log("Failed to extract data from dataFromConfigRequest()", LogLevel::production);
        return {};
    }
    const auto client = networking();
    if (!client) {
        return {};
    }
    auto call = std::make_shared<PendingCall<ConfigureResult>>();
    platform::DispatchQueue::global()->async([client, data = *data, call] {
        client->postDeviceAPI(
            data, ServerMethods::configDevice, urlPath(ServerMethods::configDevice),
            [&call](std::optional<ServerResponse> response,
                    std::optional<platform::HttpsError> error,
                    std::optional<DeviceError> deviceError) {
                ConfigureResult result;
                if (auto* configuration =
                        response ? std::get_if<DeviceConfiguration>(&*response) : nullptr) {
                    result.configuration = std::move(*configuration);
                }
                result.error = std::move(error);
                result.deviceError = std::move(deviceError);
                call->complete(std::move(result));
            });
    });
    return call->wait();
}

}  // namespace morvane
