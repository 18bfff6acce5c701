#include "support/DevServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <QProcess>
#include <QStandardPaths>
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

// A TCP socket on 127.0.0.1 that closes itself.
struct LoopbackSocket {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};

    explicit LoopbackSocket(int port) {
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;
    ~LoopbackSocket() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    const sockaddr* where() const { return reinterpret_cast<const sockaddr*>(&address); }
};

std::runtime_error controlError(const std::string& what) {
    return std::runtime_error("devserver control: " + what + ": " + std::strerror(errno));
}

// A plain HTTP/1.0 exchange: the server closes the connection after its answer, so the
// answer is everything read until the end.
std::string controlExchange(int port, const std::string& request) {
    LoopbackSocket socket(port);
    // A server that stopped answering must fail the test, not hang it.
    const timeval limit{30, 0};
    ::setsockopt(socket.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(socket.fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (socket.fd < 0 || ::connect(socket.fd, socket.where(), sizeof socket.address) != 0) {
        throw controlError("connect to port " + std::to_string(port));
    }
    for (std::size_t sent = 0; sent < request.size();) {
        const ssize_t n =
            ::send(socket.fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR) {
            throw controlError("send");
        }
        sent += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    std::string answer;
    char buffer[65536];
    for (ssize_t n; (n = ::recv(socket.fd, buffer, sizeof buffer, 0)) != 0;) {
        if (n < 0 && errno != EINTR) {
            throw controlError("receive");
        }
        answer.append(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
    }
    return answer;
}

}  // namespace

nlohmann::json DevServer::Fault::toJson() const {
    static constexpr const char* kModes[] = {"error",     "unauthorized", "empty", "undecodable",
                                             "status500", "stall",        "drop"};
    nlohmann::json fault = {{"mode", kModes[static_cast<int>(mode)]}};
    const auto put = [&fault](const char* name, const auto& value) {
        if (value) {
            fault[name] = *value;
        }
    };
    put("method", method);
    put("count", count);
    put("code", code);
    put("message", message);
    put("body", body);
    put("status", status);
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
    const int first = static_cast<int>(std::random_device()() % 7000);
    for (int offset = 0; offset < 7000; ++offset) {
        LoopbackSocket probe(2000 + (first + offset) % 7000);
        if (probe.fd >= 0 && ::bind(probe.fd, probe.where(), sizeof probe.address) == 0) {
            return ntohs(probe.address.sin_port);
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
    const auto text = [](const std::string& value) { return QString::fromStdString(value); };
    QStringList arguments{text(script.string()), "--port",     QString::number(options.port),
                          "--watch-stdin",       "--work-dir", text(folder_.path().string()),
                          "--install-key",       kInstallKey};
    for (const auto& key : options.deviceKeys) {
        arguments << "--device-key" << text(key);
    }
    if (options.policy) {
        const auto path = folder_.path() / "policy.json";
        writeFile(path, options.policy->dump());
        arguments << "--policy" << text(path.string());
    }
    for (const auto& fault : options.faults) {
        arguments << "--fault" << text(fault.toJson().dump());
    }

    process_ = std::make_unique<QProcess>();
    // A file, not a pipe: nobody reads the log while the test runs, and a full pipe would
    // stop the server in the middle of a request.
    process_->setStandardErrorFile(text(logPath().string()));
    process_->start(python, arguments);
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
    std::string word, host, certificate;
    fields >> word >> host >> port_ >> controlPort_;
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

std::int64_t DevServer::processId() const {
    return process_ ? process_->processId() : 0;
}

nlohmann::json DevServer::control(const std::string& verb, const std::string& path,
                                  const std::optional<nlohmann::json>& body) {
    const std::string payload = body ? body->dump() : std::string();
    const std::string answer = controlExchange(
        controlPort_,
        verb + " " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n" +
            "Content-Length: " + std::to_string(payload.size()) + "\r\n\r\n" + payload);
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

nlohmann::json DevServer::requestsTo(const std::string& path) {
    auto matching = nlohmann::json::array();
    for (auto& record : requests()) {
        if (record["path"] == path) {
            matching.push_back(std::move(record));
        }
    }
    return matching;
}

void DevServer::setPolicy(const nlohmann::json& policy,
                          const std::optional<std::string>& deviceKey) {
    nlohmann::json body = {{"policy", policy}};
    if (deviceKey) {
        body["device"] = *deviceKey;
    }
    control("POST", "/policy", body);
}

}  // namespace morvane::test
