#include "transport/FrameInfo.h"

#include <cstring>

namespace QEL { namespace LibCSI {

namespace {

template <class T>
T At(const std::uint8_t* record, std::size_t offset)
{
    T value;
    std::memcpy(&value, record + offset, sizeof value); // little-endian host, as on every supported board
    return value;
}

const std::uint8_t* Record(std::uint64_t address) { return reinterpret_cast<const std::uint8_t*>(address); }

}

frame_info FrameInfoFromLeaderTrailer(const lib_frame_transfer& frame, std::uint32_t result)
{
    frame_info info;
    info.validSize = static_cast<std::uint32_t>(frame.m_nPayloadSize);
    info.result = result;
    if (frame.m_pLeader && frame.m_nLeaderSize >= LeaderRecordSize) {
        const std::uint8_t* leader = Record(frame.m_pLeader);
        info.frameId = At<std::uint64_t>(leader, 8);
        info.payloadType = At<std::uint16_t>(leader, 18);
        info.timestamp = At<std::uint64_t>(leader, 20);
        info.pixelFormat = At<std::uint32_t>(leader, 28);
        info.width = At<std::uint32_t>(leader, 32);
        info.height = At<std::uint32_t>(leader, 36);
        info.offsetX = At<std::uint32_t>(leader, 40);
        info.offsetY = At<std::uint32_t>(leader, 44);
        info.paddingX = At<std::uint16_t>(leader, 48);
    }
    const bool hasTrailer = frame.m_pTrailer && frame.m_nTrailerSize >= TrailerRecordSize;
    if (hasTrailer)
        info.status = At<std::uint16_t>(Record(frame.m_pTrailer), 16);
    if (info.payloadType == PayloadTypeExtendedChunk) {
        if (hasTrailer && frame.m_nTrailerSize >= TrailerRecordSize + 4)
            info.chunkLayoutId = At<std::uint32_t>(Record(frame.m_pTrailer), 32);
        if (frame.m_pPayload && frame.m_nPayloadSize >= 4)
            info.chunkSize = At<std::uint32_t>(Record(frame.m_pPayload), frame.m_nPayloadSize - 4) + 8;
    }
    return info;
}

frame_info EmulatedFrameInfo(const LeaderTrailerParameters& parameters, std::uint64_t blockId)
{
    frame_info info;
    info.frameId = blockId;
    info.payloadType = static_cast<std::uint16_t>(parameters.payloadType);
    info.width = parameters.sizeX;
    info.height = parameters.sizeY;
    info.pixelFormat = parameters.pixelFormat;
    info.offsetX = parameters.offsetX;
    info.offsetY = parameters.offsetY;
    info.paddingX = static_cast<std::uint16_t>(parameters.paddingX);
    info.chunkLayoutId = parameters.chunkLayoutId;
    info.validSize = parameters.validPayloadSize;
    return info;
}

} }
