#include "messages/JSONAny.h"

#include <cmath>
#include <limits>

#include "messages/JSONCoding.h"

namespace morvane {

namespace {

using Kind = nlohmann::json::value_t;

[[noreturn]] void cannotDecode(const CodingPath& path, std::string_view why) {
    throwCodingError(path, std::string("Cannot decode JSONAny: ") + std::string(why));
}

}  // namespace

JSONNull JSONNull::read(nlohmann::json& value, const CodingPath& path) {
    if (!value.is_null()) {
        throwCodingError(path, "Wrong type for JSONNull");
    }
    return {};
}

void JSONNull::write(JSONWriter& out) const {
    out.null();
}

JSONAny JSONAny::read(nlohmann::json& value, const CodingPath& path) {
    if (path.depth() > kMaxCodingDepth) {
        cannotDecode(path, "nested too deeply");
    }
    switch (value.type()) {
        case Kind::array: {
            auto& elements = value.get_ref<nlohmann::json::array_t&>();
            List list;
            list.reserve(elements.size());
            for (std::size_t i = 0; i < elements.size(); ++i) {
                list.push_back(read(elements[i], CodingPath(path, i)));
            }
            return {std::move(list)};
        }
        case Kind::object: {
            Dictionary dictionary;
            for (auto& [name, member] : value.get_ref<nlohmann::json::object_t&>()) {
                JSONCodingKey key(name);
                dictionary.emplace_hint(dictionary.end(), std::move(key.key),
                                        read(member, CodingPath(path, name)));
            }
            return {std::move(dictionary)};
        }
        case Kind::boolean:
            return {value.get<bool>()};
        case Kind::number_integer:
            return {value.get<std::int64_t>()};
        case Kind::number_unsigned: {
            auto number = value.get<std::uint64_t>();
            if (number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                return {static_cast<std::int64_t>(number)};
            }
            return {static_cast<double>(number)};
        }
        case Kind::number_float:
            return {value.get<double>()};
        case Kind::string:
            return {std::move(value.get_ref<std::string&>())};
        case Kind::null:
            return {JSONNull::read(value, path)};
        default:
            cannotDecode(path, "not a JSON value");
    }
}

void JSONAny::write(JSONWriter& out) const {
    std::visit(
        [&out](const auto& held) {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, double>) {
                if (!std::isfinite(held)) {
                    throw CodingError("Cannot encode JSONAny: a number that is not finite");
                }
                out.number(held);
            } else {
                coding::encodeValue(out, held);
            }
        },
        value);
}

bool JSONAny::operator==(const JSONAny& other) const {
    return value == other.value;
}

}  // namespace morvane
