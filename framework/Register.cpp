#include "framework/Register.h"

#include "base/BaseException.h"

namespace QEL { namespace Base {

void CheckAccessArguments(const void* buffer, const std::size_t* size)
{
    if (!buffer)
        throw Exception("No buffer passed.", GC_ERR_INVALID_PARAMETER);
    if (!size)
        throw Exception("No size passed.", GC_ERR_INVALID_PARAMETER);
    if (*size == 0)
        throw Exception("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
}

void CheckRegisterAccess(const void* buffer, const std::size_t* size, std::uint64_t offset, std::uint64_t registerSize,
                         AccessKind kind, std::uint32_t accessMode, bool checkMode)
{
    CheckAccessArguments(buffer, size);
    if (offset >= registerSize)
        throw Exception("Invalid address passed.", GC_ERR_INVALID_PARAMETER);
    if (*size > registerSize - offset)
        throw Exception("Invalid address range passed.", GC_ERR_INVALID_PARAMETER);
    if (!checkMode)
        return;
    if (kind == AccessKind::Read && !CanRead(accessMode))
        throw Exception("Read access not permitted.", GC_ERR_ACCESS_DENIED);
    if (kind == AccessKind::Write && !CanWrite(accessMode))
        throw Exception("Write access not permitted.", GC_ERR_ACCESS_DENIED);
}

} }
