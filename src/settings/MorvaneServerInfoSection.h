#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace morvane {

/// The keys of the agent's settings, as stored in the user defaults, given on the command
/// line and carried in the KEY=VALUE files.
enum class MorvaneServerInfoSection {
    rpcURL,
    reset,
    stop,
    showTestMenu,
    installKey,
    locationName,
    deviceNamePrefix,
    externalIP,
    deviceKey,
    identifier,
    allowWeakKey,
    importCert,
    deviceName,
    customerEmail,
    customerPassword,
    rpcPort,
    trayType,
    ignoreVPNS,
    userName,
    userID,
    testDeviceConfigPath,
    testDeviceInputConfig,
};

namespace server_info {

inline constexpr std::array<MorvaneServerInfoSection, 22> allCases = {
    MorvaneServerInfoSection::rpcURL,
    MorvaneServerInfoSection::reset,
    MorvaneServerInfoSection::stop,
    MorvaneServerInfoSection::showTestMenu,
    MorvaneServerInfoSection::installKey,
    MorvaneServerInfoSection::locationName,
    MorvaneServerInfoSection::deviceNamePrefix,
    MorvaneServerInfoSection::externalIP,
    MorvaneServerInfoSection::deviceKey,
    MorvaneServerInfoSection::identifier,
    MorvaneServerInfoSection::allowWeakKey,
    MorvaneServerInfoSection::importCert,
    MorvaneServerInfoSection::deviceName,
    MorvaneServerInfoSection::customerEmail,
    MorvaneServerInfoSection::customerPassword,
    MorvaneServerInfoSection::rpcPort,
    MorvaneServerInfoSection::trayType,
    MorvaneServerInfoSection::ignoreVPNS,
    MorvaneServerInfoSection::userName,
    MorvaneServerInfoSection::userID,
    MorvaneServerInfoSection::testDeviceConfigPath,
    MorvaneServerInfoSection::testDeviceInputConfig,
};

}  // namespace server_info

/// The key under which the setting is stored ("RPC_URL", "DEVICE_KEY", ...).
std::string_view rawValue(MorvaneServerInfoSection key);
/// The setting stored under this key; nothing for any other text.
std::optional<MorvaneServerInfoSection> serverInfoFromRawValue(std::string_view text);

}  // namespace morvane
