#include "messages/JSONCoding.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace morvane {

namespace {

std::string_view describe(const nlohmann::json& value) {
    switch (value.type()) {
        case nlohmann::json::value_t::number_float:
            return "a floating-point number";
        case nlohmann::json::value_t::number_integer:
        case nlohmann::json::value_t::number_unsigned:
            return "an integer";
        case nlohmann::json::value_t::string:
            return "a string";
        case nlohmann::json::value_t::boolean:
            return "a boolean";
        case nlohmann::json::value_t::null:
            return "null";
        case nlohmann::json::value_t::array:
            return "an array";
        case nlohmann::json::value_t::object:
            return "an object";
        default:
            return "a value JSON text cannot hold";
    }
}

// Length of the well-formed UTF-8 sequence at the start of `text`, or 0 when it is not one:
// no overlong forms, no surrogates, nothing above U+10FFFF.
std::size_t utf8SequenceLength(std::string_view text) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    auto continuation = [&](std::size_t i, unsigned char low = 0x80, unsigned char high = 0xBF) {
        return i < text.size() && byte(i) >= low && byte(i) <= high;
    };
    unsigned char lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return continuation(1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
        unsigned char high = lead == 0xED ? 0x9F : 0xBF;
        return continuation(1, low, high) && continuation(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
        unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
        return continuation(1, low, high) && continuation(2) && continuation(3) ? 4 : 0;
    }
    return 0;
}

// The escape for a byte that may not stand as itself inside a JSON string, or empty when it
// may. Control characters without a short form become \u00XX in lower-case hex, the form the
// JSON library writes, so that a stored file reads back and re-encodes byte for byte.
std::string_view escapeFor(unsigned char c, char (&scratch)[7]) {
    switch (c) {
        case '"':
            return "\\\"";
        case '\\':
            return "\\\\";
        case '\b':
            return "\\b";
        case '\f':
            return "\\f";
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            break;
    }
    if (c >= 0x20) {
        return {};
    }
    constexpr char hex[] = "0123456789abcdef";
    scratch[0] = '\\';
    scratch[1] = 'u';
    scratch[2] = '0';
    scratch[3] = '0';
    scratch[4] = hex[c >> 4];
    scratch[5] = hex[c & 0x0F];
    return {scratch, 6};
}

}  // namespace

bool isValidUTF8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = utf8SequenceLength(text.substr(i));
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

std::string CodingPath::text() const {
    if (parent_ == nullptr) {
        return "$";
    }
    std::string text = parent_->text();
    if (isIndex_) {
        text += '[';
        text += std::to_string(index_);
        text += ']';
    } else {
        text += '.';
        text += key_;
    }
    return text;
}

void throwCodingError(const CodingPath& path, std::string_view problem) {
    std::string message = path.text();
    message += ": ";
    message += problem;
    throw CodingError(message);
}

void throwTypeMismatch(const CodingPath& path, std::string_view expected,
                       const nlohmann::json& found) {
    std::string problem = "expected ";
    problem += expected;
    problem += ", found ";
    problem += describe(found);
    throwCodingError(path, problem);
}

namespace coding {

std::int64_t decodeInteger(const nlohmann::json& value, const CodingPath& path) {
    // The parser keeps non-negative integers as unsigned; those above the signed range are
    // refused rather than wrapped.
    if (value.is_number_unsigned()) {
        auto number = value.get<std::uint64_t>();
        if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            throwCodingError(path, "integer out of the signed 64-bit range");
        }
        return static_cast<std::int64_t>(number);
    }
    if (!value.is_number_integer()) {
        throwTypeMismatch(path, "an integer", value);
    }
    return value.get<std::int64_t>();
}

}  // namespace coding

void JSONWriter::separate() {
    if (text_.empty()) {
        return;
    }
    char last = text_.back();
    if (last != '{' && last != '[' && last != ':') {
        text_ += ',';
    }
}

void JSONWriter::beginObject() {
    separate();
    text_ += '{';
    lastKeys_.emplace_back();
}

void JSONWriter::endObject() {
    lastKeys_.pop_back();
    text_ += '}';
}

void JSONWriter::beginArray() {
    separate();
    text_ += '[';
}

void JSONWriter::endArray() {
    text_ += ']';
}

void JSONWriter::key(std::string_view name) {
    std::string_view& last = lastKeys_.back();
    if (!last.empty() && name <= last) {
        throw std::logic_error("key \"" + std::string(name) + "\" written after \"" +
                               std::string(last) + "\": keys must ascend");
    }
    last = name;
    string(name);
    text_ += ':';
}

void JSONWriter::null() {
    separate();
    text_ += "null";
}

void JSONWriter::boolean(bool value) {
    separate();
    text_ += value ? "true" : "false";
}

void JSONWriter::integer(std::int64_t value) {
    separate();
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    text_.append(digits, end);
}

void JSONWriter::unsignedInteger(std::uint64_t value) {
    separate();
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    text_.append(digits, end);
}

void JSONWriter::number(double value) {
    if (!std::isfinite(value)) {
        throw CodingError("a number that is not finite cannot be written as JSON");
    }
    separate();
    // The JSON library's shortest round-trip form, so that numbers read back unchanged.
    text_ += nlohmann::json(value).dump();
}

void JSONWriter::string(std::string_view value) {
    separate();
    text_ += '"';
    char scratch[7];
    std::size_t plain = 0;  // start of the run of bytes that go out as they are
    for (std::size_t i = 0; i < value.size();) {
        auto c = static_cast<unsigned char>(value[i]);
        if (c >= 0x80) {
            std::size_t length = utf8SequenceLength(value.substr(i));
            if (length == 0) {
                throw CodingError("text is not valid UTF-8");
            }
            i += length;
            continue;
        }
        std::string_view escape = escapeFor(c, scratch);
        if (!escape.empty()) {
            text_.append(value.substr(plain, i - plain));
            text_ += escape;
            plain = i + 1;
        }
        ++i;
    }
    text_.append(value.substr(plain));
    text_ += '"';
}

}  // namespace morvane
