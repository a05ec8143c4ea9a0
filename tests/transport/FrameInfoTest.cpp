#include "transport/FrameInfo.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace QEL::LibCSI;

namespace {

template <class T>
void Put(std::vector<std::uint8_t>& record, std::size_t offset, T value)
{
    std::memcpy(record.data() + offset, &value, sizeof value);
}

struct Frame {
    std::vector<std::uint8_t> leader = std::vector<std::uint8_t>(LeaderRecordSize);
    std::vector<std::uint8_t> payload = std::vector<std::uint8_t>(64);
    std::vector<std::uint8_t> trailer = std::vector<std::uint8_t>(TrailerRecordSize);

    Frame()
    {
        Put<std::uint32_t>(leader, 0, 0x4C325343);
        Put<std::uint64_t>(leader, 8, 0x1122334455667788);
        Put<std::uint16_t>(leader, 18, 1);
        Put<std::uint64_t>(leader, 20, 0x0102030405060708);
        Put<std::uint32_t>(leader, 28, 0x01080001);
        Put<std::uint32_t>(leader, 32, 640);
        Put<std::uint32_t>(leader, 36, 480);
        Put<std::uint32_t>(leader, 40, 8);
        Put<std::uint32_t>(leader, 44, 4);
        Put<std::uint16_t>(leader, 48, 2);
        Put<std::uint32_t>(trailer, 0, 0x54325343);
        Put<std::uint16_t>(trailer, 16, 0x00A5);
    }

    lib_frame_transfer Transfer() const
    {
        lib_frame_transfer t{};
        t.m_pLeader = leader.empty() ? 0 : reinterpret_cast<std::uintptr_t>(leader.data());
        t.m_pPayload = reinterpret_cast<std::uintptr_t>(payload.data());
        t.m_pTrailer = trailer.empty() ? 0 : reinterpret_cast<std::uintptr_t>(trailer.data());
        t.m_nLeaderSize = leader.size();
        t.m_nPayloadSize = payload.size();
        t.m_nTrailerSize = trailer.size();
        return t;
    }
};

TEST(FrameInfo, LeaderAndTrailerFieldsAtTheirOffsets)
{
    Frame frame;
    const frame_info info = FrameInfoFromLeaderTrailer(frame.Transfer(), RESULT_Incomplete);
    EXPECT_EQ(0x1122334455667788u, info.frameId);
    EXPECT_EQ(1u, info.payloadType);
    EXPECT_EQ(0x0102030405060708u, info.timestamp);
    EXPECT_EQ(0x01080001u, info.pixelFormat);
    EXPECT_EQ(640u, info.width);
    EXPECT_EQ(480u, info.height);
    EXPECT_EQ(8u, info.offsetX);
    EXPECT_EQ(4u, info.offsetY);
    EXPECT_EQ(2u, info.paddingX);
    EXPECT_EQ(0xA5u, info.status);
    EXPECT_EQ(64u, info.validSize) << "the payload size of the transfer";
    EXPECT_EQ(RESULT_Incomplete, info.result);
    EXPECT_EQ(0u, info.chunkLayoutId) << "no chunk type";
    EXPECT_EQ(0u, info.chunkSize);
}

TEST(FrameInfo, RecordsTooShortOrAbsentAreNotRead)
{
    Frame frame;
    frame.leader.resize(LeaderRecordSize - 1);
    frame.trailer.resize(TrailerRecordSize - 1);
    frame_info info = FrameInfoFromLeaderTrailer(frame.Transfer(), RESULT_Success);
    EXPECT_EQ(0u, info.frameId);
    EXPECT_EQ(0u, info.width);
    EXPECT_EQ(0u, info.status);
    EXPECT_EQ(64u, info.validSize);

    frame.leader.clear();
    frame.trailer.clear();
    lib_frame_transfer transfer = frame.Transfer();
    transfer.m_nLeaderSize = 52; // a size without memory behind it is no leader
    info = FrameInfoFromLeaderTrailer(transfer, RESULT_Success);
    EXPECT_EQ(0u, info.frameId);
}

TEST(FrameInfo, ExtendedChunkFramesCarryLayoutAndChunkSize)
{
    Frame frame;
    Put<std::uint16_t>(frame.leader, 18, PayloadTypeExtendedChunk);
    Put<std::uint32_t>(frame.payload, frame.payload.size() - 4, 24);
    frame_info info = FrameInfoFromLeaderTrailer(frame.Transfer(), RESULT_Success);
    EXPECT_EQ(0u, info.chunkLayoutId) << "a 32-byte trailer has no layout word";
    EXPECT_EQ(32u, info.chunkSize) << "the last payload word plus 8";

    frame.trailer.resize(TrailerRecordSize + 4);
    Put<std::uint32_t>(frame.trailer, 32, 0xC0FFEE);
    info = FrameInfoFromLeaderTrailer(frame.Transfer(), RESULT_Success);
    EXPECT_EQ(0xC0FFEEu, info.chunkLayoutId);

    frame.payload.resize(3);
    EXPECT_EQ(0u, FrameInfoFromLeaderTrailer(frame.Transfer(), RESULT_Success).chunkSize)
        << "a payload shorter than the size word";
}

TEST(FrameInfo, EmulatedFramesTakeTheStoredParameters)
{
    LeaderTrailerParameters p;
    p.sizeX = 320;
    p.sizeY = 200;
    p.offsetX = 16;
    p.offsetY = 8;
    p.paddingX = 3;
    p.pixelFormat = 0x01100007;
    p.payloadType = 1;
    p.validPayloadSize = 64000;
    p.chunkLayoutId = 9;
    const frame_info info = EmulatedFrameInfo(p, 77);
    EXPECT_EQ(77u, info.frameId);
    EXPECT_EQ(320u, info.width);
    EXPECT_EQ(200u, info.height);
    EXPECT_EQ(16u, info.offsetX);
    EXPECT_EQ(8u, info.offsetY);
    EXPECT_EQ(3u, info.paddingX);
    EXPECT_EQ(0x01100007u, info.pixelFormat);
    EXPECT_EQ(1u, info.payloadType);
    EXPECT_EQ(64000u, info.validSize);
    EXPECT_EQ(9u, info.chunkLayoutId);
    EXPECT_EQ(0u, info.timestamp);
    EXPECT_EQ(0u, info.status);
    EXPECT_EQ(0u, info.result);
}

}
