#include "support/DevServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <QProcess>
#include <QStandardPaths>
#include <QStringList>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace morvane::test {

namespace {

constexpr int kStartMilliseconds = 30000;
constexpr int kStopMilliseconds = 10000;
constexpr time_t kControlSeconds = 30;

const char* modeName(DevServer::FaultMode mode) {
    switch (mode) {
        case DevServer::FaultMode::Error:
            return "error";
        case DevServer::FaultMode::Unauthorized:
            return "unauthorized";
        case DevServer::FaultMode::EmptyBody:
            return "empty";
        case DevServer::FaultMode::Undecodable:
            return "undecodable";
        case DevServer::FaultMode::Status500:
            return "status500";
        case DevServer::FaultMode::Stall:
            return "stall";
        case DevServer::FaultMode::Drop:
            return "drop";
    }
    return "unknown";
}

class Socket {
public:
    Socket() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    int fd() const { return fd_; }

private:
    int fd_;
};

std::runtime_error systemError(const std::string& what) {
    return std::runtime_error("devserver control: " + what + ": " + std::strerror(errno));
}

// A plain HTTP/1.0 exchange: the server closes the connection after its answer, so the
// answer is everything read until the end.
std::string controlExchange(int port, const std::string& request) {
    Socket socket;
    if (socket.fd() < 0) {
        throw systemError("socket");
    }
    // A server that stopped answering must fail the test, not hang it.
    timeval limit{kControlSeconds, 0};
    ::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(socket.fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw systemError("connect to port " + std::to_string(port));
    }
    for (std::size_t sent = 0; sent < request.size();) {
        const ssize_t n =
            ::send(socket.fd(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR) {
            throw systemError("send");
        }
        sent += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    std::string answer;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::recv(socket.fd(), buffer, sizeof buffer, 0);
        if (n == 0) {
            return answer;
        }
        if (n < 0 && errno != EINTR) {
            throw systemError("receive");
        }
        answer.append(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
    }
}

}  // namespace

nlohmann::json DevServer::Fault::toJson() const {
    nlohmann::json fault = {{"mode", modeName(mode)}};
    if (method) {
        fault["method"] = *method;
    }
    if (count) {
        fault["count"] = *count;
    }
    if (code) {
        fault["code"] = *code;
    }
    if (message) {
        fault["message"] = *message;
    }
    if (body) {
        fault["body"] = *body;
    }
    if (status) {
        fault["status"] = *status;
    }
    if (mode == FaultMode::Stall) {
        fault["seconds"] = std::chrono::duration<double>(stall).count();
    }
    return fault;
}

DevServer::DevServer() : DevServer(Options{}) {}

DevServer::DevServer(const Options& options) : folder_("morvane-devserver") {
    try {
        start(options);
    } catch (...) {
        stop();
        throw;
    }
}

DevServer::~DevServer() {
    stop();
    if (::testing::Test::HasFailure()) {
        std::cerr << "--- what tools/devserver said ---\n" << log() << "---\n";
    }
}

int DevServer::freeShortPort() {
    // Probing from a random start keeps tests that run side by side off each other's ports.
    std::random_device random;
    const int first = 2000 + static_cast<int>(random() % 7000);
    for (int offset = 0; offset < 7000; ++offset) {
        const int port = 2000 + (first - 2000 + offset) % 7000;
        const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (probe < 0) {
            break;
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const bool free =
            ::bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        ::close(probe);
        if (free) {
            return port;
        }
    }
    throw std::runtime_error("devserver: no free port below 10000 on 127.0.0.1");
}

void DevServer::start(const Options& options) {
    const auto script = sourceDir() / "tools/devserver/devserver";
    const QString python = QStandardPaths::findExecutable(QStringLiteral("python3"));
    if (python.isEmpty()) {
        throw std::runtime_error("devserver: python3 is not installed");
    }
    QStringList arguments{QString::fromStdString(script.string()),
                          QStringLiteral("--port"),
                          QString::number(options.port),
                          QStringLiteral("--watch-stdin"),
                          QStringLiteral("--work-dir"),
                          QString::fromStdString(folder_.path().string())};
    for (const auto& key : options.installKeys) {
        arguments << QStringLiteral("--install-key") << QString::fromStdString(key);
    }
    for (const auto& key : options.deviceKeys) {
        arguments << QStringLiteral("--device-key") << QString::fromStdString(key);
    }
    if (options.policy) {
        const auto path = folder_.path() / "policy.json";
        writeFile(path, options.policy->dump());
        arguments << QStringLiteral("--policy") << QString::fromStdString(path.string());
    }
    for (const auto& fault : options.faults) {
        arguments << QStringLiteral("--fault") << QString::fromStdString(fault.toJson().dump());
    }

    process_ = std::make_unique<QProcess>();
    process_->setProgram(python);
    process_->setArguments(arguments);
    // A file, not a pipe: nobody reads the log while the test runs, and a full pipe would
    // stop the server in the middle of a request.
    process_->setStandardErrorFile(
        QString::fromStdString((folder_.path() / "devserver.log").string()));
    process_->start();
    if (!process_->waitForStarted(kStartMilliseconds)) {
        throw std::runtime_error("devserver: cannot start " + script.string() + ": " +
                                 process_->errorString().toStdString());
    }
    while (!process_->canReadLine()) {
        if (!process_->waitForReadyRead(kStartMilliseconds)) {
            throw std::runtime_error("devserver: did not start listening:\n" + log());
        }
    }
    const std::string line = process_->readLine().trimmed().toStdString();
    std::istringstream fields(line);
    std::string word, host;
    fields >> word >> host >> port_ >> controlPort_;
    std::string certificate;
    std::getline(fields >> std::ws, certificate);
    if (word != "LISTENING" || !fields.eof() || port_ <= 0 || controlPort_ <= 0 ||
        certificate.empty()) {
        throw std::runtime_error("devserver: unexpected first line '" + line + "'");
    }
    certificate_ = certificate;
}

void DevServer::stop() {
    if (!process_ || process_->state() == QProcess::NotRunning) {
        return;
    }
    // The end of its standard input is the server's signal to stop; the signals are for a
    // server that doesn't listen.
    process_->closeWriteChannel();
    if (process_->waitForFinished(kStopMilliseconds)) {
        return;
    }
    process_->terminate();
    if (!process_->waitForFinished(kStopMilliseconds)) {
        process_->kill();
        process_->waitForFinished(kStopMilliseconds);
    }
}

std::string DevServer::log() const {
    return readFile(folder_.path() / "devserver.log");
}

std::string DevServer::baseUrl() const {
    return "https://127.0.0.1:" + std::to_string(port_);
}

std::int64_t DevServer::processId() const {
    return process_ ? process_->processId() : 0;
}

nlohmann::json DevServer::control(const std::string& verb, const std::string& path,
                                  const std::optional<nlohmann::json>& body) {
    const std::string payload = body ? body->dump() : std::string();
    const std::string answer =
        controlExchange(controlPort_, verb + " " + path +
                                          " HTTP/1.0\r\nHost: 127.0.0.1\r\n"
                                          "Content-Type: application/json\r\nContent-Length: " +
                                          std::to_string(payload.size()) + "\r\n\r\n" + payload);
    const auto end = answer.find("\r\n\r\n");
    const auto space = answer.find(' ');
    if (end == std::string::npos || space == std::string::npos) {
        throw std::runtime_error("devserver control: no HTTP answer to " + verb + " " + path);
    }
    const int status = std::atoi(answer.c_str() + space + 1);
    auto reply = nlohmann::json::parse(answer.substr(end + 4), nullptr, false);
    if (status != 200 || reply.is_discarded()) {
        const std::string reason = reply.is_object() && reply.contains("error")
                                       ? reply["error"].get<std::string>()
                                       : answer.substr(end + 4);
        throw std::runtime_error("devserver control: " + verb + " " + path + " refused (" +
                                 std::to_string(status) + "): " + reason);
    }
    return reply;
}

void DevServer::addFault(const Fault& fault) {
    control("POST", "/faults", fault.toJson());
}

void DevServer::clearFaults() {
    control("POST", "/faults/clear");
}

nlohmann::json DevServer::pendingFaults() {
    return control("GET", "/faults");
}

nlohmann::json DevServer::requests(int sinceSeq) {
    return control("GET", "/requests?since=" + std::to_string(sinceSeq));
}

nlohmann::json DevServer::requestsTo(const std::string& path) {
    auto matching = nlohmann::json::array();
    for (auto& record : requests()) {
        if (record["path"] == path) {
            matching.push_back(std::move(record));
        }
    }
    return matching;
}

void DevServer::clearRequests() {
    control("POST", "/requests/clear");
}

void DevServer::addInstallKey(const std::string& key) {
    control("POST", "/keys", nlohmann::json{{"install_keys", nlohmann::json::array({key})}});
}

void DevServer::addDeviceKey(const std::string& key) {
    control("POST", "/keys", nlohmann::json{{"device_keys", nlohmann::json::array({key})}});
}

void DevServer::removeDeviceKey(const std::string& key) {
    control("POST", "/keys/remove", nlohmann::json{{"device_keys", nlohmann::json::array({key})}});
}

void DevServer::setPolicy(const nlohmann::json& policy,
                          const std::optional<std::string>& deviceKey) {
    nlohmann::json body = {{"policy", policy}};
    if (deviceKey) {
        body["device"] = *deviceKey;
    }
    control("POST", "/policy", body);
}

nlohmann::json DevServer::account() {
    return control("GET", "/account");
}

}  // namespace morvane::test
