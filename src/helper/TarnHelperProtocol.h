#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "sys/MessageFrame.h"

namespace morvane::tarn_helper {

/// The helper's socket, "com.lorvex.tarnHelper" in the run-time folder (mode 0666: who may do
/// what is decided per message by the authorization and the peer's credentials).
///
/// Every request is `{"id": n, "message": <selector>, "arguments": {...}}` (sys/MessageFrame.h)
/// and is answered exactly once with `{}` on success or `{"error": {"domain":
/// "NSOSStatusErrorDomain", "code": <status>, "description": <text>}}`: code -50 for a wrong
/// argument or a failed operation, or the status of an authorization that could not be read
/// (-60002) or was refused (-60005, -60006, -60007, -60008). The detail is in the helper log, never in the
/// reply. A selector that is not below closes the connection.
///
/// The authorization travels as `"authorization": "<64 hex digits>"`, the 32 bytes of a token
/// that this helper made for the same local user (see `AuthorizationCreate`).
///
/// | selector | arguments besides "authorization" |
/// |---|---|
/// | setLogDebug:authorization:withReply: | "value": boolean |
/// | setTrayType:authorization:withReply: | "value": number, 0 to 3 |
/// | writeLocation:authorization:withReply: | "value": text of 32 characters |
/// | modifyDNS:authorization:withReply: | "resolvers": array of address texts (anything else: DHCP)
/// | | rollbackDNS:withReply: | none | | modifyDNSForServices:services:authorization:withReply: |
/// "resolvers" as above, "services": array of service identifiers | |
/// rollbackDNSForServices:authorization:withReply: | "services": array of service identifiers | |
/// downloadCert:filename:authorization:withReply: | "url": text, "filename": text | |
/// importCert:authorization:withReply: | "path": text | | flushDNSwithAuthorization:withReply: |
/// none |
///
/// The authorization services of the platform, stand-ins on the same socket:
///
/// | selector | arguments | reply |
/// |---|---|---|
/// | AuthorizationCreate | none | `{"authorization": <64 hex digits>}` for the caller's user, or
/// `{"error": ...}` | | AuthorizationRightGet | "right": name | `{"status": 0}` defined,
/// `{"status": -60005}` not defined | | AuthorizationRightSet | "right", "rule", "description",
/// "table", "authorization" | `{"status": n}`; a valid authorization is needed, and only root may
/// change a right that exists |
inline constexpr const char* kSocketName = "com.lorvex.tarnHelper";

inline constexpr const char* kErrorDomain = "NSOSStatusErrorDomain";
inline constexpr int kParamErr = -50;

inline constexpr const char* setLogDebug = "setLogDebug:authorization:withReply:";
inline constexpr const char* setTrayType = "setTrayType:authorization:withReply:";
inline constexpr const char* writeLocation = "writeLocation:authorization:withReply:";
inline constexpr const char* modifyDNS = "modifyDNS:authorization:withReply:";
inline constexpr const char* rollbackDNS = "rollbackDNS:withReply:";
inline constexpr const char* modifyDNSForServices =
    "modifyDNSForServices:services:authorization:withReply:";
inline constexpr const char* rollbackDNSForServices =
    "rollbackDNSForServices:authorization:withReply:";
inline constexpr const char* downloadCert = "downloadCert:filename:authorization:withReply:";
inline constexpr const char* importCert = "importCert:authorization:withReply:";
inline constexpr const char* flushDNS = "flushDNSwithAuthorization:withReply:";

inline constexpr const char* authorizationCreate = "AuthorizationCreate";
inline constexpr const char* authorizationRightGet = "AuthorizationRightGet";
inline constexpr const char* authorizationRightSet = "AuthorizationRightSet";

/// The error object of a status, in the domain above.
inline nlohmann::json statusError(int status) {
    return sys::errorObject(
        kErrorDomain, status,
        "The operation couldn't be completed. (OSStatus error " + std::to_string(status) + ".)");
}

}  // namespace morvane::tarn_helper
