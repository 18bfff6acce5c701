#include "proxy/ChildProcessActivation.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform/MainQueue.h"
#include "sys/MessageClient.h"
#include "sys/UnixSocket.h"

extern char** environ;

namespace morvane {

namespace fs = std::filesystem;

namespace {

constexpr const char* kProgramName = "morvanecloud-dnsproxy";

std::string requestName(ExtensionActivation::Kind kind) {
    return std::string(kind == ExtensionActivation::Kind::activation ? "activation"
                                                                     : "deactivation") +
           " request for com.tarn.lorvaxHQ.TarnDNSProxy (child process)";
}

ProxyError failure(long long code, std::string text) {
    return ProxyError{proxy_error::kExtensionDomain, code, std::move(text),
                      nlohmann::json::object()};
}

bool executable(const fs::path& path) {
    return ::access(path.c_str(), X_OK) == 0 && fs::is_regular_file(path);
}

}  // namespace

std::optional<fs::path> ChildProcessActivation::findProgram() {
    if (const char* program = std::getenv("MORVANECLOUD_DNSPROXY_PROGRAM"); program && *program) {
        return executable(program) ? std::optional<fs::path>(program) : std::nullopt;
    }
    std::vector<fs::path> candidates;
    std::error_code error;
    const auto self = fs::read_symlink("/proc/self/exe", error);
    if (!error) {
        const auto folder = self.parent_path();
        candidates.push_back(folder.parent_path() / kProgramName / kProgramName);
        candidates.push_back(folder / kProgramName);
    }
    candidates.push_back(fs::path("/usr/sbin") / kProgramName);
    candidates.push_back(fs::path("/usr/local/sbin") / kProgramName);
    for (const auto& candidate : candidates) {
        if (executable(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

ChildProcessActivation::Options ChildProcessActivation::defaultOptions() {
    Options options;
    options.program = findProgram();
    if (const char* listen = std::getenv("MORVANECLOUD_DNSPROXY_LISTEN"); listen && *listen) {
        options.arguments = {"--listen", listen};
    }
    options.controlSocket = sys::runtimeDirectory() / "dnsproxy.control";
    return options;
}

ChildProcessActivation::ChildProcessActivation(Options options)
    : options_(std::move(options)),
      queue_(platform::DispatchQueue::create("ChildProcessActivation.queue")) {}

ChildProcessActivation::~ChildProcessActivation() {
    std::lock_guard lock(mutex_);
    if (child_) {
        ::kill(*child_, SIGTERM);
        ::waitpid(*child_, nullptr, 0);
    }
}

std::string ChildProcessActivation::name() const {
    return "the provider as a child process (" +
           (options_.program ? options_.program->string() : std::string("program not found")) + ")";
}

std::optional<pid_t> ChildProcessActivation::childPid() const {
    std::lock_guard lock(mutex_);
    return child_;
}

void ChildProcessActivation::submitRequest(Kind kind, const std::string&,
                                           std::weak_ptr<ExtensionRequestDelegate> delegate) {
    std::weak_ptr<ChildProcessActivation> weakSelf = weak_from_this();
    queue_->async([weakSelf, kind, delegate] {
        if (auto self = weakSelf.lock()) {
            if (kind == Kind::activation) {
                self->activate(delegate);
            } else {
                self->deactivate(delegate);
            }
        }
    });
}

bool ChildProcessActivation::controlSocketAnswers(std::chrono::milliseconds timeout) const {
    sys::MessageClient client(options_.controlSocket);
    std::string error;
    return client.call("status", nlohmann::json::object(), timeout, error).has_value();
}

void ChildProcessActivation::activate(std::weak_ptr<ExtensionRequestDelegate> delegate) {
    // An activation's outcome is told on the main queue.
    auto finish = [delegate](std::optional<ProxyError> error) {
        platform::MainQueue::async([delegate, error] {
            if (auto receiver = delegate.lock()) {
                const auto request = requestName(Kind::activation);
                if (error) {
                    receiver->requestDidFailWithError(request, *error);
                } else {
                    receiver->requestDidFinishWithResult(request, 0);
                }
            }
        });
    };
    if (controlSocketAnswers(std::chrono::milliseconds(1000))) {
        finish(std::nullopt);
        return;
    }
    if (!options_.program) {
        finish(failure(
            proxy_error::kExtensionNotFound,
            std::string("The DNS proxy provider's program ") + kProgramName + " was not found"));
        return;
    }
    std::vector<std::string> argv{options_.program->string()};
    argv.insert(argv.end(), options_.arguments.begin(), options_.arguments.end());
    std::vector<char*> pointers;
    for (auto& argument : argv) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    pid_t pid = 0;
    const int spawned =
        ::posix_spawn(&pid, argv[0].c_str(), nullptr, nullptr, pointers.data(), environ);
    if (spawned != 0) {
        finish(failure(proxy_error::kUnknown, "The DNS proxy provider could not be started: " +
                                                  std::string(std::strerror(spawned))));
        return;
    }
    {
        std::lock_guard lock(mutex_);
        child_ = pid;
    }
    const auto deadline = std::chrono::steady_clock::now() + options_.startTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            {
                std::lock_guard lock(mutex_);
                child_.reset();
            }
            finish(failure(proxy_error::kUnknown,
                           "The DNS proxy provider ended at its start with status " +
                               std::to_string(WIFEXITED(status) ? WEXITSTATUS(status)
                                                                : 128 + WTERMSIG(status))));
            return;
        }
        if (controlSocketAnswers(std::chrono::milliseconds(500))) {
            finish(std::nullopt);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    finish(failure(proxy_error::kUnknown,
                   "The DNS proxy provider did not open its control socket in time"));
}

void ChildProcessActivation::deactivate(std::weak_ptr<ExtensionRequestDelegate> delegate) {
    std::optional<pid_t> child;
    {
        std::lock_guard lock(mutex_);
        child = child_;
        child_.reset();
    }
    if (child) {
        ::kill(*child, SIGTERM);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        bool ended = false;
        while (!ended && std::chrono::steady_clock::now() < deadline) {
            ended = ::waitpid(*child, nullptr, WNOHANG) == *child;
            if (!ended) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
        if (!ended) {
            ::kill(*child, SIGKILL);
            ::waitpid(*child, nullptr, 0);
        }
    }
    // A deactivation's outcome is told on a worker thread, this queue's.
    if (auto receiver = delegate.lock()) {
        receiver->requestDidFinishWithResult(requestName(Kind::deactivation), 0);
    }
}

}  // namespace morvane
