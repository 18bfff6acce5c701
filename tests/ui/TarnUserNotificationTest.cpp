#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "ui/RecordingDesktop.h"
#include "ui/TarnUserNotification.h"

namespace morvane {
namespace {

using ui::AuthorizationStatus;

class TarnUserNotificationTest : public ::testing::Test {
protected:
    void SetUp() override { ui::UserNotificationCenter::setCurrent(center); }
    void TearDown() override { ui::UserNotificationCenter::setCurrent(nullptr); }

    std::shared_ptr<test::RecordingNotificationCenter> center =
        std::make_shared<test::RecordingNotificationCenter>();
    TarnUserNotification notification;
};

TEST_F(TarnUserNotificationTest, NotDeterminedAndAuthorizedPostTheSameRequest) {
    for (auto status : {AuthorizationStatus::notDetermined, AuthorizationStatus::authorized}) {
        center->requests.clear();
        std::optional<bool> heard;
        notification.sendNotification({status}, "Tarn Notification", "Network has connected",
                                      [&heard](bool ok) { heard = ok; });
        ASSERT_EQ(center->requests.size(), 1u);
        const auto& request = center->requests[0];
        EXPECT_EQ(request.identifier, "Tarn Notification");
        EXPECT_EQ(request.content.title, "Tarn Status");
        EXPECT_EQ(request.content.subtitle, "Tarn Notification");
        EXPECT_EQ(request.content.body, "Network has connected");
        EXPECT_EQ(request.delay, std::chrono::milliseconds(100));
        EXPECT_EQ(heard, std::optional<bool>(true));
    }
}

TEST_F(TarnUserNotificationTest, DeniedPostsNothingAndTheCallerHearsNothing) {
    bool heard = false;
    notification.sendNotification({AuthorizationStatus::denied}, "Tarn Notification", "x",
                                  [&heard](bool) { heard = true; });
    EXPECT_TRUE(center->requests.empty());
    EXPECT_FALSE(heard);
}

TEST_F(TarnUserNotificationTest, AbsentTextsAreEmptyAndAFailureIsHeardAsFalse) {
    center->failure = "no service";
    std::optional<bool> heard;
    notification.sendNotification({AuthorizationStatus::authorized}, std::nullopt, std::nullopt,
                                  [&heard](bool ok) { heard = ok; });
    ASSERT_EQ(center->requests.size(), 1u);
    EXPECT_EQ(center->requests[0].content.subtitle, "");
    EXPECT_EQ(center->requests[0].content.body, "");
    EXPECT_EQ(heard, std::optional<bool>(false));
    EXPECT_EQ(notification.lastNotification, "") << "the change observer keeps it, not the post";
}

}  // namespace
}  // namespace morvane
