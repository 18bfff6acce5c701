// morvanecloud-dnsproxy: the DNS proxy provider. A DNS forwarder on loopback that applies the
// device's policy, with the stored proxy configuration and its control socket, the provider
// link to the agent, and the switch that makes it the machine's resolver while it is enabled.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "provider/DnsSwitchFactory.h"
#include "provider/ProviderBundle.h"
#include "provider/ProviderService.h"
#include "provider/ServiceLog.h"
#include "provider/SystemdNotifier.h"
#include "sys/UnixSocket.h"

namespace {

using namespace morvane::provider;

constexpr const char* kProgram = "morvanecloud-dnsproxy";

void printUsage() {
    std::cout
        << "Usage: " << kProgram << " [--listen ADDR:PORT] [--bundle DIR]\n"
        << "       " << kProgram << " --cleanup\n"
        << "\n"
        << "The DNS proxy provider of MorvaneCloud: a DNS forwarder on loopback that applies\n"
        << "the device's policy while the stored proxy configuration is enabled.\n"
        << "\n"
        << "  --listen ADDR:PORT  serve UDP and TCP there (default 127.0.0.153:53;\n"
        << "                      \"[::1]:5300\" for IPv6; port 0 picks a free one)\n"
        << "  --bundle DIR        the provider's bundle folder holding Info.json (default:\n"
        << "                      found beside the agent or under /usr/lib/morvanecloud)\n"
        << "  --cleanup           put back the machine's DNS settings that a switched run\n"
        << "                      left, and exit (for ExecStopPost=)\n"
        << "  --help              show this text and exit\n"
        << "  --version           show the version and exit\n"
        << "\n"
        << "Files: /var/lib/morvanecloud/dnsproxy.json (the stored proxy configuration),\n"
        << "/run/morvanecloud/dnsproxy.control (the control socket: load, save, remove,\n"
        << "flush, status). MORVANECLOUD_SYSROOT puts both under another folder.\n";
}

struct Arguments {
    std::string listen = "127.0.0.153:53";
    std::optional<std::filesystem::path> bundle;
    bool cleanup = false;
};

// Exit status 2 with a message for a command line that does not read.
std::optional<Arguments> parseArguments(int argc, char** argv, int& exitStatus) {
    Arguments arguments;
    std::vector<std::string_view> words(argv + 1, argv + argc);
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::string_view word = words[i];
        std::optional<std::string_view> inlineValue;
        if (const auto equals = word.find('=');
            word.starts_with("--") && equals != std::string_view::npos) {
            inlineValue = word.substr(equals + 1);
            word = word.substr(0, equals);
        }
        auto value = [&](std::string_view name) -> std::optional<std::string> {
            if (inlineValue) {
                return std::string(*inlineValue);
            }
            if (i + 1 < words.size()) {
                return std::string(words[++i]);
            }
            std::cerr << kProgram << ": " << name << " needs a value\n";
            return std::nullopt;
        };
        if (word == "--help" || word == "-h") {
            printUsage();
            exitStatus = 0;
            return std::nullopt;
        }
        if (word == "--version") {
            std::cout << kProgram << " " << MORVANE_VERSION << " (build " << MORVANE_BUILD_NUMBER
                      << ")\n";
            exitStatus = 0;
            return std::nullopt;
        }
        if (word == "--cleanup" && !inlineValue) {
            arguments.cleanup = true;
        } else if (word == "--listen") {
            auto listen = value("--listen");
            if (!listen || listen->empty()) {
                exitStatus = 2;
                return std::nullopt;
            }
            arguments.listen = *listen;
        } else if (word == "--bundle") {
            auto bundle = value("--bundle");
            if (!bundle || bundle->empty()) {
                exitStatus = 2;
                return std::nullopt;
            }
            arguments.bundle = *bundle;
        } else {
            std::cerr << kProgram << ": unknown argument \"" << words[i] << "\"\n"
                      << "Try \"" << kProgram << " --help\".\n";
            exitStatus = 2;
            return std::nullopt;
        }
    }
    return arguments;
}

std::optional<ProviderBundle> findBundle(const Arguments& arguments, ServiceLog& log) {
    std::optional<std::filesystem::path> folder = arguments.bundle;
    if (!folder) {
        std::error_code ec;
        folder = ProviderBundle::locate(std::filesystem::read_symlink("/proc/self/exe", ec));
    }
    if (!folder) {
        log.warning(
            "The provider's bundle (Info.json) was not found: the link answers as "
            "\"unknown\" on " +
            std::string(ProviderBundle::kDefaultMachServiceName));
        return std::nullopt;
    }
    std::string error;
    std::optional<ProviderBundle> bundle = ProviderBundle::read(*folder, error);
    if (!bundle) {
        log.warning("The provider's bundle cannot be read: " + error);
        return std::nullopt;
    }
    log.info("Provider bundle " + bundle->infoFile.string() + ": " +
             bundle->displayName.value_or("(no display name)") + " " +
             bundle->version.value_or(""));
    return bundle;
}

int cleanup(ServiceLog& log) {
    std::unique_ptr<morvane::sysdns::DnsSwitch> dnsSwitch = defaultDnsSwitchFactory()(log);
    if (!dnsSwitch) {
        log.notice("Cleanup: nothing to restore, since no switch mechanism is built in");
        return 0;
    }
    std::string error;
    if (!dnsSwitch->restore(error)) {
        log.error("Cleanup: the machine's DNS could not be restored (" + dnsSwitch->name() +
                  "): " + error);
        return 1;
    }
    log.notice("Cleanup: the machine's DNS is as it was before the proxy (" + dnsSwitch->name() +
               ")");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int exitStatus = 0;
    std::optional<Arguments> arguments = parseArguments(argc, argv, exitStatus);
    if (!arguments) {
        return exitStatus;
    }
    ServiceLog log;
    if (arguments->cleanup) {
        return cleanup(log);
    }

    // The signals are taken one at a time by the main thread below; every thread started
    // from here on inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    ProviderService::Options options;
    options.listen = arguments->listen;
    options.socketDirectory = morvane::sys::runtimeDirectory();
    options.bundle = findBundle(*arguments, log);
    options.switchFactory = defaultDnsSwitchFactory();

    SystemdNotifier notifier;
    ProviderService service(std::move(options), log);
    std::string error;
    if (!service.start(error)) {
        log.error("Cannot start: " + error);
        std::cerr << kProgram << ": " << error << "\n";
        return 1;
    }
    notifier.ready("Serving DNS on " + service.listeningAddress());
    log.notice(std::string(kProgram) + " " + MORVANE_VERSION + " ready on " +
               service.listeningAddress());

    const auto watchdog = SystemdNotifier::watchdogInterval();
    const auto tick = watchdog
                          ? std::min<std::chrono::microseconds>(*watchdog, std::chrono::seconds(5))
                          : std::chrono::microseconds(std::chrono::seconds(5));
    auto lastFed = std::chrono::steady_clock::now();
    int stopSignal = 0;
    while (stopSignal == 0) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(tick);
        timespec timeout{
            static_cast<time_t>(seconds.count()),
            static_cast<long>(
                std::chrono::duration_cast<std::chrono::nanoseconds>(tick - seconds).count())};
        const int received = sigtimedwait(&signals, nullptr, &timeout);
        if (received == SIGHUP) {
            service.reload();
        } else if (received == SIGTERM || received == SIGINT) {
            stopSignal = received;
        }
        // A forwarder whose loop stopped turning is not fed to the watchdog, which then
        // restarts the service. Its loop turns at least once a second, so it is asked no
        // more often than that.
        const auto now = std::chrono::steady_clock::now();
        if (watchdog && now - lastFed >= std::chrono::seconds(1)) {
            lastFed = now;
            if (service.alive()) {
                notifier.watchdog();
            }
        }
    }
    log.notice(std::string("Stopping on ") + strsignal(stopSignal));
    notifier.stopping();
    service.stop(StopReason::UserInitiated);
    return 0;
}
