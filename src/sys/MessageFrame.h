#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace morvane::sys {

/// The largest message body the sockets of the three programs accept. A peer that announces
/// more is cut off before anything is allocated for it.
inline constexpr std::size_t kMaxMessageBytes = std::size_t{1} << 20;

/// One message on the wire: a 4-byte big-endian length, then that many bytes of UTF-8 JSON
/// holding one object. Returns nothing when the object's text is over the limit.
std::optional<std::string> encodeFrame(const nlohmann::json& object);

/// Reassembles frames from a byte stream that arrives in pieces of any size.
class FrameDecoder {
public:
    enum class Status { NeedMore, Message, Failed };

    /// Appends bytes read from the socket.
    void feed(std::string_view bytes);

    /// Takes the next whole message out of what was fed. After `Failed` (a length over the
    /// limit, text that is not JSON, JSON that is no object) the stream is unusable and the
    /// connection must be closed; `error()` says why.
    Status next(nlohmann::json& object);

    const std::string& error() const { return error_; }
    /// Bytes held for a message not yet complete.
    std::size_t pending() const { return buffer_.size() - consumed_; }

private:
    std::string buffer_;
    std::size_t consumed_ = 0;
    std::string error_;
    bool failed_ = false;
};

/// A request, a reply or an upward call, as the framing carries them:
/// request `{"id": n, "message": "<selector>", "arguments": {...}}`,
/// reply `{"id": n, "reply": {...}}`, a call without reply has no "id".
struct Message {
    std::optional<std::int64_t> id;
    std::string message;       // empty for a reply
    nlohmann::json arguments;  // an object; for a reply, the reply object
    bool isReply = false;

    static std::optional<Message> fromJson(const nlohmann::json& object, std::string& error);
    nlohmann::json toJson() const;
};

/// `{"domain": ..., "code": ..., "description": ...}`, the form errors travel in.
nlohmann::json errorObject(std::string_view domain, long long code, std::string_view description);

}  // namespace morvane::sys
