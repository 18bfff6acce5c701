// morvanecloud: the agent in the user's session.
#include <QApplication>
#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "core/ChangeObserver.h"
#include "core/DepenencyInjection.h"
#include "platform/BuildInfo.h"
#include "platform/TerminationSignals.h"

namespace {

constexpr const char* kUsage =
    "Usage: morvanecloud [--help] [--version]\n"
    "\n"
    "Runs the MorvaneCloud agent in the foreground of the user's session: it follows\n"
    "network, sleep and configuration changes and applies the device's DNS policy.\n"
    "Without a desktop session it runs without a tray icon. Stop it with Ctrl-C.\n";

bool hasDisplay() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        if (const char* value = std::getenv(name); value != nullptr && *value != '\0') {
            return true;
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return EXIT_SUCCESS;
        }
        if (arg == "--version") {
            std::printf("morvanecloud %s (%s)\n", morvane::build::kVersion,
                        morvane::build::kBuildNumber);
            return EXIT_SUCCESS;
        }
    }

    // A desktop session gets the widgets for the tray; over SSH, under systemd or in CI the
    // agent runs on a plain event loop.
    std::unique_ptr<QCoreApplication> app;
    if (hasDisplay()) {
        app = std::make_unique<QApplication>(argc, argv);
    } else {
        app = std::make_unique<QCoreApplication>(argc, argv);
    }
    QCoreApplication::setApplicationName(morvane::build::kApplicationName);
    QCoreApplication::setApplicationVersion(morvane::build::kVersion);

    morvane::platform::onTerminationSignal([](int) { QCoreApplication::quit(); });

    const morvane::DepenencyInjection dependency;
    morvane::Dependencies::shared()->resolve<morvane::ChangeObserver>()->startObserving();
    return app->exec();
}
