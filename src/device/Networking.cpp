#include "device/Networking.h"

#include <vector>

#include "messages/JSONCoding.h"
#include "platform/StandardOutput.h"

namespace morvane {

Networking::Networking(platform::URL url, bool weakKey)
    : rpcURL(std::move(url)), allowWeakKey(weakKey) {}

std::shared_ptr<const platform::HttpsClient> Networking::session() {
    std::call_once(sessionOnce_, [this] {
        session_ = std::make_shared<const platform::HttpsClient>(platform::HttpsClient::Options{
            .acceptAnyCertificate = allowWeakKey, .idleTimeout = kTimeout});
    });
    return session_;
}

std::optional<platform::URL> Networking::requestURL(std::string_view path) const {
    if (!rpcURL.host()) {
        return std::nullopt;
    }
    return platform::URL::make("https", *rpcURL.host(), rpcURL.port().value_or(kDefaultPort),
                               std::string(path));
}

void Networking::postDeviceAPI(const std::string& data, ServerMethods method, std::string_view path,
                               const Completion& completion) {
    const auto client = session();
    const auto url = requestURL(path);
    if (!url) {
        completion(std::nullopt, std::nullopt, std::nullopt);
        return;
    }
    const std::string call = " for server call " + std::string(caseName(method));
    logger->log("configuring device with url " + url->text(), LogLevel::production);
    const std::vector<std::string> headers = {"Content-Type: application/json-rpc",
                                              "Accept: application/json; charset=utf-8"};
    if (isValidUTF8(data)) {
        logger->log("Calling server with " + data + call, LogLevel::production);
    }

    // The status code is not judged: a reply that decodes counts, whatever its status.
    const auto reply = client->post(url->text(), headers, data);
    if (reply.error) {
        logger->log("Network call error " + reply.error->description + call, LogLevel::production);
        completion(std::nullopt, reply.error, std::nullopt);
        return;
    }
    if (reply.body.empty()) {
        platform::printLine("missing data");
        completion(std::nullopt, std::nullopt, std::nullopt);
        return;
    }
    if (isValidUTF8(reply.body)) {
        logger->log("resultStr in postDeviceAPI " + reply.body + call, LogLevel::production);
    }

    std::optional<ServerResponse> response;
    std::optional<DeviceError> deviceError;
    std::string error;
    if (method == ServerMethods::configDevice) {
        auto configuration = decodeJSON<DeviceConfiguration>(reply.body, &error);
        if (!configuration) {
            logger->log("error in converting the DeviceResult from data: " + error,
                        LogLevel::production);
            platform::printLine("original device result is " + reply.body);
        } else {
            if (configuration->error) {
                logger->log("Network call error message " + configuration->error->message + call,
                            LogLevel::production);
                deviceError = configuration->error;
            }
            response = std::move(*configuration);
        }
    } else {
        // A refused enrolment stays inside the response; the caller stores it as it is.
        if (auto configuration = decodeJSON<MainConfiguration>(reply.body, &error)) {
            response = std::move(*configuration);
        } else {
            platform::printLine("error in converting the DeviceResult from data: " + error);
        }
    }
    completion(std::move(response), std::nullopt, std::move(deviceError));
}

}  // namespace morvane
