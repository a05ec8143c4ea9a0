#include "base/Exception.h"
#include "sim/CameraFirmware.h"
#include "sim/CameraMap.h"
#include "sim/PixelFormats.h"
#include "tests/transport/TransportTestSupport.h"
#include "transport/Endpoint.h"
#include "transport/EndpointHandler.h"
#include "transport/LibCSIDevice.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <vector>

using namespace QEL;
using LibCSI::frame_info;

namespace {

// The stream endpoint of the left virtual camera, with a consumer that checks
// every pixel of every frame and queues each buffer again.
class StreamEndpoint : public TransportTest::Board {
protected:
    StreamEndpoint()
    {
        CreateLibrary(false);
        device = library->OpenDevice("LEFT-0001", library);
        endpoint = LibCSI::Endpoint::Open(device, LibCSI::ENDPOINT_MODE_SI);
        handler = LibCSI::EndpointHandler::Create(endpoint, 64, 0x40000, LibCSI::ENDPOINT_MODE_SI);
        geometry = system->GetFirmware(0).Geometry();
    }

    ~StreamEndpoint() override
    {
        requeue = false;
        handler.reset();
        endpoint.reset();
        device.reset();
    }

    LibCSI::StreamFrames::FrameHandler Consumer(std::uint8_t* payload)
    {
        return std::make_shared<const LibCSI::StreamFrames::FrameCallback>(
            [this, payload](const frame_info& info) { OnFrame(payload, info); });
    }

    void OnFrame(std::uint8_t* payload, const frame_info& info)
    {
        int wrong = 0;
        if (info.result == LibCSI::RESULT_Success) {
            for (std::uint32_t y = 0; y < geometry.height; ++y)
                for (std::uint32_t x = 0; x < geometry.width; ++x)
                    for (std::uint32_t s = 0; s < geometry.format->samples; ++s)
                        if (Sim::ReadSample(payload, geometry.width, x, y, s, *geometry.format) !=
                            Sim::PatternSample(x, y, s, info.frameId, *geometry.format, 0))
                            ++wrong;
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            infos.push_back(info);
            wrongPixels += wrong;
            ++byPayload[payload];
        }
        changed.notify_all();
        if (requeue && info.result != LibCSI::RESULT_Unused)
            handler->QueueBuffer(payload, geometry.ipuX, geometry.ipuY, geometry.payloadSize, LeaderSize, TrailerSize,
                                 nullptr);
    }

    bool AwaitFrames(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(20), [&] { return infos.size() >= count; });
    }

    static constexpr std::uint32_t LeaderSize = Sim::CameraMap::MaxLeaderSize;
    static constexpr std::uint32_t TrailerSize = Sim::CameraMap::MaxTrailerSize;

    std::shared_ptr<LibCSI::Device> device;
    std::shared_ptr<LibCSI::Endpoint> endpoint;
    std::shared_ptr<LibCSI::EndpointHandler> handler;
    Sim::CameraFirmware::FrameGeometry geometry{};
    std::atomic<bool> requeue{true};

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<frame_info> infos;
    std::map<std::uint8_t*, int> byPayload;
    int wrongPixels = 0;
};

TEST_F(StreamEndpoint, AnnouncedAndAllocatedBuffersCarryEveryPixel)
{
    std::vector<std::vector<std::uint8_t>> own(3, std::vector<std::uint8_t>(geometry.payloadSize));
    std::vector<std::uint8_t*> payloads;
    for (auto& memory : own) {
        ASSERT_NE(nullptr, handler->AnnounceBuffer(memory.data(), geometry.ipuX, geometry.ipuY, memory.size(),
                                                   LeaderSize, TrailerSize, Consumer(memory.data())));
        payloads.push_back(memory.data());
    }
    for (int i = 0; i < 2; ++i) {
        auto* payload = static_cast<std::uint8_t*>(handler->AllocateBuffer(
            geometry.ipuX, geometry.ipuY, geometry.payloadSize, LeaderSize, TrailerSize, nullptr));
        ASSERT_NE(nullptr, payload);
        payloads.push_back(payload);
    }
    ASSERT_EQ(5u, endpoint->Frames().GetBufferCount());
    for (std::uint8_t* payload : payloads)
        ASSERT_EQ(0, handler->QueueBuffer(payload, geometry.ipuX, geometry.ipuY, geometry.payloadSize, LeaderSize,
                                          TrailerSize, Consumer(payload)))
            << "queueing gives each buffer its handler";
    ASSERT_EQ(0, handler->StartStreaming(0x2A));
    system->GetFirmware(0).StartAcquisition();
    ASSERT_TRUE(AwaitFrames(100));
    requeue = false;
    EXPECT_EQ(0, handler->StopStreaming());
    std::size_t beforeRevoke = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        beforeRevoke = infos.size();
    }
    handler->RevokeBuffers();
    EXPECT_EQ(0u, endpoint->Frames().GetBufferCount());

    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(0, wrongPixels);
    ASSERT_EQ(beforeRevoke + 5, infos.size()) << "each revoked buffer hears of it once";
    for (std::size_t i = beforeRevoke; i < infos.size(); ++i)
        EXPECT_EQ(LibCSI::RESULT_Unused, infos[i].result);
    std::uint64_t lastId = 0;
    for (const frame_info& info : infos) {
        if (info.result == LibCSI::RESULT_Unused)
            continue; // revoked, or given back unused by the stop
        ASSERT_EQ(LibCSI::RESULT_Success, info.result);
        EXPECT_EQ(geometry.width, info.width);
        EXPECT_EQ(geometry.height, info.height);
        EXPECT_EQ(geometry.format->pfnc, info.pixelFormat);
        EXPECT_EQ(geometry.payloadSize, info.validSize);
        EXPECT_GT(info.frameId, lastId) << "block IDs rise";
        lastId = info.frameId;
    }
    for (std::uint8_t* payload : payloads)
        EXPECT_GE(byPayload[payload], 2) << "every buffer went round";
}

TEST_F(StreamEndpoint, AnnouncementsAreKeptByPayload)
{
    std::vector<std::uint8_t> memory(geometry.payloadSize), other(geometry.payloadSize);
    frame_handle_t* first = handler->AnnounceBuffer(memory.data(), geometry.ipuX, geometry.ipuY, memory.size(),
                                                    LeaderSize, TrailerSize, nullptr);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, handler->AnnounceBuffer(memory.data(), geometry.ipuX, geometry.ipuY, memory.size(), LeaderSize,
                                             TrailerSize, nullptr))
        << "the same payload keeps its first handle";
    EXPECT_EQ(1u, endpoint->Frames().GetBufferCount());
    EXPECT_EQ(0, handler->QueueBuffer(other.data(), geometry.ipuX, geometry.ipuY, other.size(), LeaderSize,
                                      TrailerSize, nullptr))
        << "a payload not yet announced is announced on the way";
    EXPECT_EQ(2u, endpoint->Frames().GetBufferCount());
    EXPECT_THROW(handler->AnnounceBuffer(nullptr, geometry.ipuX, geometry.ipuY, 64, LeaderSize, TrailerSize, nullptr),
                 System::Exception);
    EXPECT_THROW(handler->AnnounceBuffer(memory.data() + 1, geometry.ipuX, geometry.ipuY, 0, LeaderSize, TrailerSize,
                                         nullptr),
                 System::Exception)
        << "size 0";
}

}
