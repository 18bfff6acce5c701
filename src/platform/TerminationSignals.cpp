#include "platform/TerminationSignals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>

namespace morvane::platform {

namespace {

int signalPipe[2] = {-1, -1};

extern "C" void forwardSignal(int signal) {
    const unsigned char byte = static_cast<unsigned char>(signal);
    // Only async-signal-safe work here: one byte into the pipe.
    [[maybe_unused]] const auto written = ::write(signalPipe[1], &byte, 1);
}

}  // namespace

void onTerminationSignal(std::function<void(int)> handler) {
    if (signalPipe[0] < 0 && ::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    auto* notifier =
        new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [handler] {
        unsigned char byte = 0;
        while (::read(signalPipe[0], &byte, 1) == 1) {
            handler(byte);
        }
    });
    struct sigaction action {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        ::sigaction(signal, &action, nullptr);
    }
}

}  // namespace morvane::platform
