// The forwarder under dnsperf, side by side in one run with its peers:
//   - forwarding: dnsperf -> forwarder -> a fast local upstream, against dnsmasq forwarding to
//     the same upstream (its cache off) and against the upstream asked directly; answers carry
//     TTL 0 and every name is new, so nothing is served from a cache;
//   - latency added at a light load (2,000 queries a second) to the direct path;
//   - answers from the cache, against unbound answering from its cache;
//   - resident memory of the forwarder holding 10,000 cached names.
// Run by hand: build/bench/provider_forwarder_bench [seconds per measurement]. It needs
// dnsperf and dnsmasq (Debian packages dnsperf, dnsmasq-base) and unbound, which it unpacks
// from its Debian package when it is not installed; every server it starts listens on
// 127.0.0.1 on a free port and ends with the benchmark.
//
// The same binary also plays two roles for itself: "upstream" (the fast resolver) and
// "forwarder" (the forwarder as a process of its own, so that its memory is its own).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "provider/Forwarder.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// ---- the fast upstream: answers every A query with one address, at once -------------------

int runUpstream() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int bufferSize = 8 << 20;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::perror("upstream bind");
        return 1;
    }
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    std::cout << "127.0.0.1:" << ntohs(address.sin_port) << std::endl;

    constexpr std::size_t batch = 64;
    static std::array<std::array<std::uint8_t, 1500>, batch> in{};
    static std::array<std::array<std::uint8_t, 1500>, batch> out{};
    std::array<sockaddr_storage, batch> peers{};
    std::array<iovec, batch> inVectors{};
    std::array<iovec, batch> outVectors{};
    std::array<mmsghdr, batch> inMessages{};
    std::array<mmsghdr, batch> outMessages{};
    for (;;) {
        for (std::size_t i = 0; i < batch; ++i) {
            inVectors[i] = {in[i].data(), in[i].size()};
            inMessages[i].msg_hdr = {};
            inMessages[i].msg_hdr.msg_name = &peers[i];
            inMessages[i].msg_hdr.msg_namelen = sizeof peers[i];
            inMessages[i].msg_hdr.msg_iov = &inVectors[i];
            inMessages[i].msg_hdr.msg_iovlen = 1;
        }
        const int received = ::recvmmsg(fd, inMessages.data(), batch, MSG_WAITFORONE, nullptr);
        if (received <= 0) {
            continue;
        }
        std::size_t answers = 0;
        for (std::size_t i = 0; i < static_cast<std::size_t>(received); ++i) {
            const std::uint8_t* query = in[i].data();
            const std::size_t size = inMessages[i].msg_len;
            std::size_t end = 12;
            while (end < size && query[end] != 0) {
                end += 1 + query[end];
            }
            end += 5;
            if (size < 12 || end > size) {
                continue;
            }
            std::uint8_t* answer = out[answers].data();
            std::memcpy(answer, query, end);
            answer[2] = static_cast<std::uint8_t>(0x80 | (query[2] & 0x01));  // QR, RD as asked
            answer[3] = 0x80;                                                 // RA
            answer[6] = 0;
            answer[7] = 1;
            std::memset(answer + 8, 0, 4);
            // Names that start with "c" may be cached for an hour; the rest not at all.
            const std::uint32_t ttl = query[13] == 'c' ? 3600 : 0;
            const std::uint8_t record[] = {0xC0,
                                           0x0C,
                                           0,
                                           1,
                                           0,
                                           1,
                                           static_cast<std::uint8_t>(ttl >> 24),
                                           static_cast<std::uint8_t>(ttl >> 16),
                                           static_cast<std::uint8_t>(ttl >> 8),
                                           static_cast<std::uint8_t>(ttl),
                                           0,
                                           4,
                                           192,
                                           0,
                                           2,
                                           1};
            std::memcpy(answer + end, record, sizeof record);
            outVectors[answers] = {answer, end + sizeof record};
            outMessages[answers].msg_hdr = {};
            outMessages[answers].msg_hdr.msg_name = &peers[i];
            outMessages[answers].msg_hdr.msg_namelen = inMessages[i].msg_hdr.msg_namelen;
            outMessages[answers].msg_hdr.msg_iov = &outVectors[answers];
            outMessages[answers].msg_hdr.msg_iovlen = 1;
            ++answers;
        }
        std::size_t sent = 0;
        while (sent < answers) {
            const int n =
                ::sendmmsg(fd, outMessages.data() + sent, static_cast<unsigned>(answers - sent), 0);
            sent += n > 0 ? static_cast<std::size_t>(n) : 1;
        }
    }
}

// ---- the forwarder as a process of its own --------------------------------------------------

int runForwarder(const std::string& upstream) {
    morvane::provider::Forwarder forwarder;
    morvane::provider::Policy policy;
    policy.rules = {{std::nullopt, std::nullopt, {upstream}}};
    policy.locationTag = "bench-location";
    policy.uuid = "5B1F0C1E-2D3A-4B5C-8D9E-0F1A2B3C4D5E";
    forwarder.setPolicy(policy);
    std::string error;
    if (!forwarder.start("127.0.0.1:0", error)) {
        std::cerr << error << std::endl;
        return 1;
    }
    std::cout << forwarder.listeningAddress() << std::endl;
    // "stats" on standard input prints the counters; end of input ends the process.
    std::string line;
    while (std::getline(std::cin, line)) {
        const auto stats = forwarder.stats();
        std::cout << "queries " << stats.queries << " cacheHits " << stats.cacheHits
                  << " upstreamQueries " << stats.upstreamQueries << " servfails "
                  << stats.servfails << " cacheEntries " << stats.cacheEntries << std::endl;
    }
    forwarder.stop();
    return 0;
}

// ---- the conductor --------------------------------------------------------------------------

struct Child {
    pid_t pid = -1;
    int in = -1;   // its standard input, ours to write
    int out = -1;  // its standard output, ours to read
    std::string name;

    std::string readLine(std::chrono::milliseconds timeout = 10s) const {
        std::string line;
        const auto until = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < until) {
            pollfd p{out, POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0) {
                continue;
            }
            char c;
            if (::read(out, &c, 1) != 1) {
                break;
            }
            if (c == '\n') {
                return line;
            }
            line += c;
        }
        return line;
    }
    void stop() {
        if (pid > 0) {
            ::kill(pid, SIGTERM);
            int status = 0;
            ::waitpid(pid, &status, 0);
            pid = -1;
        }
        for (int* fd : {&in, &out}) {
            if (*fd >= 0) {
                ::close(*fd);
                *fd = -1;
            }
        }
    }
};

Child spawn(const std::string& name, const std::vector<std::string>& arguments) {
    int toChild[2];
    int fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(toChild[0], 0);
        ::dup2(fromChild[1], 1);
        ::close(toChild[1]);
        ::close(fromChild[0]);
        std::vector<char*> argv;
        for (const auto& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        std::perror(argv[0]);
        ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    return Child{pid, toChild[1], fromChild[0], name};
}

std::uint16_t freePort() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

std::string portOf(const std::string& address) {
    return address.substr(address.rfind(':') + 1);
}

// Asks "probe.bench.test" until an answer comes: the server is up.
bool waitUntilAnswering(const std::string& port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::uint8_t query[] = {0x12, 0x34, 1,   0,   0,   1,   0, 0,   0,   0,   0,   0,
                                  5,    'p',  'r', 'o', 'b', 'e', 5, 'b', 'e', 'n', 'c', 'h',
                                  4,    't',  'e', 's', 't', 0,   0, 1,   0,   1};
    bool answered = false;
    for (int i = 0; i < 100 && !answered; ++i) {
        ::sendto(fd, query, sizeof query, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) > 0) {
            std::uint8_t buffer[512];
            answered = ::recv(fd, buffer, sizeof buffer, 0) > 0;
        }
    }
    ::close(fd);
    return answered;
}

struct Run {
    double qps = 0;
    double latencyMicroseconds = 0;
    std::string lost;
};

Run dnsperf(const std::string& port, const fs::path& queries,
            const std::vector<std::string>& extra) {
    std::vector<std::string> arguments = {"dnsperf", "-s", "127.0.0.1",     "-p",
                                          port,      "-d", queries.string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    Child child = spawn("dnsperf", arguments);
    std::string output;
    char buffer[4096];
    ssize_t got;
    while ((got = ::read(child.out, buffer, sizeof buffer)) > 0) {
        output.append(buffer, static_cast<std::size_t>(got));
    }
    int status = 0;
    ::waitpid(child.pid, &status, 0);
    child.pid = -1;
    child.stop();
    Run run;
    std::smatch match;
    if (std::regex_search(output, match, std::regex(R"(Queries per second:\s+([0-9.]+))"))) {
        run.qps = std::stod(match[1]);
    }
    if (std::regex_search(output, match, std::regex(R"(Average Latency \(s\):\s+([0-9.]+))"))) {
        run.latencyMicroseconds = std::stod(match[1]) * 1e6;
    }
    if (std::regex_search(output, match, std::regex(R"(Queries lost:\s+([0-9]+ \([0-9.]+%\)))"))) {
        run.lost = match[1];
    }
    if (run.qps == 0) {
        std::cerr << "dnsperf gave no figures:\n" << output << std::endl;
    }
    return run;
}

long residentKilobytes(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

void writeNames(const fs::path& file, char prefix, int count) {
    std::ofstream out(file);
    for (int i = 0; i < count; ++i) {
        out << prefix << i << ".bench.test A\n";
    }
}

bool have(const char* program) {
    return std::system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0;
}

int conduct(const std::string& self, int seconds) {
    for (const char* program : {"dnsperf", "dnsmasq"}) {
        if (!have(program)) {
            std::cerr << program << " is missing: apt-get install dnsperf dnsmasq-base"
                      << std::endl;
            return 1;
        }
    }
    const fs::path work =
        fs::temp_directory_path() / ("forwarder-bench-" + std::to_string(::getpid()));
    fs::create_directories(work);
    // unbound's package would start a resolver on installation; unpacked here it only runs
    // when asked, for as long as the benchmark.
    std::string unboundProgram = "unbound";
    if (!have("unbound")) {
        const std::string unpack = "cd '" + work.string() +
                                   "' && apt-get download unbound >/dev/null 2>&1 && "
                                   "dpkg-deb -x unbound_*.deb unpacked";
        if (std::system(unpack.c_str()) != 0) {
            std::cerr
                << "unbound is not installed and could not be unpacked (apt-get download unbound)"
                << std::endl;
            fs::remove_all(work);
            return 1;
        }
        unboundProgram = (work / "unpacked/usr/sbin/unbound").string();
    }
    const std::string time = std::to_string(seconds);

    Child upstream = spawn("upstream", {self, "upstream"});
    const std::string upstreamAddress = upstream.readLine();
    Child forwarder = spawn("forwarder", {self, "forwarder", upstreamAddress});
    const std::string forwarderPort = portOf(forwarder.readLine());

    const std::string dnsmasqPort = std::to_string(freePort());
    std::vector<std::string> dnsmasqArguments = {"dnsmasq",
                                                 "--keep-in-foreground",
                                                 "--conf-file=/dev/null",
                                                 "--no-resolv",
                                                 "--no-hosts",
                                                 "--no-poll",
                                                 "--pid-file=",
                                                 "--listen-address=127.0.0.1",
                                                 "--bind-interfaces",
                                                 "--port=" + dnsmasqPort,
                                                 "--server=127.0.0.1#" + portOf(upstreamAddress),
                                                 "--cache-size=0",
                                                 "--dns-forward-max=10000",
                                                 "--log-facility=/dev/null"};
    if (::getuid() == 0) {
        dnsmasqArguments.push_back("--user=root");  // it would otherwise change to "nobody"
    }
    Child dnsmasq = spawn("dnsmasq", dnsmasqArguments);

    const std::string unboundPort = std::to_string(freePort());
    {
        std::ofstream conf(work / "unbound.conf");
        conf << "server:\n  interface: 127.0.0.1@" << unboundPort << "\n  port: " << unboundPort
             << "\n  num-threads: 1\n  do-ip6: no\n  do-tcp: no\n  chroot: \"\"\n  username: \"\"\n"
                "  directory: \""
             << work.string()
             << "\"\n  pidfile: \"\"\n  use-syslog: no\n  logfile: \"\"\n  verbosity: 0\n"
             << "  module-config: \"iterator\"\n  access-control: 127.0.0.0/8 allow\n"
                "  do-not-query-localhost: no\n  msg-cache-size: 32m\n  rrset-cache-size: 64m\n"
                "  qname-minimisation: no\n  prefetch: no\n  so-reuseport: no\n"
                "forward-zone:\n  name: \".\"\n  forward-addr: 127.0.0.1@"
             << portOf(upstreamAddress) << "\n";
    }
    Child unbound =
        spawn("unbound", {unboundProgram, "-d", "-c", (work / "unbound.conf").string()});

    const auto fail = [&](const std::string& what) {
        std::cerr << what << " did not come up" << std::endl;
        for (Child* child : {&forwarder, &dnsmasq, &unbound, &upstream}) {
            child->stop();
        }
        fs::remove_all(work);
        return 1;
    };
    if (!waitUntilAnswering(portOf(upstreamAddress)))
        return fail("the upstream");
    if (!waitUntilAnswering(forwarderPort))
        return fail("the forwarder");
    if (!waitUntilAnswering(dnsmasqPort))
        return fail("dnsmasq");
    if (!waitUntilAnswering(unboundPort))
        return fail("unbound");

    // Names that are never cached (TTL 0), many of them, so nothing is served twice from memory.
    writeNames(work / "forward.txt", 'f', 200000);
    writeNames(work / "cache.txt", 'c', 10000);

    const std::vector<std::string> flat = {"-l", time, "-c", "4", "-q", "200"};

    // The machine is shared: every figure is the best of a few rounds, the peers taking turns
    // within each round, so that a burst of someone else's work hurts no one side alone.
    constexpr int rounds = 3;
    const auto best = [&](const std::vector<std::pair<std::string, fs::path>>& targets,
                          const std::vector<std::string>& options) {
        std::vector<Run> result(targets.size());
        for (int round = 0; round < rounds; ++round) {
            for (std::size_t k = 0; k < targets.size(); ++k) {
                const std::size_t i = (k + static_cast<std::size_t>(round)) % targets.size();
                const Run run = dnsperf(targets[i].first, targets[i].second, options);
                if (run.qps > result[i].qps) {
                    result[i].qps = run.qps;
                    result[i].lost = run.lost;
                }
                if (result[i].latencyMicroseconds == 0 ||
                    (run.latencyMicroseconds > 0 &&
                     run.latencyMicroseconds < result[i].latencyMicroseconds)) {
                    result[i].latencyMicroseconds = run.latencyMicroseconds;
                }
            }
        }
        return result;
    };
    const std::string upstreamPort = portOf(upstreamAddress);
    const fs::path forward = work / "forward.txt";
    const fs::path cached = work / "cache.txt";

    std::printf("Forwarding (best of %d rounds of %d s, uncached names, TTL 0)\n", rounds, seconds);
    const auto full =
        best({{upstreamPort, forward}, {forwarderPort, forward}, {dnsmasqPort, forward}}, flat);
    std::printf("  %-22s %10.0f q/s  lost %s\n", "upstream directly", full[0].qps,
                full[0].lost.c_str());
    std::printf("  %-22s %10.0f q/s  lost %s\n", "forwarder", full[1].qps, full[1].lost.c_str());
    std::printf("  %-22s %10.0f q/s  lost %s\n", "dnsmasq", full[2].qps, full[2].lost.c_str());
    std::printf("  forwarder / dnsmasq: %.2fx (goal >= 1.5x)\n\n", full[1].qps / full[2].qps);

    std::printf("Mean latency at 2,000 queries a second (best of %d rounds)\n", rounds);
    const auto light =
        best({{upstreamPort, forward}, {forwarderPort, forward}, {dnsmasqPort, forward}},
             {"-l", time, "-Q", "2000"});
    const double forwarderAdds = light[1].latencyMicroseconds - light[0].latencyMicroseconds;
    const double dnsmasqAdds = light[2].latencyMicroseconds - light[0].latencyMicroseconds;
    std::printf("  %-22s %8.1f us\n", "upstream directly", light[0].latencyMicroseconds);
    std::printf("  %-22s %8.1f us  (adds %.1f us)\n", "forwarder", light[1].latencyMicroseconds,
                forwarderAdds);
    std::printf("  %-22s %8.1f us  (adds %.1f us)\n", "dnsmasq", light[2].latencyMicroseconds,
                dnsmasqAdds);
    std::printf("  added latency forwarder / dnsmasq: %.2f (goal <= 1)\n\n",
                dnsmasqAdds > 0 ? forwarderAdds / dnsmasqAdds : 0.0);

    std::printf(
        "Answers from the cache (10,000 names, TTL 3600, warmed first; best of %d rounds)\n",
        rounds);
    const std::vector<std::string> once = {"-n", "1", "-q", "50"};
    dnsperf(forwarderPort, cached, once);
    dnsperf(unboundPort, cached, once);
    const auto cache = best({{forwarderPort, cached}, {unboundPort, cached}}, flat);
    std::printf("  %-22s %10.0f q/s  lost %s\n", "forwarder", cache[0].qps, cache[0].lost.c_str());
    std::printf("  %-22s %10.0f q/s  lost %s\n", "unbound (1 thread)", cache[1].qps,
                cache[1].lost.c_str());
    std::printf("  forwarder / unbound: %.2fx (goal >= 1)\n\n", cache[0].qps / cache[1].qps);

    [[maybe_unused]] const auto written = ::write(forwarder.in, "stats\n", 6);
    const std::string stats = forwarder.readLine();
    const long rss = residentKilobytes(forwarder.pid);
    std::printf("Memory\n  forwarder resident: %.1f MB (goal <= 10 MB)\n  its counters: %s\n",
                static_cast<double>(rss) / 1024.0, stats.c_str());

    for (Child* child : {&forwarder, &dnsmasq, &unbound, &upstream}) {
        child->stop();
    }
    fs::remove_all(work);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "upstream") {
        return runUpstream();
    }
    if (role == "forwarder" && argc > 2) {
        return runForwarder(argv[2]);
    }
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    return conduct(fs::read_symlink("/proc/self/exe").string(), seconds);
}
