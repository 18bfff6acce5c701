#include "helper/Common.h"

namespace morvane {

namespace {

Common::RightInfo row(const char* name, const char* description) {
    return {std::string("com.lorvex.tarnHelper.") + name, "allow", description};
}

}  // namespace

const std::map<std::string, Common::RightInfo>& Common::commandInfo() {
    static const std::map<std::string, RightInfo> table{
        {"setLogDebug:authorization:withReply:",
         row("setLogDebug", "Morvane Cloud is trying to modify the logger settings")},
        {"setTrayType:authorization:withReply:",
         row("setTrayType", "Morvane Cloud is trying to modify the tray type")},
        {"writeLocation:authorization:withReply:",
         row("writeLocation", "Morvane Cloud is trying to set the location key")},
        {"downloadCert:filename:authorization:withReply:",
         row("downloadCert", "Morvane Cloud is trying to download the certificate")},
        {"importCert:authorization:withReply:",
         row("importCert", "Morvane Cloud is trying to import the certificate")},
        {"modifyDNS:authorization:withReply:",
         row("modifyDNS", "Morvane Cloud is trying to modify DNS")},
        {"rollbackDNS:withReply:", row("rollbackDNS", "Morvane Cloud is trying to rollback DNS")},
        {"modifyDNSForServices:services:authorization:withReply:",
         row("modifyDNSForServices",
             "Morvane Cloud is trying to modify DNS for provided services")},
        {"rollbackDNSForServices:authorization:withReply:",
         row("rollbackDNSForServices",
             "Morvane Cloud is trying to rollback DNS for provided services")},
    };
    return table;
}

const Common::RightInfo& Common::flushDNSRight() {
    static const RightInfo right =
        row("flushDNS", "Morvane Cloud is trying to flush the DNS cache");
    return right;
}

std::optional<std::string> Common::authorizationRightForCommand(const std::string& command) {
    const auto& table = commandInfo();
    if (auto found = table.find(command); found != table.end()) {
        return found->second.authRightName;
    }
    if (command == "flushDNSwithAuthorization:withReply:") {
        return flushDNSRight().authRightName;
    }
    return std::nullopt;
}

void Common::enumerateRightsUsingBlock(
    const std::function<void(const std::string& command, const RightInfo& info)>& block) {
    for (const auto& [command, info] : commandInfo()) {
        block(command, info);
    }
    block("flushDNSwithAuthorization:withReply:", flushDNSRight());
}

void Common::setupAuthorizationRights(AuthorizationRights& rights) {
    enumerateRightsUsingBlock([&rights](const std::string&, const RightInfo& info) {
        if (rights.rightGet(info.authRightName) == kRightNotDefined) {
            rights.rightSet(info.authRightName, info.authRightDefault, info.authRightDescription,
                            kTableName);
        }
    });
}

}  // namespace morvane
