// The runner of every test executable. A Qt core application lives on the main thread, so
// that tests may run the real main queue; tests that drive time themselves install a manual
// scheduler instead.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QCoreApplication>

#include "support/ChildProcess.h"

int main(int argc, char** argv) {
    if (const auto status = morvane::test::runChildRoleIfAsked()) {
        return *status;
    }
    // Widgets, where a test makes any, never need a display.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    ::testing::InitGoogleMock(&argc, argv);
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
