#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace morvane::ui {

/// Whether the user lets the agent post notifications, with the values the agent's logic
/// tests.
enum class AuthorizationStatus : int {
    notDetermined = 0,
    denied = 1,
    authorized = 2,
};

struct NotificationSettings {
    AuthorizationStatus authorizationStatus = AuthorizationStatus::notDetermined;
};

/// The options of an authorization request: alert, badge and sound together are 7.
inline constexpr int kAuthorizationOptionsAlertBadgeSound = 7;

struct NotificationContent {
    std::string title;
    std::string subtitle;
    std::string body;
};

/// A notification to show once after `delay`. A newer request with the identifier of an
/// earlier one takes the earlier one's place.
struct NotificationRequest {
    std::string identifier;
    NotificationContent content;
    std::chrono::milliseconds delay{0};
};

/// The desktop's notification service as the agent uses it. Calls and their answers are on
/// the main thread.
class UserNotificationCenter {
public:
    using SettingsHandler = std::function<void(NotificationSettings)>;
    /// `granted`, and the reason when the request itself failed.
    using AuthorizationHandler = std::function<void(bool, std::optional<std::string>)>;
    /// Absent on success, else the reason.
    using AddHandler = std::function<void(std::optional<std::string>)>;

    virtual ~UserNotificationCenter() = default;

    virtual void getNotificationSettings(SettingsHandler handler) = 0;
    virtual void requestAuthorization(int options, AuthorizationHandler handler) = 0;
    virtual void add(NotificationRequest request, AddHandler handler) = 0;

    /// The process's centre: the desktop's notification service on the session bus, made on
    /// first use, unless one was set.
    static std::shared_ptr<UserNotificationCenter> current();
    /// Puts a centre in place of the desktop's (tests); nullptr goes back to it.
    static void setCurrent(std::shared_ptr<UserNotificationCenter> center);
};

}  // namespace morvane::ui
