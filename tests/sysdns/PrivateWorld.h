#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <thread>

struct sd_bus;

namespace morvane::sysdns {
class DnsSwitch;
}

/// In a child role that builds a world: a failed condition ends the role with status 1 and a
/// line that says where and why, which the test shows.
#define WORLD_CHECK(condition, message)                                             \
    do {                                                                            \
        if (!(condition)) {                                                         \
            std::cerr << __LINE__ << ": " << #condition << ": " << message << "\n"; \
            return 1;                                                               \
        }                                                                           \
    } while (false)

namespace morvane::sysdns::test {

/// The exit status of a child role that could not build its world here (no unshare, no
/// dbus-daemon): the test reports itself skipped with the child's output as the reason.
inline constexpr int kSkipStatus = 77;

/// Moves this process into a network and a mount namespace of its own, with loopback up and
/// mounts no longer shared with the machine. Only for a fresh, single-threaded process (a child
/// role): a test never changes the machine's own DNS.
bool enterPrivateWorld(std::string& error);
/// Mounts `source` over `target` (a file over a file), as containers do with resolv.conf.
bool bindOver(const std::filesystem::path& source, const std::filesystem::path& target,
              std::string& error);
bool remountReadOnly(const std::filesystem::path& target, std::string& error);
/// A tmpfs over a folder, so that what resolved or the switch write under /run stays private.
bool mountTmpfs(const std::filesystem::path& target, std::string& error);

/// A dbus-daemon of the system bus kind on a socket in `folder`, that lets every peer own any
/// name and call anything (the test's own processes are its only clients). Sets
/// DBUS_SYSTEM_BUS_ADDRESS for this process and its children while it lives.
class PrivateSystemBus {
public:
    explicit PrivateSystemBus(std::filesystem::path folder);
    ~PrivateSystemBus();
    PrivateSystemBus(const PrivateSystemBus&) = delete;
    PrivateSystemBus& operator=(const PrivateSystemBus&) = delete;

    bool start(std::string& error);
    std::string address() const;

private:
    std::filesystem::path folder_;
    pid_t pid_ = -1;
};

/// The body of a holder role: applies the switch for the proxy on 127.0.0.153:53, then waits to
/// be killed. The body of a cleanup role: restores, as the provider's next start does.
int holdSwitch(DnsSwitch& dnsSwitch);
int restoreSwitch(DnsSwitch& dnsSwitch);

/// `cycles` times: starts the holder role, waits until `switched`, kills it with SIGKILL, runs
/// the cleanup role in a new process, and asks `differs` what is not as it was (empty when all
/// is). Gives the first failure, or an empty text.
std::string killedHolderCycles(const std::string& holderRole, const std::string& cleanupRole,
                               int cycles, const std::function<bool()>& switched,
                               const std::function<std::string()>& differs);

/// For the test body: runs the world's child role and reports it passed, failed with its
/// output, or skipped with the reason it gave.
void expectWorldPasses(const std::string& role);

/// For the stand-ins of daemons on the private bus: answers the calls that come on `bus` until
/// `done` says so or the connection fails.
void serveBus(sd_bus* bus, const std::function<bool()>& done);
/// Ends a stand-in's serving thread and leaves the bus; its names go with it.
void endServing(std::thread& thread, std::atomic<bool>& stopping, sd_bus*& bus);

/// Waits for the condition, checking every few milliseconds, up to a generous limit.
bool waitUntil(const std::function<bool()>& condition, std::chrono::seconds limit);

}  // namespace morvane::sysdns::test
