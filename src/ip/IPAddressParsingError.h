#pragma once

#include <exception>

namespace morvane::ip {

/// What `IPAddressv4` and `IPNetworkv4` raise for a text they cannot read. It carries no text
/// of its own and no position: `what()` is only the kind's name.
class IPAddressParsingError : public std::exception {
public:
    enum class ErrorKind { invalidCharacter, invalidValue, internalError };

    explicit IPAddressParsingError(ErrorKind errorKind) : kind(errorKind) {}

    const char* what() const noexcept override {
        switch (kind) {
            case ErrorKind::invalidCharacter:
                return "invalidCharacter";
            case ErrorKind::invalidValue:
                return "invalidValue";
            case ErrorKind::internalError:
                return "internalError";
        }
        return "IPAddressParsingError";
    }

    ErrorKind kind;
};

}  // namespace morvane::ip
