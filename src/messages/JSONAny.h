#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace morvane {

class CodingPath;
class JSONWriter;

/// JSON null inside a free-form value. All instances are equal and hash alike.
struct JSONNull {
    bool operator==(const JSONNull&) const = default;

    /// Succeeds on JSON null only: "Wrong type for JSONNull" otherwise.
    static JSONNull read(nlohmann::json& value, const CodingPath& path);
    void write(JSONWriter& out) const;
};

/// The key of an object of unknown shape. Keys are always text: one made from an integer
/// does not exist.
struct JSONCodingKey {
    explicit JSONCodingKey(std::string name) : key(std::move(name)) {}
    static std::optional<JSONCodingKey> fromInteger(std::int64_t) { return std::nullopt; }

    std::string key;

    bool operator==(const JSONCodingKey&) const = default;
};

/// A JSON value of no fixed shape, carried through decoding and storage without being
/// interpreted: the "data" of a server error. Numbers keep the kind they were written in, so
/// 1 stays an integer and 1.5 a double; an integer beyond the signed 64-bit range becomes a
/// double.
struct JSONAny {
    using List = std::vector<JSONAny>;
    using Dictionary = std::map<std::string, JSONAny>;
    using Value = std::variant<bool, std::int64_t, double, std::string, JSONNull, List, Dictionary>;

    Value value{};

    /// Fails with "Cannot decode JSONAny" for what no JSON text holds, and for nesting deeper
    /// than the coders accept.
    static JSONAny read(nlohmann::json& value, const CodingPath& path);
    /// Fails with "Cannot encode JSONAny" for a number JSON cannot hold (NaN, infinities).
    void write(JSONWriter& out) const;

    bool operator==(const JSONAny& other) const;
};

}  // namespace morvane

template <>
struct std::hash<morvane::JSONNull> {
    std::size_t operator()(const morvane::JSONNull&) const noexcept { return 0; }
};
