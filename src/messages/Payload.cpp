#include "messages/Payload.h"

#include <random>

#include "messages/JSONCoding.h"

namespace morvane {

namespace {

std::int64_t randomRequestIdentifier() {
    thread_local std::mt19937 generator{std::random_device{}()};
    return std::uniform_int_distribution<std::int64_t>(1, 999)(generator);
}

std::optional<std::string> serialize(const nlohmann::json& dictionary, std::string* error) {
    try {
        return dictionary.dump();
    } catch (const nlohmann::json::exception& failure) {
        if (error != nullptr) {
            *error = std::string("JSONSerialization error -1: ") + failure.what();
        }
        return std::nullopt;
    }
}

}  // namespace

PayloadParams PayloadParams::readFields(JSONObjectReader& in) {
    return {.key = in.required<std::string>("key"),
            .name = in.required<std::string>("name"),
            .type = in.required<std::string>("type"),
            .version = in.required<std::string>("version")};
}

nlohmann::json PayloadParams::JSONDictionary() const {
    return {{"key", key}, {"name", name}, {"type", type}, {"version", version}};
}

std::optional<PayloadParams> PayloadParams::fromData(std::string_view data, std::string* error) {
    return decodeJSON<PayloadParams>(data, error);
}

std::optional<std::string> PayloadParams::toData(std::string* error) const {
    return serialize(JSONDictionary(), error);
}

Payload Payload::make(std::string key, std::string name) {
    Payload payload;
    payload.identifier = randomRequestIdentifier();
    payload.params.key = std::move(key);
    payload.params.name = std::move(name);
    return payload;
}

Payload Payload::readFields(JSONObjectReader& in) {
    return {.jsonrpc = in.required<std::string>("jsonrpc"),
            .identifier = in.required<std::int64_t>("id"),
            .method = in.required<std::string>("method"),
            .params = in.required<PayloadParams>("params")};
}

nlohmann::json Payload::JSONDictionary() const {
    return {{"jsonrpc", jsonrpc},
            {"id", identifier},
            {"method", method},
            {"params", params.JSONDictionary()}};
}

std::optional<Payload> Payload::fromData(std::string_view data, std::string* error) {
    return decodeJSON<Payload>(data, error);
}

std::optional<std::string> Payload::toData(std::string* error) const {
    return serialize(JSONDictionary(), error);
}

}  // namespace morvane
