#pragma once

#include <charconv>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <version>
#if defined(__cpp_lib_source_location)
#include <source_location>
#endif
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "logging/BaseDestination.h"
#include "logging/Level.h"

namespace morvane::logging {

/// The process-wide set of destinations and the entry points that send one call to each of
/// them.
///
/// The set has no lock: add and remove destinations from one thread, before logging from
/// others starts (or from that same thread only). Logging itself may run on any thread; the
/// caller's part ends when each destination has its line on its queue.
///
/// A message may be anything that can be described as text (text, numbers, streamable
/// values) or a callable returning such a value: the callable runs only when some
/// destination takes the line, and at most once.
class LogCenter {
public:
    using Level = logging::Level;
    using Context = BaseDestination::Context;

    LogCenter() = delete;

    /// False when this very destination is already in the set.
    static bool addDestination(std::shared_ptr<BaseDestination> destination);
    /// False when it is not in the set.
    static bool removeDestination(const std::shared_ptr<BaseDestination>& destination);
    static void removeAllDestinations();
    static std::size_t countDestinations();
    /// Returns once every destination has sent what it was handed before the call.
    static void flush();

    /// Empty on the main thread; elsewhere the label of the dispatch queue running the
    /// caller, or a description of the thread when that label is not UTF-8.
    static std::string threadName();

    template <class Message>
    static void verbose(Message&& message, std::string_view file, std::string_view function,
                        int line, Context context = std::nullopt) {
        custom(Level::verbose, std::forward<Message>(message), file, function, line,
               std::move(context));
    }
    template <class Message>
    static void debug(Message&& message, std::string_view file, std::string_view function, int line,
                      Context context = std::nullopt) {
        custom(Level::debug, std::forward<Message>(message), file, function, line,
               std::move(context));
    }
    template <class Message>
    static void info(Message&& message, std::string_view file, std::string_view function, int line,
                     Context context = std::nullopt) {
        custom(Level::info, std::forward<Message>(message), file, function, line,
               std::move(context));
    }
    template <class Message>
    static void warning(Message&& message, std::string_view file, std::string_view function,
                        int line, Context context = std::nullopt) {
        custom(Level::warning, std::forward<Message>(message), file, function, line,
               std::move(context));
    }
    template <class Message>
    static void error(Message&& message, std::string_view file, std::string_view function, int line,
                      Context context = std::nullopt) {
        custom(Level::error, std::forward<Message>(message), file, function, line,
               std::move(context));
    }

#if defined(__cpp_lib_source_location)
    // Compilers whose standard library lacks std::source_location (clang 14 on libstdc++
    // 12, used for the fuzzers) get only the explicit entry points above.

    /// The same entry points with the caller's own file, function and line.
    template <class Message>
    static void verbose(Message&& message, Context context = std::nullopt,
                        std::source_location where = std::source_location::current()) {
        custom(Level::verbose, std::forward<Message>(message), where, std::move(context));
    }
    template <class Message>
    static void debug(Message&& message, Context context = std::nullopt,
                      std::source_location where = std::source_location::current()) {
        custom(Level::debug, std::forward<Message>(message), where, std::move(context));
    }
    template <class Message>
    static void info(Message&& message, Context context = std::nullopt,
                     std::source_location where = std::source_location::current()) {
        custom(Level::info, std::forward<Message>(message), where, std::move(context));
    }
    template <class Message>
    static void warning(Message&& message, Context context = std::nullopt,
                        std::source_location where = std::source_location::current()) {
        custom(Level::warning, std::forward<Message>(message), where, std::move(context));
    }
    template <class Message>
    static void error(Message&& message, Context context = std::nullopt,
                      std::source_location where = std::source_location::current()) {
        custom(Level::error, std::forward<Message>(message), where, std::move(context));
    }
#endif

    template <class Message>
    static void custom(Level level, Message&& message, std::string_view file,
                       std::string_view function, int line, Context context = std::nullopt) {
        // The message travels by address with the one function that can read it: lazy,
        // without a copy, and without a heap allocation for a wrapper.
        using Stored = std::remove_reference_t<Message>;
        dispatch(level,
                 MessageSource{const_cast<void*>(static_cast<const void*>(std::addressof(message))),
                               &messageText<Stored>},
                 file, function, line, std::move(context));
    }

    /// A message value as text.
    template <class Value>
    static std::string describe(const Value& value);

    /// "log(_:level:)" becomes "log()": everything from the first "(" is cut, then "()" is
    /// appended.
    static std::string strippedFunctionName(std::string_view function);

private:
#if defined(__cpp_lib_source_location)
    template <class Message>
    static void custom(Level level, Message&& message, const std::source_location& where,
                       Context context) {
        custom(level, std::forward<Message>(message), where.file_name(), where.function_name(),
               static_cast<int>(where.line()), std::move(context));
    }
#endif

    /// A message not yet turned into text. `text` gives a view of the message itself when it
    /// is text already, or else writes its description into `storage` and gives a view of
    /// that.
    struct MessageSource {
        void* message;
        std::string_view (*text)(void* message, std::string& storage);
    };

    template <class Stored>
    static std::string_view messageText(void* address, std::string& storage) {
        auto& message = *static_cast<Stored*>(address);
        if constexpr (std::is_invocable_v<Stored&>) {
            storage = describe(std::invoke(message));
            return storage;
        } else if constexpr (std::is_convertible_v<const Stored&, std::string_view>) {
            return std::string_view(message);
        } else {
            storage = describe(message);
            return storage;
        }
    }

    static void dispatch(Level level, MessageSource message, std::string_view file,
                         std::string_view function, int line, Context context);
};

template <class Value>
std::string LogCenter::describe(const Value& value) {
    using Type = std::decay_t<Value>;
    if constexpr (std::is_convertible_v<const Value&, std::string_view>) {
        return std::string(std::string_view(value));
    } else if constexpr (std::is_same_v<Type, bool>) {
        return value ? "true" : "false";
    } else if constexpr (std::is_same_v<Type, char>) {
        return std::string(1, value);
    } else if constexpr (std::is_arithmetic_v<Type>) {
        // The shortest text that reads back as the same number, as "0.1" rather than
        // "0.100000".
        char text[64];
        const auto result = std::to_chars(text, text + sizeof text, value);
        return std::string(text, result.ptr);
    } else {
        std::ostringstream out;
        out << value;
        return out.str();
    }
}

}  // namespace morvane::logging
