#include "ip/IPv6.h"

#include <unicode/uregex.h>

#include "ip/AddressPatterns.h"
#include "ip/IPv4.h"
#include "ip/TextHelpers.h"

namespace morvane::ip {

namespace patterns {

const Regex& ipv6Malformed() {
    static const Regex pattern(R"(([0-9a-f]{5,}|:{3,}|[^:]:$|^:[^:]|\/$))",
                               UREGEX_CASE_INSENSITIVE);
    return pattern;
}

bool mayBeMalformed(const icu::UnicodeString& text) {
    const int32_t length = text.length();
    if (length == 0) {
        return false;
    }
    int hexRun = 0;
    int colonRun = 0;
    for (int32_t i = 0; i < length; ++i) {
        const char16_t c = text.charAt(i);
        if (c >= 0x80) {
            // Case folding may make more of other scripts; leave those to the matcher.
            return true;
        }
        const bool hex =
            (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
        hexRun = hex ? hexRun + 1 : 0;
        colonRun = c == u':' ? colonRun + 1 : 0;
        if (hexRun >= 5 || colonRun >= 3) {
            return true;
        }
    }
    const char16_t first = text.charAt(0);
    const char16_t last = text.charAt(length - 1);
    if (last == u'/' || last == u'\n' || last == u'\r' || last == u'\v' || last == u'\f') {
        return true;  // line ends are where "$" may also match
    }
    if (length >= 2 && last == u':' && text.charAt(length - 2) != u':') {
        return true;
    }
    return length >= 2 && first == u':' && text.charAt(1) != u':';
}

}  // namespace patterns

namespace {

const Regex& subnetPattern() {
    static const Regex pattern(R"(\/\d{1,3}(?=%|$))");
    return pattern;
}

const Regex& zonePattern() {
    static const Regex pattern(R"(%.*$)");
    return pattern;
}

const Regex& leadingZeroPattern() {
    static const Regex pattern(R"(^0[0-9]+)");
    return pattern;
}

const Regex& badCharacterPattern() {
    static const Regex pattern(R"(([^0-9a-f:\/%]))", UREGEX_CASE_INSENSITIVE);
    return pattern;
}

const Regex& compactAlonePattern() {
    static const Regex pattern("^compact$");
    return pattern;
}

const Regex& compactAtEndPattern() {
    static const Regex pattern("^compact|compact$");
    return pattern;
}

const Regex& compactPattern() {
    static const Regex pattern("compact");
    return pattern;
}

const std::vector<std::string>& noGroups() {
    static const std::vector<std::string> empty;
    return empty;
}

}  // namespace

IPv6::IPv6(std::string_view address, int groups)
    : address_(address), groups_(static_cast<uint8_t>(groups)) {
    icu::UnicodeString text = text::fromUtf8(address);
    if (const auto match = subnetPattern().find(text)) {
        const icu::UnicodeString digits(text, match->start + 1, match->end - match->start - 1);
        parsedSubnet_ = text::toUtf8(digits);
        const int value = text::digitsValue(digits);
        if (value > 128) {
            error_ = "Invalid subnet mask";
            return;
        }
        subnetMask_ = static_cast<uint8_t>(value);
        subnet_ = "/" + std::to_string(value);
        // A zone written behind the suffix goes with it.
        text.truncate(match->start);
    } else if (text.indexOf(u'/') >= 0) {
        error_ = "Invalid subnet mask";
        return;
    }
    if (const auto match = zonePattern().find(text)) {
        zone_ = text::toUtf8(icu::UnicodeString(text, match->start, match->end - match->start));
        text.truncate(match->start);
    }
    addressMinusSuffix_ = text::toUtf8(text);
    parsedAddress_ = parse(text);
}

icu::UnicodeString IPv6::parsev4inv6(const icu::UnicodeString& address) {
    // The last ":"-separated piece, replaced in place when it is a dotted address.
    const int32_t start = address.lastIndexOf(u':') + 1;
    const icu::UnicodeString last(address, start);
    if (!patterns::ipv4Address().find(last)) {
        return address;
    }
    const IPv4 tail(text::toUtf8(last));
    for (const std::string& group : tail.parsedAddress()) {
        if (leadingZeroPattern().find(text::fromUtf8(group))) {
            error_ = "IPv4 addresses cannot have leading zeroes";
            return address;
        }
    }
    v4_ = true;
    icu::UnicodeString replaced(address, 0, start);
    return replaced.append(text::fromUtf8(tail.v6Group()));
}

std::optional<std::vector<std::string>> IPv6::parse(const icu::UnicodeString& address) {
    const icu::UnicodeString text = parsev4inv6(address);
    if (error_) {
        return std::nullopt;
    }

    const std::vector<icu::UnicodeString> bad = badCharacterPattern().findAll(text);
    if (!bad.empty()) {
        icu::UnicodeString characters;
        for (const icu::UnicodeString& c : bad) {
            characters.append(c);
        }
        error_ = std::string("Bad character") + (bad.size() >= 2 ? "s" : "") +
                 " detected in address: " + text::toUtf8(characters);
        return std::nullopt;
    }

    const std::vector<icu::UnicodeString> malformed = patterns::mayBeMalformed(text)
                                                          ? patterns::ipv6Malformed().findAll(text)
                                                          : std::vector<icu::UnicodeString>{};
    if (!malformed.empty()) {
        std::vector<std::string> pieces;
        for (const icu::UnicodeString& piece : malformed) {
            pieces.push_back(text::toUtf8(piece));
        }
        error_ = "Address failed regex: " + text::join(pieces, " ");
        return std::nullopt;
    }

    const std::vector<icu::UnicodeString> halves = text::split(text, u"::");
    std::vector<icu::UnicodeString> pieces;
    if (halves.size() == 2) {
        auto groupsOf = [](const icu::UnicodeString& half) {
            return half.isEmpty() ? std::vector<icu::UnicodeString>{} : text::split(half, u":");
        };
        const std::vector<icu::UnicodeString> first = groupsOf(halves[0]);
        const std::vector<icu::UnicodeString> second = groupsOf(halves[1]);
        const int elided =
            static_cast<int>(groups_) - static_cast<int>(first.size() + second.size());
        if (elided == 0) {
            error_ = "Error parsing groups";
            return std::nullopt;
        }
        elidedGroups_ = static_cast<uint8_t>(elided);
        elisionBegin_ = static_cast<uint8_t>(first.size());
        elisionEnd_ = static_cast<uint8_t>(elisionBegin_ + elidedGroups_);
        pieces = first;
        for (int i = 0; i < elided; ++i) {
            pieces.emplace_back(u"0");
        }
        pieces.insert(pieces.end(), second.begin(), second.end());
    } else if (halves.size() == 1) {
        pieces = text::split(text, u":");
        elidedGroups_ = 0;
    } else {
        error_ = "Too many :: groups found";
        return std::nullopt;
    }

    std::vector<std::string> groups;
    groups.reserve(pieces.size());
    for (const icu::UnicodeString& piece : pieces) {
        groups.push_back(text::hex(text::leadingHex(piece)));
    }
    if (groups.size() != groups_) {
        error_ = "Incorrect number of groups found";
        return std::nullopt;
    }
    valid_ = true;
    return groups;
}

const std::vector<std::string>& IPv6::parsedAddress() const {
    return parsedAddress_ ? *parsedAddress_ : noGroups();
}

std::vector<uint16_t> IPv6::groupValues() const {
    std::vector<uint16_t> values;
    for (const std::string& group : parsedAddress()) {
        values.push_back(static_cast<uint16_t>(text::leadingHex(group)));
    }
    return values;
}

std::vector<std::string> IPv6::compact(const std::vector<std::string>& groups,
                                       std::pair<int, int> slice) {
    std::vector<std::string> result(groups.begin(), groups.begin() + slice.first);
    result.emplace_back("compact");
    result.insert(result.end(), groups.begin() + slice.second + 1, groups.end());
    return result;
}

std::optional<std::string> IPv6::correctForm() const {
    if (!parsedAddress_) {
        return std::nullopt;
    }
    const std::vector<std::string>& groups = *parsedAddress_;
    // The longest run of two or more zero groups, the first of equal ones.
    std::optional<std::pair<int, int>> longest;
    const int count = static_cast<int>(groups.size());
    for (int i = 0; i < count;) {
        if (groups[static_cast<size_t>(i)] != "0") {
            ++i;
            continue;
        }
        int last = i;
        while (last + 1 < count && groups[static_cast<size_t>(last + 1)] == "0") {
            ++last;
        }
        if (last > i && (!longest || last - i > longest->second - longest->first)) {
            longest = std::make_pair(i, last);
        }
        i = last + 1;
    }
    if (!longest) {
        return text::join(groups, ":");
    }
    icu::UnicodeString joined = text::fromUtf8(text::join(compact(groups, *longest), ":"));
    joined = compactAlonePattern().replaceAll(joined, u"::");
    joined = compactAtEndPattern().replaceAll(joined, u":");
    joined = compactPattern().replaceAll(joined, u"");
    return text::toUtf8(joined);
}

bool IPv6::correct() const {
    return correctWith(addressMinusSuffix_, 128);
}

bool IPv6::canonical() const {
    return addressMinusSuffix_ && *addressMinusSuffix_ == canonicalForm();
}

std::string IPv6::canonicalForm() const {
    std::vector<std::string> groups;
    for (uint16_t value : groupValues()) {
        groups.push_back(text::hex(value, 4));
    }
    return text::join(groups, ":");
}

std::optional<std::string> IPv6::decimal() const {
    if (!valid_) {
        return std::nullopt;
    }
    std::vector<std::string> groups;
    for (uint16_t value : groupValues()) {
        groups.push_back(text::decimal(value, 5));
    }
    return text::join(groups, ":");
}

BigInt IPv6::bigInteger() const {
    if (!valid_) {
        return BigInt();
    }
    // Two groups to a word, most significant first, as the radix-16 text would read.
    const std::vector<uint16_t> values = groupValues();
    std::vector<uint32_t> words((values.size() + 1) / 2);
    for (size_t i = 0; i < values.size(); ++i) {
        const size_t fromEnd = values.size() - 1 - i;
        words[words.size() - 1 - fromEnd / 2] |= static_cast<uint32_t>(values[i])
                                                 << (16 * (fromEnd % 2));
    }
    return BigInt::createWithUIntArray(words);
}

std::string IPv6::binaryZeroPad() const {
    return stringByPaddingLeftToLength(bigInteger().toStringWithRadix(2), 128, "0");
}

IPv6 IPv6::fromBigInteger(const BigInt& value) {
    std::string digits = value.toStringWithRadix(16);
    for (char& c : digits) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    digits = stringByPaddingLeftToLength(digits, 32, "0");
    std::vector<std::string> groups;
    for (size_t i = 0; i < digits.size(); i += 4) {
        groups.push_back(digits.substr(i, 4));
    }
    return IPv6(text::join(groups, ":"));
}

std::shared_ptr<const IPBaseAddress> IPv6::startAddress() const {
    return std::make_shared<IPv6>(
        fromBigInteger(BigInt::createWithString(maskFilledWith('0', 128), 2)));
}

std::shared_ptr<const IPBaseAddress> IPv6::endAddress() const {
    return std::make_shared<IPv6>(
        fromBigInteger(BigInt::createWithString(maskFilledWith('1', 128), 2)));
}

BigInt IPv6::bitsWithStart(int start, int end) const {
    const std::string bits = bitsBase2WithStart(start, end);
    return bits.empty() ? BigInt() : BigInt::createWithString(bits, 2);
}

std::optional<std::string> IPv6::bitsBase16WithStart(int start, int end) const {
    if ((end - start) % 4 != 0) {
        return std::nullopt;
    }
    const std::string bits = bitsBase2WithStart(start, end);
    if (bits.empty()) {
        return std::string();
    }
    return stringByPaddingLeftToLength(BigInt::createWithString(bits, 2).toStringWithRadix(16),
                                       (end - start) / 4, "0");
}

std::optional<std::string> IPv6::v4inv6() const {
    const std::vector<uint16_t> values = groupValues();
    if (!valid_ || values.size() < 8) {
        return std::nullopt;
    }
    std::vector<std::string> head(parsedAddress_->begin(), parsedAddress_->begin() + 6);
    std::string form = IPv6(text::join(head, ":"), 6).correctForm().value_or("");
    if (form.empty() || form.back() != ':') {
        form.push_back(':');
    }
    const uint32_t tail = (static_cast<uint32_t>(values[6]) << 16) | values[7];
    return form + IPv4::ipv4FromInteger(tail).address();
}

std::string IPv6::reversedForm() const {
    std::string digits;
    for (char c : canonicalForm()) {
        if (c != ':') {
            digits.push_back(c);
        }
    }
    digits.resize(std::min(digits.size(), static_cast<size_t>(subnetMask_ / 4)));
    std::string out;
    for (auto it = digits.rbegin(); it != digits.rend(); ++it) {
        out.push_back(*it);
        out.push_back('.');
    }
    if (out.empty() || out.back() != '.') {
        out.push_back('.');
    }
    return out + "ip6.arpa.";
}

std::vector<uint8_t> IPv6::data() const {
    std::vector<uint8_t> bytes(16, 0);
    const BigInt value = bigInteger();
    for (int i = 0; i < 16; ++i) {
        const uint32_t word = value.getDataAtIndex(3 - i / 4);
        bytes[static_cast<size_t>(i)] = static_cast<uint8_t>(word >> (24 - 8 * (i % 4)));
    }
    return bytes;
}

}  // namespace morvane::ip
