#include "framework/CallbackRegister.h"

namespace QEL { namespace Base {

CallbackRegister::CallbackRegister(std::uint64_t address, std::uint64_t size, std::uint32_t accessMode,
                                   bool useAbsoluteAddress)
    : range(address, size), accessMode(accessMode), useAbsoluteAddress(useAbsoluteAddress)
{
}

void CallbackRegister::Read(std::uint64_t offset, void* buffer, std::size_t* size)
{
    CheckRegisterAccess(buffer, size, offset, range.GetSize(), AccessKind::Read, accessMode);
    read(Position(offset), buffer, size, *this);
}

void CallbackRegister::Write(std::uint64_t offset, const void* buffer, std::size_t* size)
{
    CheckRegisterAccess(buffer, size, offset, range.GetSize(), AccessKind::Write, accessMode);
    write(Position(offset), buffer, size, *this);
}

} }
