#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace morvane::logging {

/// A line template parsed once into the pieces that render it, so that a line costs one walk
/// over a short list instead of a parse of the template.
///
/// "$" starts a piece; an optional signed width follows, then one format character, then
/// literal text up to the next "$". Text ahead of the first "$" is literal. A width above
/// 10000 is not read as one: the piece then starts with its digits.
class LineTemplate {
public:
    enum class Code {
        literal,             // text only
        level,               // $L
        message,             // $M
        thread,              // $T
        fileName,            // $N: file name without suffix
        fileNameWithSuffix,  // $n
        function,            // $F
        line,                // $l
        date,                // $D: text is the date pattern, not output
        uptime,              // $U
        zonedDate,           // $Z: like $D, after switching the formatter to UTC
        color,               // $C: escape and level colour, never padded
        reset,               // $c: reset text, never padded
        context,             // $X
    };

    struct Piece {
        Code code = Code::literal;
        int padding = 0;
        /// Literal text appended after the value; for date pieces the date pattern.
        std::string text;
    };

    explicit LineTemplate(std::string_view format = {});

    /// A template starting with "$J" renders the JSON form and ignores the rest.
    bool isJSON() const { return json_; }
    const std::vector<Piece>& pieces() const { return pieces_; }

    /// Blanks before (positive width) or after (negative width) the text up to the width in
    /// characters; a longer text stays whole.
    static void appendPadded(std::string& out, std::string_view text, int width);
    /// Drops trailing white space: tab, line feed, form feed, carriage return and the Unicode
    /// separators.
    static void removeTrailingWhitespace(std::string& text);

private:
    void addPiece(std::string_view piece);

    std::vector<Piece> pieces_;
    bool json_ = false;
};

}  // namespace morvane::logging
