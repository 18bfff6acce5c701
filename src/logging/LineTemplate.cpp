#include "logging/LineTemplate.h"

#include <unicode/uchar.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "logging/Utf8.h"

namespace morvane::logging {

namespace {

// A wider column is taken for a typing error rather than a layout: it would cost a line of
// many megabytes.
constexpr long long kMaxPadding = 10000;

// The piece kind of a format character; none for a character that is no code.
std::optional<LineTemplate::Code> codeFor(char character) {
    using Code = LineTemplate::Code;
    switch (character) {
        case 'I':
            return Code::literal;
        case 'L':
            return Code::level;
        case 'M':
            return Code::message;
        case 'T':
            return Code::thread;
        case 'N':
            return Code::fileName;
        case 'n':
            return Code::fileNameWithSuffix;
        case 'F':
            return Code::function;
        case 'l':
            return Code::line;
        case 'D':
            return Code::date;
        case 'd':
            return Code::literal;
        case 'U':
            return Code::uptime;
        case 'Z':
            return Code::zonedDate;
        case 'z':
            return Code::literal;
        case 'C':
            return Code::color;
        case 'c':
            return Code::reset;
        case 'X':
            return Code::context;
        default:
            return std::nullopt;
    }
}

bool isTrailingWhitespace(char32_t c) {
    if (c == '\t' || c == '\n' || c == '\f' || c == '\r' || c == ' ') {
        return true;
    }
    if (c < 0x80) {
        return false;
    }
    const auto type = u_charType(static_cast<UChar32>(c));
    return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

}  // namespace

LineTemplate::LineTemplate(std::string_view format) {
    json_ = format.substr(0, 2) == "$J";
    // The leading "$I" lets text ahead of the first "$" come out as a literal piece.
    std::string full = "$I";
    full.append(format);
    std::size_t start = 0;
    while (start <= full.size()) {
        const std::size_t dollar = full.find('$', start);
        const std::size_t end = dollar == std::string::npos ? full.size() : dollar;
        if (end > start) {
            addPiece(std::string_view(full).substr(start, end - start));
        }
        start = end + 1;
    }
}

void LineTemplate::addPiece(std::string_view piece) {
    const bool negative = piece.front() == '-';
    const std::size_t digitsStart = negative ? 1 : 0;
    std::size_t digitsEnd = digitsStart;
    while (digitsEnd < piece.size() && piece[digitsEnd] >= '0' && piece[digitsEnd] <= '9') {
        ++digitsEnd;
    }

    int padding = 0;
    std::size_t offset = 0;
    if (digitsEnd > digitsStart) {
        long long value = 0;
        bool fits = true;
        for (std::size_t i = digitsStart; i < digitsEnd && fits; ++i) {
            value = value * 10 + (piece[i] - '0');
            fits = value <= kMaxPadding;
        }
        if (fits) {
            padding = static_cast<int>(negative ? -value : value);
            offset = digitsEnd;
        }
    }

    const auto code = offset < piece.size() ? codeFor(piece[offset]) : std::nullopt;
    Piece result;
    if (code) {
        result.code = *code;
        result.padding = *code == Code::literal ? 0 : padding;
        result.text = std::string(piece.substr(offset + 1));
    } else {
        // An unknown character, or a width with no character after it, comes out whole:
        // only the "$" is lost.
        result.text = std::string(piece);
    }

    if (result.code == Code::literal && !pieces_.empty() && pieces_.back().code == Code::literal) {
        pieces_.back().text += result.text;
    } else if (result.code != Code::literal || !result.text.empty()) {
        pieces_.push_back(std::move(result));
    }
}

void LineTemplate::appendPadded(std::string& out, std::string_view text, int width) {
    const std::size_t target = width < 0 ? static_cast<std::size_t>(-static_cast<long long>(width))
                                         : static_cast<std::size_t>(width);
    const std::size_t length = target == 0 ? 0 : utf8::countCharacters(text);
    const std::size_t blanks = length < target ? target - length : 0;
    if (width > 0) {
        out.append(blanks, ' ');
    }
    out.append(text);
    if (width < 0) {
        out.append(blanks, ' ');
    }
}

void LineTemplate::removeTrailingWhitespace(std::string& text) {
    const std::string_view view(text);
    std::size_t end = view.size();
    while (end > 0) {
        const std::size_t start = utf8::previousStart(view, end);
        char32_t c = 0;
        if (utf8::decode(view, start, c) != end - start || !isTrailingWhitespace(c)) {
            break;
        }
        end = start;
    }
    text.resize(end);
}

}  // namespace morvane::logging
