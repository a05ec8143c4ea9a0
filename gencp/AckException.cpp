#include "gencp/AckException.h"

#include <boost/format.hpp>

namespace QEL { namespace Base { namespace GenCP {

AckException::AckException(const std::string& text, std::uint16_t statusCode)
    // NOLINTNEXTLINE(bugprone-throw-keyword-missing): base initialisers, not thrown-away objects
    : QEL::System::Exception(text), Exception(text, CodeOf(statusCode)), status(statusCode)
{
}

GC_ERROR AckException::CodeOf(std::uint16_t status)
{
    switch (status) {
    case 0x0000: return GC_ERR_SUCCESS;
    case 0x8001: return GC_ERR_NOT_IMPLEMENTED;
    case 0x8002: return GC_ERR_INVALID_PARAMETER;
    case 0x8003: return GC_ERR_INVALID_ADDRESS;
    case 0x8004:
    case 0x8006: return GC_ERR_ACCESS_DENIED;
    case 0x8007: return GC_ERR_BUSY;
    case 0x800B: return GC_ERR_TIMEOUT;
    default: return GC_ERR_ERROR;
    }
}

GC_ERROR AckException::GetCode() const { return CodeOf(status); }

std::string AckException::GetMessage() const
{
    return (boost::format("%1% (Status code: %2%)") % GetText() % status).str();
}

} } }
