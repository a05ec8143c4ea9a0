#include "framework/XMLRegister.h"

#include "base/BaseException.h"

#include <cstring>

namespace QEL { namespace Base {

XMLRegister::XMLRegister(std::uint64_t address, std::shared_ptr<const Data> data) : address(address), xml(std::move(data))
{
    if (!xml)
        throw Exception("No XML passed.", GC_ERR_INVALID_PARAMETER);
    if (xml->empty())
        throw Exception("Invalid XML passed.", GC_ERR_INVALID_PARAMETER);
    AddressRange(address, xml->size());
}

void XMLRegister::Read(std::uint64_t offset, void* buffer, std::size_t* size)
{
    CheckRegisterAccess(buffer, size, offset, xml->size(), AccessKind::Read, AccessRead, false);
    std::memcpy(buffer, xml->data() + offset, *size);
}

void XMLRegister::Write(std::uint64_t, const void*, std::size_t*)
{
    throw Exception("Write access not permitted.", GC_ERR_ACCESS_DENIED);
}

} }
