#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"
#include "proxy/ExtensionActivation.h"

namespace morvane {

/// Activation where no systemd runs (tests, the demo): the provider's program is started as a
/// child of the agent, unless its control socket already answers (a provider started by an
/// administrator or a test counts as activated). Deactivation stops the child this object
/// started and leaves any other provider alone.
class ChildProcessActivation : public ExtensionActivation,
                               public std::enable_shared_from_this<ChildProcessActivation> {
public:
    struct Options {
        /// The provider's program; see findProgram.
        std::optional<std::filesystem::path> program;
        std::vector<std::string> arguments;
        std::filesystem::path controlSocket;
        std::chrono::milliseconds startTimeout = std::chrono::seconds(20);
    };

    /// $MORVANECLOUD_DNSPROXY_PROGRAM, else "morvanecloud-dnsproxy" in the build tree beside
    /// the agent's folder, beside the agent, then in /usr/sbin and /usr/local/sbin.
    static std::optional<std::filesystem::path> findProgram();
    /// The options of this machine: the program found, "--listen" from
    /// $MORVANECLOUD_DNSPROXY_LISTEN when set, the control socket of the run-time folder.
    static Options defaultOptions();

    explicit ChildProcessActivation(Options options);
    ~ChildProcessActivation() override;

    void submitRequest(Kind kind, const std::string& identifier,
                       std::weak_ptr<ExtensionRequestDelegate> delegate) override;
    std::string name() const override;

    /// The child's process id while one runs; for tests.
    std::optional<pid_t> childPid() const;

private:
    void activate(std::weak_ptr<ExtensionRequestDelegate> delegate);
    void deactivate(std::weak_ptr<ExtensionRequestDelegate> delegate);
    bool controlSocketAnswers(std::chrono::milliseconds timeout) const;

    Options options_;
    std::shared_ptr<platform::DispatchQueue> queue_;
    mutable std::mutex mutex_;
    std::optional<pid_t> child_;
};

}  // namespace morvane
