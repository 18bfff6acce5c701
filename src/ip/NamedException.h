#pragma once

#include <stdexcept>
#include <string>

namespace morvane::ip {

/// The error that the big integers and the address data constructor raise: a name that tells
/// the kind ("ArithmeticException", "ArgumentException", "ipInvalidLength", ...) and a reason
/// for people. `what()` is the reason.
class NamedException : public std::runtime_error {
public:
    NamedException(std::string name, const std::string& reason)
        : std::runtime_error(reason), name_(std::move(name)) {}

    const std::string& name() const noexcept { return name_; }
    std::string reason() const { return what(); }

private:
    std::string name_;
};

}  // namespace morvane::ip
