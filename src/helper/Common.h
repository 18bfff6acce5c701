#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace morvane {

/// The rights database as `setupAuthorizationRights:` sees it: where rights are looked up and
/// defined. The service's own rights file is one; the client reaches that file through the
/// service's socket.
class AuthorizationRights {
public:
    virtual ~AuthorizationRights() = default;
    /// 0 when the right is defined, `Common::kRightNotDefined` when it is not, another status
    /// when the database cannot be asked.
    virtual int rightGet(const std::string& name) = 0;
    /// Defines a right; 0 on success.
    virtual int rightSet(const std::string& name, const std::string& rule,
                         const std::string& description, const std::string& table) = 0;
};

/// The rights of the helper's commands, shared by both sides: the agent registers them, the
/// service looks up the right of each command it is sent.
class Common {
public:
    struct RightInfo {
        std::string authRightName;
        std::string authRightDefault;
        std::string authRightDescription;
    };

    /// What `AuthorizationRightGet` answers for a right that is not defined.
    static constexpr int kRightNotDefined = -60005;
    /// The table name rights are defined under.
    static constexpr const char* kTableName = "Common";

    /// The nine commands that have a row of their own, selector to right.
    static const std::map<std::string, RightInfo>& commandInfo();
    /// The right that guards the cache flush, which the agent sends after every update of the
    /// proxy. It is a right of its own so that an administrator who locks DNS changes down does
    /// not also stop the routine flush, which changes no setting.
    static const RightInfo& flushDNSRight();
    /// The right name of a command; none for a selector that has no right.
    static std::optional<std::string> authorizationRightForCommand(const std::string& command);
    /// Every right with its command: the nine rows, then the flush right.
    static void enumerateRightsUsingBlock(
        const std::function<void(const std::string& command, const RightInfo& info)>& block);
    /// Defines each right that `rights` does not have yet; rights that exist are left alone,
    /// also when their texts differ.
    static void setupAuthorizationRights(AuthorizationRights& rights);
};

}  // namespace morvane
