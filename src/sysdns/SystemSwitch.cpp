#include "sysdns/SystemSwitch.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "sys/SystemPaths.h"
#include "sys/Files.h"
#include "sysdns/NetworkManagerSwitch.h"
#include "sysdns/ResolvConf.h"
#include "sysdns/ResolvConfSwitch.h"
#include "sysdns/ResolvedSwitch.h"
#include "sysdns/SystemBus.h"

namespace morvane::sysdns {

namespace {

// The chosen mechanism for apply, all of them for restore: a run that crashed may have used
// another one than this machine gets today (resolved stopped since, NetworkManager removed).
class SystemSwitch : public DnsSwitch {
public:
    SystemSwitch(Selection selection, const SwitchEnvironment& environment)
        : selection_(std::move(selection)) {
        ResolvConfSwitch::Options file;
        file.path = environment.resolvConf;
        file.stateDirectory = environment.stateDirectory;
        file.durableDirectory = environment.durableDirectory;
        file.log = environment.log;
        ResolvedSwitch::Options resolved;
        resolved.linkName = environment.linkName;
        resolved.stateDirectory = environment.stateDirectory;
        resolved.busTimeout = environment.busTimeout;
        resolved.log = environment.log;
        NetworkManagerSwitch::Options networkManager;
        networkManager.resolvConf = environment.resolvConf;
        networkManager.stateDirectory = environment.stateDirectory;
        networkManager.busTimeout = environment.busTimeout;
        networkManager.log = environment.log;
        mechanisms_[0] = std::make_unique<ResolvedSwitch>(resolved);
        mechanisms_[1] = std::make_unique<NetworkManagerSwitch>(networkManager);
        mechanisms_[2] = std::make_unique<ResolvConfSwitch>(file);
        switch (selection_.mechanism) {
            case Mechanism::Resolved:
                chosen_ = mechanisms_[0].get();
                break;
            case Mechanism::NetworkManager:
                chosen_ = mechanisms_[1].get();
                break;
            case Mechanism::ResolvConf:
                chosen_ = mechanisms_[2].get();
                break;
            case Mechanism::None:
                break;
        }
    }

    std::string name() const override { return chosen_ ? chosen_->name() : "none"; }
    bool supportsSplitDns() const override { return chosen_ && chosen_->supportsSplitDns(); }

    bool apply(const SwitchTarget& target, std::string& error) override {
        if (!chosen_) {
            error = selection_.error;
            return false;
        }
        return chosen_->apply(target, error);
    }

    bool restore(std::string& error) override {
        bool ok = true;
        for (auto& mechanism : mechanisms_) {
            std::string failure;
            if (!mechanism->restore(failure)) {
                ok = false;
                error += (error.empty() ? "" : "; ") + failure;
            }
        }
        return ok;
    }

    std::vector<std::string> originalServers() const override {
        if (chosen_) {
            return chosen_->originalServers();
        }
        return {};
    }

    bool stillApplied() override { return !chosen_ || chosen_->stillApplied(); }
    int changeDescriptor() override { return chosen_ ? chosen_->changeDescriptor() : -1; }
    void takeChanges() override {
        if (chosen_) {
            chosen_->takeChanges();
        }
    }

private:
    Selection selection_;
    std::unique_ptr<DnsSwitch> mechanisms_[3];
    DnsSwitch* chosen_ = nullptr;
};

}  // namespace

namespace {

// Under a sysroot (tests, the demo) nothing of the machine's own may change: its resolv.conf is
// the sysroot's, and its system bus is asked only when a private one is named.
bool underSysroot() {
    const char* sysroot = std::getenv("MORVANECLOUD_SYSROOT");
    return sysroot != nullptr && *sysroot != '\0';
}

bool busAllowed() {
    return !underSysroot() || std::getenv("DBUS_SYSTEM_BUS_ADDRESS") != nullptr;
}

}  // namespace

SwitchEnvironment SwitchEnvironment::system() {
    SwitchEnvironment environment;
    environment.resolvConf = sys::systemPath("/etc/resolv.conf");
    environment.stateDirectory = sys::systemPath("/run/morvanecloud/switch");
    environment.durableDirectory = sys::systemPath("/var/lib/morvanecloud/switch");
    return environment;
}

MachineProbes probeMachine(const SwitchEnvironment& environment) {
    MachineProbes probes;
    std::string error;
    if (!busAllowed()) {
        if (environment.log) {
            environment.log(
                "DNS switch: MORVANECLOUD_SYSROOT is set and no private system bus is named: "
                "the machine's daemons are not asked");
        }
    } else if (auto bus = SystemBus::open(environment.busTimeout, error)) {
        probes.resolvedAnswers = bus->nameHasOwner("org.freedesktop.resolve1");
        probes.networkManagerAnswers = bus->nameHasOwner("org.freedesktop.NetworkManager");
    }
    const auto& path = environment.resolvConf;
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0) {
        probes.resolvConfIsSymlink = S_ISLNK(info.st_mode);
        if (probes.resolvConfIsSymlink) {
            std::error_code code;
            probes.resolvConfTarget = std::filesystem::read_symlink(path, code).string();
        }
        if (const auto content = sys::readWholeFile(path)) {
            probes.resolvConfExists = true;
            const auto parsed = ResolvConf::parse(*content);
            probes.resolvConfServers = parsed.nameservers;
            probes.resolvConfGeneratedByNetworkManager = parsed.generatedByNetworkManager;
        }
        // A symlink is replaced, so its folder must take a new file; a file is written in place
        // at worst.
        probes.resolvConfWritable =
            ::access(path.c_str(), W_OK) == 0 ||
            (probes.resolvConfIsSymlink && ::access(path.parent_path().c_str(), W_OK) == 0);
    } else {
        probes.resolvConfWritable = ::access(path.parent_path().c_str(), W_OK) == 0;
    }
    return probes;
}

std::unique_ptr<DnsSwitch> makeSystemSwitch(const MachineProbes& probes,
                                            const SwitchEnvironment& environment) {
    auto selection = selectMechanism(probes);
    if (environment.log) {
        for (const auto& line : selection.trail) {
            environment.log("DNS switch: " + line);
        }
    }
    return std::make_unique<SystemSwitch>(std::move(selection), environment);
}

std::unique_ptr<DnsSwitch> makeSystemSwitch(const SwitchEnvironment& environment) {
    return makeSystemSwitch(probeMachine(environment), environment);
}

}  // namespace morvane::sysdns
