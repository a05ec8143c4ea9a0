#pragma once

#include "base/Object.h"

#include <string>

namespace QEL { namespace System {

// A failure that carries only a text; the entry layer reports it as a generic error.
class Exception : public virtual Object {
public:
    Exception() : text("Unknown exception.") {}
    explicit Exception(std::string message) : text(std::move(message)) {}
    ~Exception() override = default;

    virtual std::string GetMessage() const { return text; }

    // The plain text, without anything a derived class adds to GetMessage.
    const std::string& GetText() const { return text; }

private:
    std::string text;
};

} }
