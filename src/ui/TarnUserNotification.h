#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ui/UserNotificationCenter.h"

namespace morvane {

/// Posts the agent's one kind of notification. The change observer decides when and with
/// which words; this class holds the text posted last, so that the observer can keep a text
/// from showing twice in a row, and does the posting. Every notice carries the same
/// identifier, so a newer one replaces the one before it on the desktop.
class TarnUserNotification {
public:
    TarnUserNotification();

    /// Posts "Tarn Status" with the subtitle and body after a tenth of a second. With
    /// notifications denied nothing is posted and `completion` is not called; otherwise it
    /// hears true once the desktop took the notice, false when it did not (and the reason is
    /// written to standard output).
    void sendNotification(const ui::NotificationSettings& settings,
                          const std::optional<std::string>& subtitle,
                          const std::optional<std::string>& body,
                          std::function<void(bool)> completion);

    /// How a notice shows while the agent is in front: as a banner. The desktops show every
    /// notice the same way, so this only answers for completeness.
    static int presentationOptions() { return 16; }

    const std::string notificationIdentifier = "Tarn Notification";
    /// The text last posted; the change observer reads and writes it on the main thread.
    std::string lastNotification;
};

}  // namespace morvane
