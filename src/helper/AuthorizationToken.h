#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace morvane {

/// Status codes of the authorization stand-in, with the values the client's side knows them by.
namespace authorization_status {
inline constexpr int success = 0;
inline constexpr int invalidRef = -60002;
inline constexpr int denied = -60005;
inline constexpr int canceled = -60006;
inline constexpr int interactionNotAllowed = -60007;
inline constexpr int internal = -60008;
}  // namespace authorization_status

/// The authorizations the helper has handed out. An authorization is 32 random bytes made for
/// one local user at that user's request (`AuthorizationCreate` on the helper's socket); it is
/// good only on a connection whose peer credentials show that same user, so a token that leaks
/// to another account is worth nothing. Only root and the machine's agent user get one: the
/// owner of the DNS proxy's stored configuration when there is one, else the first user who
/// asked (kept in "helper-owner.json" of the helper's folder until an administrator removes it),
/// so that a second local account cannot make itself an authorization. The list lives in the
/// run-time folder (root only, mode 0600): it survives a restart of the helper and goes with a
/// reboot, as a login session's authorizations do.
class AuthorizationTokens {
public:
    using Token = std::array<std::uint8_t, 32>;

    /// At most this many per user; the oldest goes first.
    static constexpr std::size_t kPerUser = 16;

    AuthorizationTokens();
    explicit AuthorizationTokens(std::filesystem::path path);

    /// A new token for `uid`, stored; none when randomness or the file fails.
    std::optional<Token> create(uid_t uid);
    /// Whether `uid` may have an authorization; records the first user who asks as the owner.
    bool mayCreate(uid_t uid, std::string& why);
    /// The user a token was made for.
    std::optional<uid_t> owner(const Token& token) const;

    static std::string toHex(const std::uint8_t* data, std::size_t size);
    /// The bytes of a hex text; none when it is not hex of whole bytes.
    static std::optional<std::string> fromHex(const std::string& text);

private:
    std::filesystem::path path_;
};

}  // namespace morvane
