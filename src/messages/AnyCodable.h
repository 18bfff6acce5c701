#pragma once

#include <any>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace morvane {

class CodingPath;
class JSONWriter;

/// One JSON value of any type, held as `std::any` so that the dictionary form of a forwarding
/// rule can carry whatever the rule's JSON holds.
///
/// After decoding, `value` is empty for JSON null, or a `bool`, `std::int64_t` (integers that
/// fit), `std::uint64_t` (larger unsigned ones), `double`, `std::string`, `List` or
/// `Dictionary`; list and dictionary elements are plain values, not AnyCodable. Encoding also
/// accepts the other integer widths, `float`, a date (`std::chrono::system_clock::time_point`,
/// written as ISO 8601 text) and a URL (`std::filesystem::path`, written as its text). A value
/// of any other type can be stored; it fails when encoded, not before.
struct AnyCodable {
    using List = std::vector<std::any>;
    using Dictionary = std::map<std::string, std::any>;

    std::any value;

    AnyCodable() = default;
    AnyCodable(std::nullptr_t) {}
    AnyCodable(bool flag) : value(flag) {}
    template <std::integral Integer>
    requires(!std::same_as<Integer, bool>) AnyCodable(Integer number) {
        if constexpr (std::signed_integral<Integer>) {
            value = static_cast<std::int64_t>(number);
        } else {
            value = static_cast<std::uint64_t>(number);
        }
    }
    AnyCodable(double number) : value(number) {}
    AnyCodable(const char* text) : value(std::string(text)) {}
    AnyCodable(std::string text) : value(std::move(text)) {}
    AnyCodable(const std::vector<AnyCodable>& list);
    AnyCodable(const std::map<std::string, AnyCodable>& dictionary);
    /// Holds `any` as it is, whatever its type.
    explicit AnyCodable(std::any any) : value(std::move(any)) {}

    /// Fails with "AnyCodable value cannot be decoded" for what no JSON text holds, and for
    /// nesting deeper than the coders accept.
    static AnyCodable read(nlohmann::json& json, const CodingPath& path);
    /// Fails with "AnyCodable value cannot be encoded" for a type outside the list above, and
    /// for numbers JSON cannot hold (NaN, infinities).
    void write(JSONWriter& out) const;

    /// "nil" for null; the value's own text otherwise, lists and dictionaries in brackets.
    std::string description() const;
    /// "AnyCodable(" + the value's debug text (text quoted) + ")".
    std::string debugDescription() const;

    /// Equal when both are null, or hold the same scalar type with the same value, or are both
    /// lists or both dictionaries with equal elements: 1 and 1.0 differ.
    bool operator==(const AnyCodable& other) const;
};

}  // namespace morvane
