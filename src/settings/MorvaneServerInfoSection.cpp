#include "settings/MorvaneServerInfoSection.h"

namespace morvane {

namespace {

constexpr std::array<std::string_view, 22> kRawValues = {
    "RPC_URL",
    "RESET",
    "STOP",
    "SHOW_TEST_MENU",
    "INSTALL_KEY",
    "LOCATION_NAME",
    "DEVICE_NAME_PREFIX",
    "EXTERNAL_IP",
    "DEVICE_KEY",
    "identifier",
    "ALLOW_WEAK_KEY",
    "DOWNLOAD_CERT",
    "DEVICE_NAME",
    "CUSTOMER_EMAIL",
    "CUSTOMER_PASSWORD",
    "RPC_PORT",
    "TRAY_TYPE",
    "IGNORE_VPNS",
    "userName",
    "userID",
    "TEST_DEVICE_CONFIG_PATH",
    "TEST_DEVICE_CONFIG",
};

}  // namespace

std::string_view rawValue(MorvaneServerInfoSection key) {
    return kRawValues.at(static_cast<std::size_t>(key));
}

std::optional<MorvaneServerInfoSection> serverInfoFromRawValue(std::string_view text) {
    for (std::size_t i = 0; i < kRawValues.size(); ++i) {
        if (kRawValues[i] == text) {
            return server_info::allCases[i];
        }
    }
    return std::nullopt;
}

}  // namespace morvane
