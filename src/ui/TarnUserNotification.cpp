#include "ui/TarnUserNotification.h"

#include <chrono>

#include "platform/StandardOutput.h"

namespace morvane {

TarnUserNotification::TarnUserNotification() = default;

void TarnUserNotification::sendNotification(const ui::NotificationSettings& settings,
                                            const std::optional<std::string>& subtitle,
                                            const std::optional<std::string>& body,
                                            std::function<void(bool)> completion) {
    if (settings.authorizationStatus == ui::AuthorizationStatus::denied) {
        return;
    }
    ui::NotificationRequest request{
        .identifier = notificationIdentifier,
        .content = {.title = "Tarn Status",
                    .subtitle = subtitle.value_or(""),
                    .body = body.value_or("")},
        .delay = std::chrono::milliseconds(100),
    };
    ui::UserNotificationCenter::current()->add(
        std::move(request), [completion = std::move(completion)](std::optional<std::string> error) {
            if (error) {
                platform::printLine(*error);
            }
            if (completion) {
                completion(!error);
            }
        });
}

}  // namespace morvane
