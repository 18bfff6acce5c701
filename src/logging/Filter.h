#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "logging/Level.h"

namespace morvane::logging {

/// What a filter looks at and how it compares; the common fields of every filter.
class Filter {
public:
    struct StartsWith {
        std::vector<std::string> strings;
        bool caseSensitive = false;
    };
    struct Contains {
        std::vector<std::string> strings;
        bool caseSensitive = false;
    };
    /// Matches a value that lacks at least one of the strings.
    struct Excludes {
        std::vector<std::string> strings;
        bool caseSensitive = false;
    };
    struct EndsWith {
        std::vector<std::string> strings;
        bool caseSensitive = false;
    };
    struct Equals {
        std::vector<std::string> strings;
        bool caseSensitive = false;
    };
    struct Custom {
        std::function<bool(std::string_view)> predicate;
    };
    using ComparisonType = std::variant<StartsWith, Contains, Excludes, EndsWith, Equals, Custom>;

    /// The part of a line a filter is applied to, with its comparison.
    struct TargetType {
        enum class Kind { Path, Function, Message };

        static TargetType Path(ComparisonType comparison) {
            return {Kind::Path, std::move(comparison)};
        }
        static TargetType Function(ComparisonType comparison) {
            return {Kind::Function, std::move(comparison)};
        }
        static TargetType Message(ComparisonType comparison) {
            return {Kind::Message, std::move(comparison)};
        }

        Kind kind = Kind::Message;
        ComparisonType comparison;
    };

    Filter(TargetType targetType, bool required, Level minLevel);

    const TargetType& getTarget() const { return targetType_; }
    bool isRequired() const { return required_; }
    bool isExcluded() const { return false; }
    bool reachedMinLevel(Level level) const { return minLevel_ <= level; }

private:
    TargetType targetType_;
    bool required_;
    Level minLevel_;
};

}  // namespace morvane::logging
