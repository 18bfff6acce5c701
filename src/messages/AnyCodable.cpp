#include "messages/AnyCodable.h"

#include <cxxabi.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <memory>
#include <string_view>
#include <type_traits>

#include "messages/JSONCoding.h"

namespace morvane {

namespace {

using Date = std::chrono::system_clock::time_point;
using URL = std::filesystem::path;

template <typename... Types>
struct TypeList {};

// Every scalar type a value may hold and still be encoded.
using Scalars = TypeList<bool, signed char, short, int, long, long long, unsigned char,
                         unsigned short, unsigned int, unsigned long, unsigned long long, float,
                         double, std::string, Date, URL>;

// Calls `visit` with the value when `any` holds one of the scalar types; false otherwise.
template <typename Visit, typename... Types>
bool visitScalar(const std::any& any, Visit&& visit, TypeList<Types...> /*types*/) {
    return ([&] {
        if (const auto* held = std::any_cast<Types>(&any)) {
            visit(*held);
            return true;
        }
        return false;
    }() || ...);
}

template <typename Visit>
bool visitScalar(const std::any& any, Visit&& visit) {
    return visitScalar(any, std::forward<Visit>(visit), Scalars{});
}

// An AnyCodable stored inside a list or dictionary stands for the value it holds.
const std::any& unwrapped(const std::any& any) {
    const std::any* current = &any;
    while (const auto* inner = std::any_cast<AnyCodable>(current)) {
        current = &inner->value;
    }
    return *current;
}

// The shortest text that reads back as the same number; a whole number keeps a ".0" so that
// it still reads as a floating-point value.
template <typename Float>
std::string shortestText(Float number) {
    char digits[64];
    auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    std::string text(digits, end);
    if (std::isfinite(number) && text.find_first_of(".e") == std::string::npos) {
        text += ".0";
    }
    return text;
}

std::string iso8601(Date date) {
    using namespace std::chrono;
    auto seconds = floor<std::chrono::seconds>(date);
    auto day = floor<days>(seconds);
    year_month_day calendar(day);
    hh_mm_ss time(seconds - day);
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ",
                  static_cast<int>(calendar.year()), static_cast<unsigned>(calendar.month()),
                  static_cast<unsigned>(calendar.day()), static_cast<int>(time.hours().count()),
                  static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
    return text;
}

std::string quotedText(std::string_view text) {
    std::string result = "\"";
    for (char c : text) {
        switch (c) {
            case '"':
                result += "\\\"";
                break;
            case '\\':
                result += "\\\\";
                break;
            case '\n':
                result += "\\n";
                break;
            case '\r':
                result += "\\r";
                break;
            case '\t':
                result += "\\t";
                break;
            default:
                result += c;
        }
    }
    return result + "\"";
}

std::string typeName(const std::type_info& type) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
    return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

[[noreturn]] void cannotEncode() {
    throw CodingError("AnyCodable value cannot be encoded");
}

std::any readAny(nlohmann::json& json, const CodingPath& path) {
    using Kind = nlohmann::json::value_t;
    if (path.depth() > kMaxCodingDepth) {
        throwCodingError(path, "AnyCodable value cannot be decoded: nested too deeply");
    }
    switch (json.type()) {
        case Kind::null:
            return {};
        case Kind::boolean:
            return json.get<bool>();
        case Kind::number_integer:
            return json.get<std::int64_t>();
        case Kind::number_unsigned: {
            auto number = json.get<std::uint64_t>();
            if (number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                return static_cast<std::int64_t>(number);
            }
            return number;
        }
        case Kind::number_float:
            return json.get<double>();
        case Kind::string:
            return std::move(json.get_ref<std::string&>());
        case Kind::array: {
            auto& elements = json.get_ref<nlohmann::json::array_t&>();
            AnyCodable::List list;
            list.reserve(elements.size());
            for (std::size_t i = 0; i < elements.size(); ++i) {
                list.push_back(readAny(elements[i], CodingPath(path, i)));
            }
            return list;
        }
        case Kind::object: {
            AnyCodable::Dictionary dictionary;
            for (auto& [name, member] : json.get_ref<nlohmann::json::object_t&>()) {
                dictionary.emplace_hint(dictionary.end(), name,
                                        readAny(member, CodingPath(path, name)));
            }
            return dictionary;
        }
        default:
            throwCodingError(path, "AnyCodable value cannot be decoded");
    }
}

void writeAny(JSONWriter& out, const std::any& raw) {
    const std::any& any = unwrapped(raw);
    if (!any.has_value()) {
        out.null();
        return;
    }
    if (const auto* list = std::any_cast<AnyCodable::List>(&any)) {
        out.beginArray();
        for (const std::any& element : *list) {
            writeAny(out, element);
        }
        out.endArray();
        return;
    }
    if (const auto* dictionary = std::any_cast<AnyCodable::Dictionary>(&any)) {
        out.beginObject();
        for (const auto& [name, member] : *dictionary) {
            out.key(name);
            writeAny(out, member);
        }
        out.endObject();
        return;
    }
    bool known = visitScalar(any, [&out](const auto& held) {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, bool>) {
            out.boolean(held);
        } else if constexpr (std::is_integral_v<Held> && std::is_signed_v<Held>) {
            out.integer(held);
        } else if constexpr (std::is_integral_v<Held>) {
            out.unsignedInteger(held);
        } else if constexpr (std::is_floating_point_v<Held>) {
            if (!std::isfinite(held)) {
                cannotEncode();
            }
            // A float goes out with the digits it was written with, not the binary
            // expansion of its widening to double.
            double number = held;
            if constexpr (std::is_same_v<Held, float>) {
                std::string digits = shortestText(held);
                std::from_chars(digits.data(), digits.data() + digits.size(), number);
            }
            out.number(number);
        } else if constexpr (std::is_same_v<Held, std::string>) {
            out.string(held);
        } else if constexpr (std::is_same_v<Held, Date>) {
            out.string(iso8601(held));
        } else {
            out.string(held.string());
        }
    });
    if (!known) {
        cannotEncode();
    }
}

bool equalAny(const std::any& rawLeft, const std::any& rawRight);

template <typename Container, typename Same>
bool equalElements(const Container& left, const std::any& right, Same same) {
    const auto* other = std::any_cast<Container>(&right);
    if (other == nullptr || left.size() != other->size()) {
        return false;
    }
    return std::equal(left.begin(), left.end(), other->begin(), same);
}

bool equalAny(const std::any& rawLeft, const std::any& rawRight) {
    const std::any& left = unwrapped(rawLeft);
    const std::any& right = unwrapped(rawRight);
    if (!left.has_value() || !right.has_value()) {
        return !left.has_value() && !right.has_value();
    }
    if (const auto* list = std::any_cast<AnyCodable::List>(&left)) {
        return equalElements(*list, right, equalAny);
    }
    if (const auto* dictionary = std::any_cast<AnyCodable::Dictionary>(&left)) {
        return equalElements(*dictionary, right, [](const auto& l, const auto& r) {
            return l.first == r.first && equalAny(l.second, r.second);
        });
    }
    bool equal = false;
    visitScalar(left, [&](const auto& held) {
        const auto* other = std::any_cast<std::decay_t<decltype(held)>>(&right);
        equal = other != nullptr && held == *other;
    });
    return equal;
}

std::string describeAny(const std::any& raw, bool debug) {
    const std::any& any = unwrapped(raw);
    if (!any.has_value()) {
        return "nil";
    }
    if (const auto* list = std::any_cast<AnyCodable::List>(&any)) {
        std::string text = "[";
        for (const std::any& element : *list) {
            text += text.size() > 1 ? ", " : "";
            text += describeAny(element, true);
        }
        return text + "]";
    }
    if (const auto* dictionary = std::any_cast<AnyCodable::Dictionary>(&any)) {
        if (dictionary->empty()) {
            return "[:]";
        }
        std::string text = "[";
        for (const auto& [name, member] : *dictionary) {
            text += text.size() > 1 ? ", " : "";
            text += quotedText(name) + ": " + describeAny(member, true);
        }
        return text + "]";
    }
    std::string text;
    bool known = visitScalar(any, [&](const auto& held) {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, bool>) {
            text = held ? "true" : "false";
        } else if constexpr (std::is_integral_v<Held>) {
            text = std::to_string(held);
        } else if constexpr (std::is_floating_point_v<Held>) {
            text = shortestText(held);
        } else if constexpr (std::is_same_v<Held, std::string>) {
            text = debug ? quotedText(held) : held;
        } else if constexpr (std::is_same_v<Held, Date>) {
            text = iso8601(held);
        } else {
            text = debug ? quotedText(held.string()) : held.string();
        }
    });
    return known ? text : typeName(any.type());
}

}  // namespace

AnyCodable::AnyCodable(const std::vector<AnyCodable>& list) {
    List values;
    values.reserve(list.size());
    for (const AnyCodable& element : list) {
        values.push_back(element.value);
    }
    value = std::move(values);
}

AnyCodable::AnyCodable(const std::map<std::string, AnyCodable>& dictionary) {
    Dictionary values;
    for (const auto& [name, member] : dictionary) {
        values.emplace_hint(values.end(), name, member.value);
    }
    value = std::move(values);
}

AnyCodable AnyCodable::read(nlohmann::json& json, const CodingPath& path) {
    return AnyCodable(readAny(json, path));
}

void AnyCodable::write(JSONWriter& out) const {
    writeAny(out, value);
}

std::string AnyCodable::description() const {
    return describeAny(value, false);
}

std::string AnyCodable::debugDescription() const {
    return "AnyCodable(" + describeAny(value, true) + ")";
}

bool AnyCodable::operator==(const AnyCodable& other) const {
    return equalAny(value, other.value);
}

}  // namespace morvane
