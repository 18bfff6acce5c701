#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "messages/RawValue.h"

// The strict JSON coding that every device server message shares.
//
// A record declares two hooks and nothing else:
//
//     static Device readFields(JSONObjectReader& in);   // one in.required/in.optional per key
//     void writeFields(JSONWriter& out) const;          // one out.field per key, keys ascending
//
// Free-form values (JSONAny, AnyCodable) instead declare
//
//     static T read(nlohmann::json& value, const CodingPath& path);
//     void write(JSONWriter& out) const;
//
// decodeJSON and encodeJSON are the only entry points; no exception leaves them.
//
// Decoding is strict: a required key that is missing or null fails the whole message, a value
// of the wrong JSON type fails it (digits in a string are not an integer, 5.0 is not an
// integer, a number beyond the signed 64-bit range is not an integer), an enumeration text
// outside its list fails it, and unknown keys are dropped. Encoding writes compact JSON with
// the keys of every object in ascending order and leaves absent optionals out.

namespace morvane {

class JSONObjectReader;
class JSONWriter;

/// Why a message could not be decoded or encoded. Thrown only inside the coders and turned
/// into an empty result by decodeJSON and encodeJSON.
class CodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where a value sits in a message. It is a chain of frames on the decoder's stack, so the
/// readable form ("$.result.cfg.runtime.locations[0].tag") is built only for an error text.
class CodingPath {
public:
    CodingPath() = default;
    CodingPath(const CodingPath& parent, std::string_view key)
        : parent_(&parent), key_(key), depth_(parent.depth_ + 1) {}
    CodingPath(const CodingPath& parent, std::size_t index)
        : parent_(&parent), index_(index), isIndex_(true), depth_(parent.depth_ + 1) {}

    /// Levels below the top of the message; free-form values use it to refuse nesting that
    /// would otherwise run the decoder out of stack.
    int depth() const { return depth_; }
    std::string text() const;

private:
    const CodingPath* parent_ = nullptr;
    std::string_view key_;
    std::size_t index_ = 0;
    bool isIndex_ = false;
    int depth_ = 0;
};

/// The deepest nesting a free-form value may have inside a message.
inline constexpr int kMaxCodingDepth = 128;

[[noreturn]] void throwCodingError(const CodingPath& path, std::string_view problem);
[[noreturn]] void throwTypeMismatch(const CodingPath& path, std::string_view expected,
                                    const nlohmann::json& found);

namespace coding {

template <typename T>
inline constexpr bool isVector = false;
template <typename T>
inline constexpr bool isVector<std::vector<T>> = true;

template <typename T>
inline constexpr bool isStringMap = false;
template <typename T>
inline constexpr bool isStringMap<std::map<std::string, T>> = true;

template <typename T>
concept ReadableRecord = requires(JSONObjectReader& in) {
    { T::readFields(in) } -> std::same_as<T>;
};

template <typename T>
concept WritableRecord = requires(const T& value, JSONWriter& out) {
    value.writeFields(out);
};

template <typename T>
concept ReadsItself = requires(nlohmann::json& json, const CodingPath& path) {
    { T::read(json, path) } -> std::same_as<T>;
};

template <typename T>
concept WritesItself = requires(const T& value, JSONWriter& out) {
    value.write(out);
};

std::int64_t decodeInteger(const nlohmann::json& value, const CodingPath& path);

template <typename T>
T decodeValue(nlohmann::json& value, const CodingPath& path);

template <typename T>
void encodeValue(JSONWriter& out, const T& value);

}  // namespace coding

/// The members of one JSON object, read strictly, one key at a time. Values are moved out of
/// the parsed document, which the decoder owns and throws away afterwards.
class JSONObjectReader {
public:
    JSONObjectReader(nlohmann::json& object, const CodingPath& path)
        : members_(object.get_ref<nlohmann::json::object_t&>()), path_(path) {}

    template <typename T>
    T required(std::string_view key) {
        CodingPath path(path_, key);
        nlohmann::json* value = member(key);
        if (value == nullptr) {
            throwCodingError(path, "required key is missing");
        }
        if (value->is_null()) {
            throwCodingError(path, "required value is null");
        }
        return coding::decodeValue<T>(*value, path);
    }

    /// A missing key and JSON null both read as absent.
    template <typename T>
    std::optional<T> optional(std::string_view key) {
        nlohmann::json* value = member(key);
        if (value == nullptr || value->is_null()) {
            return std::nullopt;
        }
        return coding::decodeValue<T>(*value, CodingPath(path_, key));
    }

private:
    nlohmann::json* member(std::string_view key) {
        auto found = members_.find(key);
        return found == members_.end() ? nullptr : &found->second;
    }

    nlohmann::json::object_t& members_;
    const CodingPath& path_;
};

/// Compact JSON text, written straight from the records without building a document first.
/// Keys must come in ascending order within each object; the writer refuses any other order,
/// so a record that lists its keys wrongly fails its encoding instead of writing unsorted text.
class JSONWriter {
public:
    JSONWriter() { text_.reserve(256); }

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    void key(std::string_view name);

    void null();
    void boolean(bool value);
    void integer(std::int64_t value);
    void unsignedInteger(std::uint64_t value);
    /// Throws for NaN and the infinities, which JSON cannot hold.
    void number(double value);
    /// Throws for text that is not valid UTF-8.
    void string(std::string_view value);

    template <typename T>
    void field(std::string_view name, const T& value) {
        key(name);
        coding::encodeValue(*this, value);
    }

    /// Absent optionals are left out, never written as null.
    template <typename T>
    void field(std::string_view name, const std::optional<T>& value) {
        if (value) {
            field(name, *value);
        }
    }

    std::string take() { return std::move(text_); }

private:
    void separate();

    std::string text_;
    // The last key written in each open object; empty for an object with none yet.
    std::vector<std::string_view> lastKeys_;
};

namespace coding {

template <typename T>
T decodeValue(nlohmann::json& value, const CodingPath& path) {
    if constexpr (std::same_as<T, std::string>) {
        if (!value.is_string()) {
            throwTypeMismatch(path, "a string", value);
        }
        return std::move(value.get_ref<std::string&>());
    } else if constexpr (std::same_as<T, std::int64_t>) {
        return decodeInteger(value, path);
    } else if constexpr (std::same_as<T, bool>) {
        if (!value.is_boolean()) {
            throwTypeMismatch(path, "a boolean", value);
        }
        return value.get<bool>();
    } else if constexpr (std::is_enum_v<T>) {
        if (!value.is_string()) {
            throwTypeMismatch(path, "a string", value);
        }
        const auto& raw = value.get_ref<const std::string&>();
        std::optional<T> parsed = enumFromRawValue<T>(raw);
        if (!parsed) {
            throwCodingError(path, "\"" + raw + "\" is not one of the known values");
        }
        return *parsed;
    } else if constexpr (isVector<T>) {
        if (!value.is_array()) {
            throwTypeMismatch(path, "an array", value);
        }
        auto& elements = value.get_ref<nlohmann::json::array_t&>();
        T result;
        result.reserve(elements.size());
        for (std::size_t i = 0; i < elements.size(); ++i) {
            result.push_back(decodeValue<typename T::value_type>(elements[i], CodingPath(path, i)));
        }
        return result;
    } else if constexpr (isStringMap<T>) {
        if (!value.is_object()) {
            throwTypeMismatch(path, "an object", value);
        }
        T result;
        for (auto& [name, member] : value.get_ref<nlohmann::json::object_t&>()) {
            result.emplace_hint(
                result.end(), name,
                decodeValue<typename T::mapped_type>(member, CodingPath(path, name)));
        }
        return result;
    } else if constexpr (ReadsItself<T>) {
        return T::read(value, path);
    } else {
        static_assert(ReadableRecord<T>, "not a type the message coders can read");
        if (!value.is_object()) {
            throwTypeMismatch(path, "an object", value);
        }
        JSONObjectReader reader(value, path);
        return T::readFields(reader);
    }
}

template <typename T>
void encodeValue(JSONWriter& out, const T& value) {
    if constexpr (std::same_as<T, std::string>) {
        out.string(value);
    } else if constexpr (std::same_as<T, std::int64_t>) {
        out.integer(value);
    } else if constexpr (std::same_as<T, bool>) {
        out.boolean(value);
    } else if constexpr (std::is_enum_v<T>) {
        out.string(rawValue(value));
    } else if constexpr (isVector<T>) {
        out.beginArray();
        for (const auto& element : value) {
            encodeValue(out, element);
        }
        out.endArray();
    } else if constexpr (isStringMap<T>) {
        out.beginObject();
        for (const auto& [name, member] : value) {
            out.field(name, member);
        }
        out.endObject();
    } else if constexpr (WritesItself<T>) {
        value.write(out);
    } else {
        static_assert(WritableRecord<T>, "not a type the message coders can write");
        out.beginObject();
        value.writeFields(out);
        out.endObject();
    }
}

}  // namespace coding

/// True when the bytes are well-formed UTF-8 (no overlong forms, no surrogates), the test
/// the coders apply to every text they write.
bool isValidUTF8(std::string_view text);

/// Decodes one message from UTF-8 JSON bytes. Any failure gives nothing at all, never a partial
/// record; `error`, when given, receives the reason.
template <typename T>
std::optional<T> decodeJSON(std::string_view bytes, std::string* error = nullptr) {
    try {
        nlohmann::json document = nlohmann::json::parse(bytes);
        return coding::decodeValue<T>(document, CodingPath());
    } catch (const std::exception& failure) {
        if (error != nullptr) {
            *error = failure.what();
        }
        return std::nullopt;
    }
}

/// Encodes one message as compact UTF-8 JSON with ascending keys. Fails (nothing, with the
/// reason in `error`) when the record holds something JSON cannot express.
template <typename T>
std::optional<std::string> encodeJSON(const T& value, std::string* error = nullptr) {
    try {
        JSONWriter out;
        coding::encodeValue(out, value);
        return out.take();
    } catch (const std::exception& failure) {
        if (error != nullptr) {
            *error = failure.what();
        }
        return std::nullopt;
    }
}

}  // namespace morvane
