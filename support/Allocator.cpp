#include "support/Allocator.h"

#include "base/Exception.h"

#include <new>

namespace QEL { namespace System {

BasicAllocator::BasicBuffer::BasicBuffer(std::size_t size)
    : data(new (std::nothrow) std::uint8_t[size]), size(size)
{
    if (!data)
        throw Exception("Could not allocate buffer.");
}

std::shared_ptr<Buffer> BasicAllocator::Allocate(std::size_t size)
{
    if (size == 0)
        throw Exception("Invalid size passed.");
    return std::make_shared<BasicBuffer>(size);
}

} }
