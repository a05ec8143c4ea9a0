#include "framework/BufferRegister.h"

#include "base/BaseException.h"

#include <algorithm>
#include <cstring>

namespace QEL { namespace Base {

BufferRegister::BufferRegister(std::uint64_t address, std::uint64_t size, std::uint32_t accessMode)
    : range(address, size), accessMode(accessMode)
{
}

BufferRegister::BufferRegister(std::uint64_t address, std::uint64_t size, std::shared_ptr<std::uint8_t[]> data,
                               std::uint64_t dataSize, std::uint32_t accessMode)
    : range(address, size), accessMode(accessMode)
{
    SetBuffer(std::move(data), dataSize);
}

void BufferRegister::SetBuffer(std::shared_ptr<std::uint8_t[]> data, std::uint64_t dataSize)
{
    if (!data)
        throw Exception("No buffer passed.", GC_ERR_INVALID_PARAMETER);
    if (dataSize == 0)
        throw Exception("Invalid buffer size passed.", GC_ERR_INVALID_PARAMETER);
    buffer = std::move(data);
    bufferSize = dataSize;
}

std::shared_ptr<std::uint8_t[]> BufferRegister::GetBuffer() const
{
    if (!buffer)
        throw Exception("No buffer available.", GC_ERR_ERROR);
    return buffer;
}

std::uint64_t BufferRegister::GetBufferSize() const
{
    if (!buffer)
        throw Exception("No buffer available.", GC_ERR_ERROR);
    return bufferSize;
}

void BufferRegister::ResetBuffer()
{
    buffer.reset();
    bufferSize = 0;
}

std::uint8_t* BufferRegister::Check(std::uint64_t offset, const void* data, std::size_t* size, AccessKind kind) const
{
    // The buffer test sits between the size test and the range tests.
    CheckAccessArguments(data, size);
    if (!buffer)
        throw Exception("Buffer not available.", GC_ERR_NOT_AVAILABLE);
    CheckRegisterAccess(data, size, offset, std::min(range.GetSize(), bufferSize), kind, accessMode);
    return buffer.get() + offset;
}

void BufferRegister::Read(std::uint64_t offset, void* out, std::size_t* size)
{
    std::memcpy(out, Check(offset, out, size, AccessKind::Read), *size);
}

void BufferRegister::Write(std::uint64_t offset, const void* in, std::size_t* size)
{
    std::memcpy(Check(offset, in, size, AccessKind::Write), in, *size);
}

} }
