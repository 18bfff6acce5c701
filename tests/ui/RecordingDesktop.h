#pragma once

// Stand-ins for the desktop under the user interface's controllers, for the tests of their
// decisions: they record what the controllers ask of the tray, the URL opener and the
// notification service, and answer as the test says. The real edges (QtStatusBar,
// DBusNotificationCenter) are tested on a private X server and session bus.

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ui/StatusBarPlatform.h"
#include "ui/UserNotificationCenter.h"

namespace morvane::test {

class RecordingStatusBar : public ui::StatusBarPlatform {
public:
    bool createStatusItem(ClickHandler onClick) override {
        ++created;
        click = std::move(onClick);
        return hostAnswers;
    }
    void setImage(const std::string& imageName) override { images.push_back(imageName); }
    void setMenu(const ui::StatusMenu& items, std::function<void(ui::MenuAction)> onAction,
                 std::function<void()> onWillOpen) override {
        menu = items;
        choose = std::move(onAction);
        willOpen = std::move(onWillOpen);
        ++menusSet;
    }
    void removeStatusItem() override { ++removed; }
    bool openURL(const std::string& url) override {
        opened.push_back(url);
        return opens;
    }
    void showAboutPanel(const std::map<std::string, std::string>& options) override {
        about = options;
    }
    void showPanel(const std::string& name) override { panels.push_back(name); }

    bool hostAnswers = true;
    bool opens = true;
    int created = 0;
    int removed = 0;
    int menusSet = 0;
    ClickHandler click;
    std::function<void(ui::MenuAction)> choose;
    std::function<void()> willOpen;
    std::vector<std::string> images;
    ui::StatusMenu menu;
    std::vector<std::string> opened;
    std::optional<std::map<std::string, std::string>> about;
    std::vector<std::string> panels;
};

class RecordingNotificationCenter : public ui::UserNotificationCenter {
public:
    void getNotificationSettings(SettingsHandler handler) override {
        ++settingsAsked;
        handler(ui::NotificationSettings{status});
    }
    void requestAuthorization(int options, AuthorizationHandler handler) override {
        authorizationOptions.push_back(options);
        handler(false, std::nullopt);
    }
    void add(ui::NotificationRequest request, AddHandler handler) override {
        requests.push_back(request);
        handler(failure);
    }

    ui::AuthorizationStatus status = ui::AuthorizationStatus::authorized;
    std::optional<std::string> failure;
    int settingsAsked = 0;
    std::vector<int> authorizationOptions;
    std::vector<ui::NotificationRequest> requests;
};

}  // namespace morvane::test
