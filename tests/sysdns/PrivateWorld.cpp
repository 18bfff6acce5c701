#include "sysdns/PrivateWorld.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "support/ChildProcess.h"
#include "sysdns/DnsSwitch.h"

namespace morvane::sysdns::test {

namespace {

std::string failure(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

}  // namespace

bool enterPrivateWorld(std::string& error) {
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        error = failure("unshare of the network and mount namespaces refused");
        return false;
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        error = failure("cannot make the mounts private");
        return false;
    }
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    const bool up = fd >= 0 && ::ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
                    (request.ifr_flags |= IFF_UP, ::ioctl(fd, SIOCSIFFLAGS, &request) == 0);
    if (fd >= 0) {
        ::close(fd);
    }
    if (!up) {
        error = failure("cannot bring loopback up");
        return false;
    }
    return true;
}

bool bindOver(const std::filesystem::path& source, const std::filesystem::path& target,
              std::string& error) {
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        error = failure("cannot bind " + source.string() + " over " + target.string());
        return false;
    }
    return true;
}

bool remountReadOnly(const std::filesystem::path& target, std::string& error) {
    if (::mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        error = failure("cannot remount " + target.string() + " read-only");
        return false;
    }
    return true;
}

bool mountTmpfs(const std::filesystem::path& target, std::string& error) {
    std::error_code ignored;
    std::filesystem::create_directories(target, ignored);
    if (::mount("tmpfs", target.c_str(), "tmpfs", 0, "mode=0755") != 0) {
        error = failure("cannot mount a tmpfs on " + target.string());
        return false;
    }
    return true;
}

PrivateSystemBus::PrivateSystemBus(std::filesystem::path folder) : folder_(std::move(folder)) {}

PrivateSystemBus::~PrivateSystemBus() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
}

std::string PrivateSystemBus::address() const {
    return "unix:path=" + (folder_ / "system_bus_socket").string();
}

bool PrivateSystemBus::start(std::string& error) {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) {
        error = "dbus-daemon is not installed (package dbus)";
        return false;
    }
    std::filesystem::create_directories(folder_);
    // Daemons on the bus drop their privileges before they connect (resolved runs as its own
    // user): the way to the socket must be open to them.
    for (auto folder = folder_; folder.has_relative_path() && folder != "/tmp";
         folder = folder.parent_path()) {
        std::error_code ignored;
        std::filesystem::permissions(folder, std::filesystem::perms(0755), ignored);
    }
    const auto config = folder_ / "bus.conf";
    std::ofstream(config)
        << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=)"
        << (folder_ / "system_bus_socket").string() << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
)";
    pid_ = ::fork();
    if (pid_ == 0) {
        const std::string argument = "--config-file=" + config.string();
        ::execl("/usr/bin/dbus-daemon", "dbus-daemon", argument.c_str(), "--nofork", "--nosyslog",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    if (pid_ < 0) {
        error = failure("cannot start dbus-daemon");
        return false;
    }
    const auto socket = folder_ / "system_bus_socket";
    // The file appears at bind(), a moment before the daemon listens: wait until it answers.
    const auto answers = [&] {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
        const bool connected = fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address),
                                                    sizeof address) == 0;
        if (fd >= 0) {
            ::close(fd);
        }
        return connected;
    };
    if (!waitUntil(answers, std::chrono::seconds(20))) {
        error = "dbus-daemon did not make its socket";
        return false;
    }
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address().c_str(), 1);
    return true;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

void serveBus(sd_bus* bus, const std::function<bool()>& done) {
    while (!done()) {
        const int r = sd_bus_process(bus, nullptr);
        if (r < 0) {
            break;
        }
        if (r == 0) {
            sd_bus_wait(bus, 50000);
        }
    }
}

void endServing(std::thread& thread, std::atomic<bool>& stopping, sd_bus*& bus) {
    if (thread.joinable()) {
        stopping = true;
        thread.join();
    }
    if (bus != nullptr) {
        sd_bus_flush_close_unref(bus);
        bus = nullptr;
    }
}

int holdSwitch(DnsSwitch& dnsSwitch) {
    std::string error;
    if (!dnsSwitch.apply({"127.0.0.153", 53}, error)) {
        std::cerr << error << "\n";
        return 1;
    }
    ::pause();  // until killed
    return 0;
}

int restoreSwitch(DnsSwitch& dnsSwitch) {
    std::string error;
    if (!dnsSwitch.restore(error)) {
        std::cerr << error << "\n";
        return 1;
    }
    return 0;
}

std::string killedHolderCycles(const std::string& holderRole, const std::string& cleanupRole,
                               int cycles, const std::function<bool()>& switched,
                               const std::function<std::string()>& differs) {
    for (int cycle = 0; cycle < cycles; ++cycle) {
        const std::string at = "cycle " + std::to_string(cycle) + ": ";
        const int pid = ::morvane::test::startChild(holderRole, {});
        if (pid <= 0) {
            return at + "cannot start the holder";
        }
        const bool applied = waitUntil(switched, std::chrono::seconds(30));
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        if (!applied) {
            return at + "the holder never switched";
        }
        std::string output;
        if (::morvane::test::runChild(cleanupRole, {}, &output) != 0) {
            return at + "the cleanup failed: " + output;
        }
        if (const auto difference = differs(); !difference.empty()) {
            return at + difference;
        }
    }
    return {};
}

void expectWorldPasses(const std::string& role) {
    std::string output;
    const int status = ::morvane::test::runChild(role, {}, &output);
    if (status == kSkipStatus) {
        GTEST_SKIP() << "this world cannot be built here: " << output;
    }
    EXPECT_EQ(status, 0) << output;
}

}  // namespace morvane::sysdns::test
