// morvanecloud: the agent in the user's session, and the install command
// (`sudo morvanecloud KEY=VALUE ...`). Which of the two a run is follows from its
// environment: a process started from a shell has "SUDO_COMMAND" or "PWD".
#include <unistd.h>

#include <QApplication>
#include <QCoreApplication>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "app/AppDelegate.h"
#include "app/StatusReport.h"
#include "logging/LogCenter.h"
#include "platform/BuildInfo.h"
#include "platform/MainQueue.h"
#include "platform/RunningInstances.h"
#include "platform/TerminationSignals.h"
#include "settings/Utils.h"

namespace {

constexpr const char* kUsage =
    "Usage: sudo morvanecloud RPC_URL=<url> INSTALL_KEY=<key> [KEY=VALUE ...]\n"
    "       morvanecloud --status | --quit | --help | --version\n"
    "\n"
    "Started from a shell, morvanecloud is the install command: it clears the stored\n"
    "settings (all but INSTALL_KEY), takes the KEY=VALUE arguments and enrols the machine.\n"
    "Run as root, it leaves the values for the user's agent in /tmp/.tarncookie; run as\n"
    "the user, it enrols at once. Started by the desktop session (no SUDO_COMMAND and no\n"
    "PWD in its environment) it is the agent, which runs until the session ends or the user\n"
    "quits it.\n"
    "\n"
    "Keys:\n"
    "  RPC_URL=<url>              device server, e.g. https://rpc.example.net:8443 (required)\n"
    "  INSTALL_KEY=<key>          one-time enrolment key (this or DEVICE_KEY is required)\n"
    "  DEVICE_KEY=<key>           an existing device key, used without INSTALL_KEY\n"
    "  DEVICE_NAME=<name>         name to enrol under\n"
    "  DEVICE_NAME_PREFIX=<text>  put in front of DEVICE_NAME as <prefix>-<name>\n"
    "  LOCATION_NAME=<name>       location sent to the server\n"
    "  CUSTOMER_EMAIL=<address>   the customer's address (stored only when well formed)\n"
    "  ALLOW_WEAK_KEY=true        accept any server certificate (testing only)\n"
    "  TRAY_TYPE=<n>              status icon style (default 1)\n"
    "  SHOW_TEST_MENU=TRUE        show the test entries of the menu\n"
    "  RPC_PORT=<port>, IGNORE_VPNS=<list>\n"
    "  DOWNLOAD_CERT=true         fetch http://<RPC_URL host>/ssl/ca.der and trust it\n"
    "                             (/usr/local/share/ca-certificates, update-ca-certificates)\n"
    "  STOP=TRUE                  stop the DNS proxy\n"
    "  RESET=true                 remove the DNS proxy and end the user's other agents\n"
    "\n"
    "--status tells whether the machine is enrolled, its device key, the DNS proxy's state as\n"
    "the provider reports it, the system DNS switch in force, VPN and the last external address;\n"
    "it changes nothing.\n"
    "--quit asks the user's running agent to quit, as Ctrl-C on its terminal does: the DNS\n"
    "proxy is switched off and removed, and the machine's DNS is as before. The end of the\n"
    "session (SIGTERM or SIGHUP from the session manager) leaves the proxy filtering.\n"
    "\n"
    "Exit status: 0 done; 1 invalid or missing values (or, for --quit, no agent running).\n";

// Asks every agent of this user to quit as the user would, and waits for them to go.
int quitRunningAgents() {
    const auto agents = morvane::platform::runningAgents();
    if (agents.empty()) {
        std::fputs("morvanecloud: no agent of yours is running\n", stderr);
        return EXIT_FAILURE;
    }
    for (const pid_t pid : agents) {
        ::kill(pid, SIGINT);
    }
    // Taking the proxy down asks the provider over its socket; a minute covers a slow one.
    for (int i = 0; i < 600; ++i) {
        bool running = false;
        for (const pid_t pid : agents) {
            running = running || ::kill(pid, 0) == 0;
        }
        if (!running) {
            std::printf("morvanecloud: the agent has quit\n");
            return EXIT_SUCCESS;
        }
        ::usleep(100 * 1000);
    }
    std::fputs("morvanecloud: the agent did not quit within a minute\n", stderr);
    return EXIT_FAILURE;
}

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
    // Only a run whose single argument asks for help or status is answered without touching
    // anything; every other run clears and stores settings as the install command always has.
    if (argc == 2) {
        const std::string arg = argv[1];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return EXIT_SUCCESS;
        }
        if (arg == "--status") {
            QCoreApplication app(argc, argv);
            std::fputs(morvane::StatusReport::collect().text().c_str(), stdout);
            return EXIT_SUCCESS;
        }
        if (arg == "--quit") {
            return quitRunningAgents();
        }
        if (arg == "--version") {
            std::printf("morvanecloud %s (%s)\n", morvane::build::kVersion,
                        morvane::build::kBuildNumber);
            return EXIT_SUCCESS;
        }
    }

    // A desktop session gets the widgets for the tray; the install command, and the agent over
    // SSH, under systemd or in CI, run on a plain event loop. The command never shows a widget,
    // so a named display that cannot be reached (a stale DISPLAY over SSH) must not stop it.
    std::unique_ptr<QCoreApplication> app;
    if (!morvane::Utils::wasRunFromCommandLine() && hasDisplay()) {
        app = std::make_unique<QApplication>(argc, argv);
    } else {
        app = std::make_unique<QCoreApplication>(argc, argv);
    }
    QCoreApplication::setApplicationName(morvane::build::kApplicationName);
    QCoreApplication::setApplicationVersion(morvane::build::kVersion);

    std::vector<std::string> arguments(argv, argv + argc);
    morvane::AppDelegate delegate(std::move(arguments), [](morvane::ExitStatus status) {
        QCoreApplication::exit(static_cast<int>(status));
    });
    // How a Linux agent is asked to quit: SIGINT is the user's own quit (Ctrl-C on a terminal,
    // `morvanecloud --quit`), which takes the DNS proxy down; SIGTERM and SIGHUP come from the
    // session manager or systemd at logout and shutdown, and leave the proxy in place.
    morvane::platform::onTerminationSignal([&delegate](int signal) {
        static bool quitting = false;
        if (quitting) {
            return;
        }
        quitting = true;
        const bool sessionEnding = signal != SIGINT;
        auto quit = [&delegate] {
            delegate.applicationWillTerminate();
            QCoreApplication::exit(EXIT_SUCCESS);
        };
        if (delegate.applicationShouldTerminate(sessionEnding, quit) ==
            morvane::AppDelegate::TerminateReply::now) {
            quit();
        }
    });
    morvane::platform::MainQueue::async([&delegate] { delegate.start(); });
    const int status = app->exec();
    // What was posted before the loop ended still runs: the install command ends on the spot
    // after its last step, and the log lines of that step (an administrator's only clue to a
    // mistyped key) are blocks on the main queue. Blocks those post in turn run too.
    for (int round = 0; round < 8; ++round) {
        QCoreApplication::sendPostedEvents();
    }
    // Workers may still be in a request to the device server; it ends with its own time-out,
    // not with the loop, and what it writes replaces files atomically. Waiting for it would
    // hold up the end of the session, and destroying the objects it uses (the application,
    // the services, the log destinations) under it would crash it. So its reply is dropped,
    // the lines already logged are written, and the process ends without destructors.
    morvane::platform::MainQueue::close();
    morvane::logging::LogCenter::flush();
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
}
