#pragma once

#include "base/GenTL.h"
#include "base/Exception.h"

#include <string>

namespace QEL { namespace Base {

// A failure with its GenTL error code.
class Exception : public virtual QEL::System::Exception {
public:
    // NOLINTNEXTLINE(bugprone-throw-keyword-missing): a base initialiser, not a thrown-away object
    Exception(const std::string& text, GC_ERROR code) : QEL::System::Exception(text), code(code) {}
    ~Exception() override = default;

    virtual GC_ERROR GetCode() const { return code; }
    std::string GetMessage() const override;

private:
    GC_ERROR code;
};

} }
