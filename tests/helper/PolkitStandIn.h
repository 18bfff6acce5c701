#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

struct sd_bus;

namespace morvane::test {

/// A stand-in for polkitd on the private system bus: it owns org.freedesktop.PolicyKit1 and
/// answers org.freedesktop.PolicyKit1.Authority.CheckAuthorization at
/// /org/freedesktop/PolicyKit1/Authority, the one call the helper makes. polkitd itself cannot
/// run here (it needs logind and the machine's own system bus). Every question is recorded as
/// it arrived; the answer is whatever the test has set.
class PolkitStandIn {
public:
    enum class Answer {
        authorized,     // (true, false, {})
        notAuthorized,  // (false, false, {})
        dismissed,      // (false, false, {"polkit.dismissed": "true"}): the user closed the dialog
        challenge,      // (false, true, {}): authentication wanted, nobody could be asked
        error,          // a D-Bus error with the name and message set below
        vanish,         // leaves the bus without answering, as a crashing polkitd does
    };

    /// One CheckAuthorization as the stand-in received it.
    struct Check {
        std::string subjectKind;
        std::optional<std::uint32_t> pid;
        std::optional<std::uint64_t> startTime;
        std::optional<std::int32_t> uid;
        std::string actionId;
        std::map<std::string, std::string> details;
        std::uint32_t flags = 0;
        std::string cancellationId;
    };

    PolkitStandIn() = default;
    ~PolkitStandIn();
    PolkitStandIn(const PolkitStandIn&) = delete;
    PolkitStandIn& operator=(const PolkitStandIn&) = delete;

    /// Takes the name on the bus of $DBUS_SYSTEM_BUS_ADDRESS and serves on a thread of its own.
    bool start(std::string& error);
    /// Leaves the bus; the name goes with it.
    void stop();

    void answer(Answer answer, std::string errorName = {}, std::string errorMessage = {});
    std::vector<Check> checks();
    /// Whether the stand-in has left the bus (after `vanish` or `stop`).
    bool gone() const { return gone_.load(); }

    /// Records a question and gives the answer to it; for the bus callback only.
    struct Reply {
        Answer answer;
        std::string errorName;
        std::string errorMessage;
    };
    Reply take(Check check);

private:
    void serve();

    std::mutex mutex_;
    Answer answer_ = Answer::authorized;
    std::string errorName_;
    std::string errorMessage_;
    std::vector<Check> checks_;
    sd_bus* bus_ = nullptr;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> vanishing_{false};
    std::atomic<bool> gone_{false};
    std::thread thread_;
};

}  // namespace morvane::test
