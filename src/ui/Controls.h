#pragma once

#include <string>

namespace morvane::ui {

/// What the local rules panel needs of a text field: its text and whether it takes input.
class TextField {
public:
    virtual ~TextField() = default;
    virtual std::string stringValue() const = 0;
    virtual void setStringValue(const std::string& value) = 0;
    virtual void setEnabled(bool enabled) = 0;
};

/// What it needs of a check button: its state, 1 when on.
class Button {
public:
    virtual ~Button() = default;
    virtual int state() const = 0;
};

}  // namespace morvane::ui
