#pragma once

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "sys/MessageClient.h"

namespace morvane {

/// The agent's way to the privileged helper: owns the agent's authorization, registers the
/// rights, keeps one connection to "com.lorvex.tarnHelper" and turns each local call into a
/// message. Calls are fire-and-forget from any thread: they return at once, the messages go
/// out in call order on a thread of the proxy's own, and the outcome is only logged (system
/// log, subsystem "com.lorvex.tarn.MorvaneCloud", category "TarnHelperProxy"). A dropped
/// connection is reopened by the next call. Qt-free, so that it lives beside the service.
class TarnHelperProxy {
public:
    enum class Level { debug, info, error };
    using LogHandler = std::function<void(Level, const std::string&)>;

    explicit TarnHelperProxy(std::filesystem::path socketPath = defaultSocketPath());
    ~TarnHelperProxy();
    TarnHelperProxy(const TarnHelperProxy&) = delete;
    TarnHelperProxy& operator=(const TarnHelperProxy&) = delete;

    static std::shared_ptr<TarnHelperProxy> sharedInstance();
    static std::filesystem::path defaultSocketPath();

    void updateLogDebug(bool value);
    void updateTrayType(const nlohmann::json& number);
    void flushDNS();
    void writeLocation(const std::string& location);
    void downloadCert(const std::string& url, const std::string& filename);
    void importCert(const std::string& path);
    void rollbackDNSResolvers();
    void setDNSResolvers(const std::vector<std::string>& resolvers,
                         const std::vector<std::string>& networkServices);
    void rollbackDNSForServices(const std::vector<std::string>& networkServices);

    static std::string generateUUID();

    /// Where the lines go instead of the system log (tests). Set before the first call.
    void setLogHandler(LogHandler handler);
    /// Blocks until every call made so far has had its answer or failed (tests, shutdown).
    void waitUntilIdle();
    /// The authorization sent with every message, 64 hex digits; empty while the helper has not
    /// given one.
    std::string authorization() const;

private:
    struct Call {
        std::string selector;
        nlohmann::json arguments;
        std::string failureLine;  // logged before the error, when there is one
        std::string successLine;
    };

    void enqueue(Call call);
    void work();
    void perform(const Call& call);
    void setupAuth();
    std::shared_ptr<sys::MessageClient> connectToHelperTool();
    void logError(const nlohmann::json& error);
    void log(Level level, const std::string& line);

    const std::filesystem::path socketPath_;
    mutable std::mutex lock_;  // connecting and sending
    std::shared_ptr<sys::MessageClient> helperToolConnection_;
    std::shared_ptr<bool> invalidated_;
    std::string authorization_;
    LogHandler logHandler_;

    std::mutex queueMutex_;
    std::condition_variable queueChanged_;
    std::deque<Call> queue_;
    bool busy_ = false;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace morvane
