#include "framework/BaseRoles.h"

#include "base/BaseException.h"

namespace QEL { namespace Base {

std::uint32_t DataStream::GetNumBufferParts(const std::shared_ptr<Buffer>&)
{
    throw Exception("Could not get number of buffer parts.", GC_ERR_NOT_IMPLEMENTED);
}

InfoPtr DataStream::GetBufferPartInfo(const std::shared_ptr<Buffer>&, std::uint32_t, BUFFER_PART_INFO_CMD)
{
    throw Exception("Could not get buffer part info.", GC_ERR_NOT_IMPLEMENTED);
}

std::size_t DataStream::GetBufferPartInfoSize(const std::shared_ptr<Buffer>&, std::uint32_t, BUFFER_PART_INFO_CMD,
                                              INFO_DATATYPE*)
{
    throw Exception("Could not get buffer part info size.", GC_ERR_NOT_IMPLEMENTED);
}

} }
