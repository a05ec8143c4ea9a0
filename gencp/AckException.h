#pragma once

#include "base/BaseException.h"

#include <cstdint>

namespace QEL { namespace Base { namespace GenCP {

// An error status that the device reported; its GenTL code follows the status.
class AckException : public Exception {
public:
    AckException(const std::string& text, std::uint16_t status);

    GC_ERROR GetCode() const override;
    std::string GetMessage() const override;
    std::uint16_t GetStatus() const { return status; }

    static GC_ERROR CodeOf(std::uint16_t status);

private:
    std::uint16_t status;
};

} } }
