#include "sys/MessageFrame.h"

namespace morvane::sys {

std::optional<std::string> encodeFrame(const nlohmann::json& object) {
    std::string body;
    try {
        body = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
    if (body.size() > kMaxMessageBytes) {
        return std::nullopt;
    }
    const auto length = static_cast<std::uint32_t>(body.size());
    std::string frame;
    frame.reserve(4 + body.size());
    frame.push_back(static_cast<char>((length >> 24) & 0xff));
    frame.push_back(static_cast<char>((length >> 16) & 0xff));
    frame.push_back(static_cast<char>((length >> 8) & 0xff));
    frame.push_back(static_cast<char>(length & 0xff));
    frame += body;
    return frame;
}

void FrameDecoder::feed(std::string_view bytes) {
    if (failed_) {
        return;
    }
    // Drop what earlier messages used before growing, so a long-lived connection does not keep
    // every byte it ever received.
    if (consumed_ > 0 && consumed_ == buffer_.size()) {
        buffer_.clear();
        consumed_ = 0;
    } else if (consumed_ > 64 * 1024) {
        buffer_.erase(0, consumed_);
        consumed_ = 0;
    }
    buffer_.append(bytes);
}

FrameDecoder::Status FrameDecoder::next(nlohmann::json& object) {
    if (failed_) {
        return Status::Failed;
    }
    const std::size_t available = buffer_.size() - consumed_;
    if (available < 4) {
        return Status::NeedMore;
    }
    const auto* head = reinterpret_cast<const unsigned char*>(buffer_.data() + consumed_);
    const std::uint32_t length = (std::uint32_t{head[0]} << 24) | (std::uint32_t{head[1]} << 16) |
                                 (std::uint32_t{head[2]} << 8) | std::uint32_t{head[3]};
    if (length > kMaxMessageBytes) {
        failed_ = true;
        error_ = "message of " + std::to_string(length) + " bytes is over the limit of " +
                 std::to_string(kMaxMessageBytes);
        return Status::Failed;
    }
    if (available - 4 < length) {
        return Status::NeedMore;
    }
    const std::string_view body(buffer_.data() + consumed_ + 4, length);
    consumed_ += 4 + length;
    object = nlohmann::json::parse(body, nullptr, false);
    if (object.is_discarded()) {
        failed_ = true;
        error_ = "message is not JSON";
        return Status::Failed;
    }
    if (!object.is_object()) {
        failed_ = true;
        error_ = "message is not a JSON object";
        return Status::Failed;
    }
    return Status::Message;
}

std::optional<Message> Message::fromJson(const nlohmann::json& object, std::string& error) {
    Message message;
    if (auto id = object.find("id"); id != object.end()) {
        if (!id->is_number_integer()) {
            error = "\"id\" is not an integer";
            return std::nullopt;
        }
        message.id = id->get<std::int64_t>();
    }
    if (auto reply = object.find("reply"); reply != object.end()) {
        if (!message.id || !reply->is_object()) {
            error = "a reply needs an integer \"id\" and an object \"reply\"";
            return std::nullopt;
        }
        message.isReply = true;
        message.arguments = *reply;
        return message;
    }
    auto selector = object.find("message");
    if (selector == object.end() || !selector->is_string() ||
        selector->get_ref<const std::string&>().empty()) {
        error = "no \"message\" selector";
        return std::nullopt;
    }
    message.message = selector->get<std::string>();
    auto arguments = object.find("arguments");
    if (arguments == object.end() || arguments->is_null()) {
        message.arguments = nlohmann::json::object();
    } else if (arguments->is_object()) {
        message.arguments = *arguments;
    } else {
        error = "\"arguments\" is not an object";
        return std::nullopt;
    }
    return message;
}

nlohmann::json Message::toJson() const {
    nlohmann::json object = nlohmann::json::object();
    if (id) {
        object["id"] = *id;
    }
    if (isReply) {
        object["reply"] = arguments.is_object() ? arguments : nlohmann::json::object();
    } else {
        object["message"] = message;
        object["arguments"] = arguments.is_object() ? arguments : nlohmann::json::object();
    }
    return object;
}

nlohmann::json errorObject(std::string_view domain, long long code, std::string_view description) {
    return {
        {"domain", std::string(domain)}, {"code", code}, {"description", std::string(description)}};
}

}  // namespace morvane::sys
