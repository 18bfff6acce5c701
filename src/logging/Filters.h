#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "logging/CompareFilter.h"
#include "logging/Level.h"

namespace morvane::logging {

/// Short ways to make a filter for one target:
/// `Filters::Message::contains({"secret"}, true)`.
template <Filter::TargetType::Kind kKind>
class FilterFactory {
public:
    using Strings = std::vector<std::string>;

    static std::shared_ptr<CompareFilter> startsWith(Strings strings, bool caseSensitive = false,
                                                     bool required = false,
                                                     Level minLevel = Level::verbose) {
        return make(Filter::StartsWith{std::move(strings), caseSensitive}, required, minLevel);
    }
    static std::shared_ptr<CompareFilter> contains(Strings strings, bool caseSensitive = false,
                                                   bool required = false,
                                                   Level minLevel = Level::verbose) {
        return make(Filter::Contains{std::move(strings), caseSensitive}, required, minLevel);
    }
    static std::shared_ptr<CompareFilter> excludes(Strings strings, bool caseSensitive = false,
                                                   bool required = false,
                                                   Level minLevel = Level::verbose) {
        return make(Filter::Excludes{std::move(strings), caseSensitive}, required, minLevel);
    }
    static std::shared_ptr<CompareFilter> endsWith(Strings strings, bool caseSensitive = false,
                                                   bool required = false,
                                                   Level minLevel = Level::verbose) {
        return make(Filter::EndsWith{std::move(strings), caseSensitive}, required, minLevel);
    }
    static std::shared_ptr<CompareFilter> equals(Strings strings, bool caseSensitive = false,
                                                 bool required = false,
                                                 Level minLevel = Level::verbose) {
        return make(Filter::Equals{std::move(strings), caseSensitive}, required, minLevel);
    }
    static std::shared_ptr<CompareFilter> custom(std::function<bool(std::string_view)> predicate,
                                                 bool required = false,
                                                 Level minLevel = Level::verbose) {
        return make(Filter::Custom{std::move(predicate)}, required, minLevel);
    }

private:
    static std::shared_ptr<CompareFilter> make(Filter::ComparisonType comparison, bool required,
                                               Level minLevel) {
        return std::make_shared<CompareFilter>(Filter::TargetType{kKind, std::move(comparison)},
                                               required, minLevel);
    }
};

using PathFilterFactory = FilterFactory<Filter::TargetType::Kind::Path>;
using FunctionFilterFactory = FilterFactory<Filter::TargetType::Kind::Function>;
using MessageFilterFactory = FilterFactory<Filter::TargetType::Kind::Message>;

/// Names the three targets: `Filters::Path`, `Filters::Function`, `Filters::Message`.
struct Filters {
    using Path = PathFilterFactory;
    using Function = FunctionFilterFactory;
    using Message = MessageFilterFactory;
};

}  // namespace morvane::logging
