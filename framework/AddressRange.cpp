#include "framework/AddressRange.h"

#include "base/BaseException.h"

namespace QEL { namespace Base {

AddressRange::AddressRange(std::uint64_t address, std::uint64_t size) : address(address), size(size)
{
    if (size == 0)
        throw Exception("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    if (address > 0 - size)
        throw Exception("Invalid address and size passed.", GC_ERR_INVALID_PARAMETER);
}

} }
