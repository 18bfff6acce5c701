#include "helper/TarnHelperProxy.h"

#include <sys/random.h>
#include <syslog.h>

#include <chrono>

#include "helper/Common.h"
#include "helper/TarnHelperProtocol.h"
#include "sys/UnixSocket.h"

namespace morvane {

namespace th = tarn_helper;

namespace {

constexpr auto kConnectTimeout = std::chrono::seconds(2);
// A certificate download may take the helper a minute of its own.
constexpr auto kReplyTimeout = std::chrono::seconds(120);

/// The helper's rights database, reached through its socket.
class RemoteRights : public AuthorizationRights {
public:
    RemoteRights(sys::MessageClient& client, std::string authorization)
        : client_(client), authorization_(std::move(authorization)) {}

    int rightGet(const std::string& name) override {
        return status(th::authorizationRightGet, {{"right", name}});
    }
    int rightSet(const std::string& name, const std::string& rule, const std::string& description,
                 const std::string& table) override {
        return status(th::authorizationRightSet, {{"right", name},
                                                  {"rule", rule},
                                                  {"description", description},
                                                  {"table", table},
                                                  {"authorization", authorization_}});
    }

private:
    int status(const char* selector, const nlohmann::json& arguments) {
        std::string error;
        const auto reply = client_.call(selector, arguments, kConnectTimeout * 5, error);
        if (!reply || !reply->contains("status") || !(*reply)["status"].is_number_integer()) {
            return th::kParamErr;
        }
        return (*reply)["status"].get<int>();
    }

    sys::MessageClient& client_;
    std::string authorization_;
};

}  // namespace

TarnHelperProxy::TarnHelperProxy(std::filesystem::path socketPath)
    : socketPath_(std::move(socketPath)) {
    worker_ = std::thread([this] { work(); });
    // The authorization is made first, before any message can go.
    enqueue(Call{});
}

TarnHelperProxy::~TarnHelperProxy() {
    {
        const std::lock_guard guard(queueMutex_);
        stopping_ = true;
        queue_.clear();
    }
    queueChanged_.notify_all();
    worker_.join();
}

std::shared_ptr<TarnHelperProxy> TarnHelperProxy::sharedInstance() {
    static const auto instance = std::make_shared<TarnHelperProxy>();
    return instance;
}

std::filesystem::path TarnHelperProxy::defaultSocketPath() {
    return sys::runtimeDirectory() / th::kSocketName;
}

std::string TarnHelperProxy::generateUUID() {
    // A random (version 4) UUID in its usual text form, upper case as the platform writes it.
    unsigned char bytes[16] = {};
    std::size_t filled = 0;
    while (filled < sizeof bytes) {
        const ssize_t got = getrandom(bytes + filled, sizeof bytes - filled, 0);
        if (got > 0) {
            filled += static_cast<std::size_t>(got);
        }
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < sizeof bytes; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += '-';
        }
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0f];
    }
    return text;
}

void TarnHelperProxy::setLogHandler(LogHandler handler) {
    const std::lock_guard guard(lock_);
    logHandler_ = std::move(handler);
}

std::string TarnHelperProxy::authorization() const {
    const std::lock_guard guard(lock_);
    return authorization_;
}

void TarnHelperProxy::log(Level level, const std::string& line) {
    LogHandler handler;
    {
        const std::lock_guard guard(lock_);
        handler = logHandler_;
    }
    if (handler) {
        handler(level, line);
        return;
    }
    const int priority = level == Level::error  ? LOG_ERR
                         : level == Level::info ? LOG_INFO
                                                : LOG_DEBUG;
    syslog(priority, "com.lorvex.tarn.MorvaneCloud [TarnHelperProxy] %s", line.c_str());
}

void TarnHelperProxy::logError(const nlohmann::json& error) {
    const std::string domain = error.value("domain", "");
    const long long code = error.value("code", 0LL);
    log(Level::error, "Error " + domain + " (" + std::to_string(code) + ")");
}

std::shared_ptr<sys::MessageClient> TarnHelperProxy::connectToHelperTool() {
    // Called with lock_ held.
    if (helperToolConnection_ && !*invalidated_ && helperToolConnection_->connected()) {
        return helperToolConnection_;
    }
    auto client = std::make_shared<sys::MessageClient>(socketPath_);
    auto invalidated = std::make_shared<bool>(false);
    std::weak_ptr<bool> flag = invalidated;
    client->setDisconnectHandler([this, flag](const std::string&) {
        if (auto alive = flag.lock()) {
            *alive = true;
            log(Level::debug, "Tarn Helper connection invalidated");
        }
    });
    std::string error;
    if (!client->connect(kConnectTimeout, error)) {
        helperToolConnection_.reset();
        return nullptr;
    }
    helperToolConnection_ = client;
    invalidated_ = invalidated;
    return client;
}

void TarnHelperProxy::setupAuth() {
    std::shared_ptr<sys::MessageClient> client;
    {
        const std::lock_guard guard(lock_);
        client = connectToHelperTool();
    }
    if (!client) {
        return;
    }
    std::string error;
    const auto reply =
        client->call(th::authorizationCreate, nlohmann::json::object(), kReplyTimeout, error);
    std::string token;
    if (reply && reply->contains("authorization") && (*reply)["authorization"].is_string()) {
        token = (*reply)["authorization"].get<std::string>();
    }
    {
        const std::lock_guard guard(lock_);
        authorization_ = token;
    }
    RemoteRights rights(*client, token);
    Common::setupAuthorizationRights(rights);
}

void TarnHelperProxy::enqueue(Call call) {
    {
        const std::lock_guard guard(queueMutex_);
        queue_.push_back(std::move(call));
    }
    queueChanged_.notify_all();
}

void TarnHelperProxy::waitUntilIdle() {
    std::unique_lock guard(queueMutex_);
    queueChanged_.wait(guard, [this] { return stopping_ || (queue_.empty() && !busy_); });
}

void TarnHelperProxy::work() {
    for (;;) {
        Call call;
        {
            std::unique_lock guard(queueMutex_);
            queueChanged_.wait(guard, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) {
                return;
            }
            call = std::move(queue_.front());
            queue_.pop_front();
            busy_ = true;
        }
        if (call.selector.empty() || authorization().empty()) {
            // Also when the helper was not there at start: it may have come since.
            setupAuth();
        }
        if (!call.selector.empty()) {
            perform(call);
        }
        {
            const std::lock_guard guard(queueMutex_);
            busy_ = false;
        }
        queueChanged_.notify_all();
    }
}

void TarnHelperProxy::perform(const Call& call) {
    std::shared_ptr<sys::MessageClient> client;
    nlohmann::json arguments = call.arguments;
    {
        const std::lock_guard guard(lock_);
        client = connectToHelperTool();
        arguments["authorization"] = authorization_;
    }
    if (!client) {
        // What the remote object's error handler is told when the service is not there.
        logError(sys::errorObject("NSCocoaErrorDomain", 4099, "connection to helper failed"));
        return;
    }
    std::string error;
    const auto reply = client->call(call.selector, arguments, kReplyTimeout, error);
    if (!reply) {
        logError(sys::errorObject("NSCocoaErrorDomain", 4097, error));
        return;
    }
    if (const auto found = reply->find("error"); found != reply->end() && found->is_object()) {
        if (!call.failureLine.empty()) {
            log(Level::error, call.failureLine);
        }
        logError(*found);
        return;
    }
    if (!call.successLine.empty()) {
        log(Level::info, call.successLine);
    }
}

void TarnHelperProxy::updateLogDebug(bool value) {
    enqueue({th::setLogDebug, {{"value", value}}, "", "Log debug info updated in settings"});
}

void TarnHelperProxy::updateTrayType(const nlohmann::json& number) {
    enqueue({th::setTrayType, {{"value", number}}, "", "Tray type updated in settings"});
}

void TarnHelperProxy::flushDNS() {
    enqueue({th::flushDNS, nlohmann::json::object(), "", ""});
}

void TarnHelperProxy::writeLocation(const std::string& location) {
    enqueue({th::writeLocation, {{"value", location}}, "", ""});
}

void TarnHelperProxy::downloadCert(const std::string& url, const std::string& filename) {
    enqueue({th::downloadCert, {{"url", url}, {"filename", filename}}, "", ""});
}

void TarnHelperProxy::importCert(const std::string& path) {
    enqueue({th::importCert, {{"path", path}}, "", ""});
}

void TarnHelperProxy::rollbackDNSResolvers() {
    enqueue({th::rollbackDNS, nlohmann::json::object(), "Failed to rollback DNS settings", ""});
}

void TarnHelperProxy::setDNSResolvers(const std::vector<std::string>& resolvers,
                                      const std::vector<std::string>& networkServices) {
    enqueue({th::modifyDNSForServices,
             {{"resolvers", resolvers}, {"services", networkServices}},
             "Failed to change DNS settings",
             ""});
}

void TarnHelperProxy::rollbackDNSForServices(const std::vector<std::string>& networkServices) {
    enqueue({th::rollbackDNSForServices,
             {{"services", networkServices}},
             "Failed to rollback DNS settings",
             ""});
}

}  // namespace morvane
