#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace morvane::test {

/// Moves the calling thread, and every thread and child it starts from now on, into a
/// network and mount namespace of its own, as `unshare --net --mount` does: a world with
/// only a loopback interface (brought up here), where routes, tunnels and /etc/resolv.conf
/// can be changed without touching the machine's own. Call it first thing in a test, from
/// the main thread, before any thread that should live inside is started. Returns the
/// reason when the system does not allow it (no root, a container without the right), for
/// GTEST_SKIP.
inline std::optional<std::string> enterPrivateNetwork() {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        return std::string("cannot make a private network namespace (unshare: ") +
               std::strerror(errno) + ")";
    }
    // Mounts made here must not travel back to the machine's namespace.
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return std::string("cannot make the mounts private: ") + std::strerror(errno);
    }
    if (std::system("ip link set lo up") != 0) {
        return "the ip command does not work here";
    }
    return std::nullopt;
}

/// Runs a shell command inside the namespace; true when it succeeded.
inline bool sh(const std::string& command) {
    const int status = std::system(command.c_str());
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// A network of the namespace: veth0 (10.9.0.1/24) up, with its peer veth1 up and bare, so
/// that 10.9.0.2 and its neighbours are gateways on the link.
inline bool addVethNetwork() {
    return sh(
        "ip link add veth0 type veth peer name veth1 && ip link set veth1 up && "
        "ip addr add 10.9.0.1/24 dev veth0 && ip link set veth0 up");
}

/// Puts a file of the test's in place of /etc/resolv.conf, in this mount namespace only.
inline bool bindResolvConf(const std::string& file) {
    return mount(file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) == 0;
}

}  // namespace morvane::test
