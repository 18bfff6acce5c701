#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace morvane::dns {

/// Finds this machine's public IPv4 address as the service's resolvers see it, with one
/// query through the C library's resolver for the special name "-.-", and lists the DNS
/// servers the resolver library knows. Beside these it holds a plain-HTTP route to an
/// address echo endpoint and a small rate limiter.
class DNSResolver {
public:
    static constexpr const char* kExternalIPHost = "-.-";
    static constexpr int kQueryClass = 1;  // IN
    static constexpr int kQueryType = 1;   // A
    static constexpr std::uint16_t kPort = 53;
    static constexpr std::size_t kAnswerBufferSize = 512;
    static constexpr std::size_t kMaxServers = 32;
    static constexpr std::chrono::seconds kWindow{3600};
    static constexpr std::int64_t kCallsPerWindow = 4;
    static constexpr std::chrono::milliseconds kHttpTimeout{5000};

    /// Writes one line to the system log; the logging of the library's failures goes here.
    using LogLine = void (*)(const std::string& line);

    /// Nothing when the resolver state cannot be initialised. The state is shared by every
    /// instance of the process, and belongs to the one made last.
    static std::unique_ptr<DNSResolver> create();
    ~DNSResolver();
    DNSResolver(const DNSResolver&) = delete;
    DNSResolver& operator=(const DNSResolver&) = delete;

    /// The external address through the given resolvers; the empty text when unknown.
    static std::string resolveDNSUsingMorvane(const std::vector<std::string>& resolvers);
    /// The IPv4 address in the first answer record for `host`, asked of the first non-empty
    /// resolver of the list (with the system's servers behind it), or of the system's servers
    /// when every entry is empty. The empty text for every failure. Blocks.
    static std::string getIPAddressFromResolvers(const std::vector<std::string>& resolvers,
                                                 const std::string& host);
    /// The address text from the plain-HTTP echo endpoint, or the empty text. The list only
    /// needs to be non-empty. Blocks up to the time-out.
    static std::string pingNonMorvaneResolver(const std::vector<std::string>& resolvers);

    /// Where the echo endpoint is: "host" or "host:port", answered over plain http on "/".
    /// Empty (the start value) means none is configured, and pingNonMorvaneResolver fails.
    static void setEchoHost(const std::string& host);
    static std::string echoHost();
    /// Where the class's system-log lines go; syslog by default.
    static void setSystemLog(LogLine log);

    /// The servers of the shared state as numeric text, IPv4 and IPv6, in the library's
    /// order; empty when it has none.
    std::vector<std::string> getDNSAddresses() const;

    bool shouldResolveNow();
    bool shouldCallExternalIP(std::int64_t count) const;
    void updateCountAndDate();

    std::int64_t callCount = 0;
    /// Starts at the moment of construction, so that the window opens an hour later: an
    /// absent start would never let it open.
    std::optional<std::chrono::system_clock::time_point> lastCallDate;

private:
    DNSResolver() = default;
};

}  // namespace morvane::dns
