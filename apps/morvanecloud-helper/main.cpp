// morvanecloud-helper: the privileged helper service. It runs as root under systemd and
// carries out for the agent what needs root: DNS settings per network service, the resolver
// cache flush, config.ini, and the server's certificate. Each message carries the agent's
// authorization, which is checked against the right of its command first.
#include <signal.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "helper/TarnHelper.h"
#include "helper/TarnLogHelper.h"
#include "platform/BuildInfo.h"
#include "sysdns/NetworkServices.h"

namespace {

constexpr const char* kUsage =
    "Usage: morvanecloud-helper [--help | --version]\n"
    "\n"
    "The privileged helper of MorvaneCloud, started by systemd as root\n"
    "(morvanecloud-helper.service). It listens on /run/morvanecloud/com.lorvex.tarnHelper\n"
    "and keeps its files in /var/lib/morvanecloud: config.ini, tarnHelper.log, the rights\n"
    "database rights.json (used where polkit does not run) and the DNS backups.\n"
    "With MORVANECLOUD_SYSROOT set, every one of those paths lies under that folder.\n";

bool underSysroot() {
    const char* sysroot = std::getenv("MORVANECLOUD_SYSROOT");
    return sysroot != nullptr && *sysroot != '\0';
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return EXIT_SUCCESS;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("morvanecloud-helper %s (%s)\n", morvane::build::kVersion,
                    morvane::build::kBuildNumber);
        return EXIT_SUCCESS;
    }
    if (argc > 1) {
        std::fprintf(stderr, "morvanecloud-helper: unknown argument \"%s\"\n%s", argv[1], kUsage);
        return 2;
    }
    if (geteuid() != 0 && !underSysroot()) {
        std::fputs("morvanecloud-helper: must run as root (or with MORVANECLOUD_SYSROOT set)\n",
                   stderr);
        return EXIT_FAILURE;
    }
    umask(022);

    // The signals that end the service are taken by sigwait below, on this thread only.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    morvane::TarnLogHelper::sharedInstance()->log("Tarn helper starting, version " +
                                                  std::string(morvane::build::kVersion));
    // NetworkManager's connections where it runs, else systemd-resolved's links; looked for at
    // each DNS operation.
    morvane::TarnHelper helper(morvane::TarnHelper::ServicesProvider([] {
        const auto log = [](const std::string& line) {
            morvane::TarnLogHelper::sharedInstance()->log(line);
        };
        std::string error;
        auto services = morvane::sysdns::makeNetworkServices(log, error);
        if (!services) {
            log(error);
        }
        return services;
    }));
    std::string error;
    if (!helper.run(error)) {
        std::fprintf(stderr, "morvanecloud-helper: cannot listen on %s: %s\n",
                     morvane::TarnHelper::defaultSocketPath().c_str(), error.c_str());
        return EXIT_FAILURE;
    }
    std::fprintf(stderr, "morvanecloud-helper: listening on %s\n",
                 morvane::TarnHelper::defaultSocketPath().c_str());
    sd_notify(0, "READY=1\nSTATUS=Serving com.lorvex.tarnHelper");

    int signal = 0;
    while (sigwait(&stopSignals, &signal) != 0) {
    }
    sd_notify(0, "STOPPING=1");
    helper.stop();
    morvane::TarnLogHelper::sharedInstance()->log("Tarn helper stopping on signal " +
                                                  std::to_string(signal));
    return EXIT_SUCCESS;
}
