#include "messages/DeviceConfiguration.h"

#include "messages/JSONCoding.h"

namespace morvane {

Tarn Tarn::readFields(JSONObjectReader& in) {
    return {.interfacesToIgnore = in.optional<std::vector<std::string>>("interfaces_to_ignore"),
            .logLevel = in.optional<LogLevel>("log_level"),
            .ncsiEchoResolver = in.optional<std::string>("ncsi_echo_resolver"),
            .ncsiEventDelay = in.optional<std::int64_t>("ncsi_event_delay"),
            .ncsiInterval = in.optional<std::int64_t>("ncsi_interval"),
            .ncsiIntervalDisconnected = in.optional<std::int64_t>("ncsi_interval_disconnected"),
            .ncsiTimeout = in.optional<std::int64_t>("ncsi_timeout"),
            .ncsiURL = in.optional<std::string>("ncsi_url"),
            .trayType = in.optional<UITrayIconDisplayType>("tray_type"),
            .unboundLogQueries = in.optional<bool>("unbound_log_queries"),
            .unboundUseSyslog = in.optional<bool>("unbound_use_syslog")};
}

void Tarn::writeFields(JSONWriter& out) const {
    out.field("interfaces_to_ignore", interfacesToIgnore);
    out.field("log_level", logLevel);
    out.field("ncsi_echo_resolver", ncsiEchoResolver);
    out.field("ncsi_event_delay", ncsiEventDelay);
    out.field("ncsi_interval", ncsiInterval);
    out.field("ncsi_interval_disconnected", ncsiIntervalDisconnected);
    out.field("ncsi_timeout", ncsiTimeout);
    out.field("ncsi_url", ncsiURL);
    out.field("tray_type", trayType);
    out.field("unbound_log_queries", unboundLogQueries);
    out.field("unbound_use_syslog", unboundUseSyslog);
}

LocationsTag LocationsTag::readFields(JSONObjectReader& in) {
    return {.name = in.required<std::string>("name"),
            .rule = in.optional<std::string>("rule"),
            .tag = in.required<std::string>("tag")};
}

void LocationsTag::writeFields(JSONWriter& out) const {
    out.field("name", name);
    out.field("rule", rule);
    out.field("tag", tag);
}

Runtime Runtime::readFields(JSONObjectReader& in) {
    return {.locations = in.required<std::vector<LocationsTag>>("locations"),
            .tarn = in.optional<Tarn>("tarn"),
            .reconfigure = in.optional<std::int64_t>("reconfigure"),
            .user = in.optional<std::string>("user")};
}

void Runtime::writeFields(JSONWriter& out) const {
    out.field("locations", locations);
    out.field("reconfigure", reconfigure);
    out.field("tarn", tarn);
    out.field("user", user);
}

Persistent Persistent::readFields(JSONObjectReader& in) {
    return {.key = in.required<std::string>("key")};
}

void Persistent::writeFields(JSONWriter& out) const {
    out.field("key", key);
}

Configuration Configuration::readFields(JSONObjectReader& in) {
    return {.persistent = in.optional<Persistent>("persistent"),
            .runtime = in.optional<Runtime>("runtime")};
}

void Configuration::writeFields(JSONWriter& out) const {
    out.field("persistent", persistent);
    out.field("runtime", runtime);
}

DeviceResult DeviceResult::readFields(JSONObjectReader& in) {
    return {.actions = in.optional<Actions>("actions"),
            .cfg = in.optional<Configuration>("cfg"),
            .filters = in.optional<std::vector<ForwardingRule>>("filters")};
}

void DeviceResult::writeFields(JSONWriter& out) const {
    out.field("actions", actions);
    out.field("cfg", cfg);
    out.field("filters", filters);
}

DeviceConfiguration DeviceConfiguration::readFields(JSONObjectReader& in) {
    return {.error = in.optional<DeviceError>("error"),
            .id = in.optional<std::int64_t>("id"),
            .jsonrpc = in.optional<std::string>("jsonrpc"),
            .result = in.optional<DeviceResult>("result")};
}

void DeviceConfiguration::writeFields(JSONWriter& out) const {
    out.field("error", error);
    out.field("id", id);
    out.field("jsonrpc", jsonrpc);
    out.field("result", result);
}

std::vector<std::string> resolverList(const DeviceConfiguration& configuration) {
    std::vector<std::string> resolvers;
    if (!configuration.result || !configuration.result->filters) {
        return resolvers;
    }
    for (const ForwardingRule& rule : *configuration.result->filters) {
        if (rule.resolvers) {
            resolvers.insert(resolvers.end(), rule.resolvers->begin(), rule.resolvers->end());
        }
    }
    return resolvers;
}

}  // namespace morvane
