// Acquisition through the built producer: a consumer's buffers and allocated
// ones, EVENT_NEW_BUFFER for each frame, the buffer infos, every pixel
// checked against the virtual camera's pattern, stop, flush and revoke.
#include "sim/PixelFormats.h"
#include "tests/consumer/ProducerLoader.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <atomic>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

#define LORUN_FN(name) producer.Symbol<decltype(&::name)>(#name)

class Acquisition : public ::testing::Test {
protected:
    explicit Acquisition(const std::string& camera = "width = 64\nheight = 16\npixel_format = Mono8\nframe_rate = 0\n")
    {
        std::ofstream(producer.File("cameras.ini")) << "[camera0]\nguid = CAM-1\nbus_timing = 0\n" << camera;
        setenv("LORUN_VIRTUAL_CAMERA", producer.File("cameras.ini").c_str(), 1);
        EXPECT_EQ(GC_ERR_SUCCESS, producer.GCInitLib());
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(TLOpen)(&tl));
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(TLOpenInterface)(tl, "LorunCSIInterface_0x0", &interface));
        bool8_t changed = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(IFUpdateDeviceList)(interface, &changed, 100));
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(IFOpenDevice)(interface, "DEV_CAM-1", DEVICE_ACCESS_CONTROL, &device));
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevOpenDataStream)(device, "DEV_CAM-1_DS_0x0", &stream))
            << producer.LastError().second;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCRegisterEvent)(stream, EVENT_NEW_BUFFER, &newBuffer));
        payloadSize = StreamInfo<size_t>(STREAM_INFO_PAYLOAD_SIZE);
    }
    ~Acquisition() override
    {
        producer.GCCloseLib();
        unsetenv("LORUN_VIRTUAL_CAMERA");
    }

    template <class T>
    T StreamInfo(STREAM_INFO_CMD command)
    {
        T value{};
        INFO_DATATYPE type = 0;
        size_t size = sizeof value;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSGetInfo)(stream, command, &type, &value, &size))
            << producer.LastError().second;
        return value;
    }

    template <class T>
    T BufferInfo(BUFFER_HANDLE buffer, BUFFER_INFO_CMD command)
    {
        T value{};
        INFO_DATATYPE type = 0;
        size_t size = sizeof value;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSGetBufferInfo)(stream, buffer, command, &type, &value, &size))
            << "info " << command << ": " << producer.LastError().second;
        return value;
    }

    std::uint64_t Read64(PORT_HANDLE port, std::uint64_t address)
    {
        std::uint64_t value = 0;
        size_t size = sizeof value;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCReadPort)(port, address, &value, &size)) << producer.LastError().second;
        return value;
    }

    // Announces `own` buffers of the consumer and `allocated` ones of the producer, and queues them all.
    void AnnounceAndQueue(std::size_t own, std::size_t allocated)
    {
        memory.resize(own);
        for (std::size_t i = 0; i < own; ++i) {
            memory[i].assign(payloadSize, 0);
            BUFFER_HANDLE buffer = nullptr;
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSAnnounceBuffer)(stream, memory[i].data(), payloadSize,
                                                                 reinterpret_cast<void*>(buffers.size()), &buffer))
                << producer.LastError().second;
            buffers.push_back(buffer);
        }
        for (std::size_t i = 0; i < allocated; ++i) {
            BUFFER_HANDLE buffer = nullptr;
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSAllocAndAnnounceBuffer)(
                                          stream, payloadSize, reinterpret_cast<void*>(buffers.size()), &buffer))
                << producer.LastError().second;
            buffers.push_back(buffer);
        }
        for (BUFFER_HANDLE buffer : buffers)
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, buffer));
    }

    // Takes `count` frames, checks each, and queues its buffer again.
    void Grab(std::size_t count)
    {
        const auto& format = QEL::Sim::PixelFormatByName("Mono8");
        for (std::size_t frame = 0; frame < count; ++frame) {
            EVENT_NEW_BUFFER_DATA data{};
            size_t size = sizeof data;
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(EventGetData)(newBuffer, &data, &size, 5000))
                << "frame " << frame << ": " << producer.LastError().second;
            const auto index = reinterpret_cast<std::uintptr_t>(data.pUserPointer);
            ASSERT_LT(index, buffers.size());
            ASSERT_EQ(buffers[index], data.BufferHandle);
            BUFFER_HANDLE buffer = data.BufferHandle;
            const auto id = BufferInfo<std::uint64_t>(buffer, BUFFER_INFO_FRAMEID);
            EXPECT_GT(id, lastFrameId);
            lastFrameId = id;
            EXPECT_EQ(64u, BufferInfo<size_t>(buffer, BUFFER_INFO_WIDTH));
            EXPECT_EQ(16u, BufferInfo<size_t>(buffer, BUFFER_INFO_HEIGHT));
            EXPECT_EQ(format.pfnc, BufferInfo<std::uint64_t>(buffer, BUFFER_INFO_PIXELFORMAT));
            // With leader and trailer the frame fills the payload; emulated, it
            // is as large as the camera's valid payload, the image itself.
            EXPECT_EQ(emulated ? 64u * 16u : payloadSize, BufferInfo<size_t>(buffer, BUFFER_INFO_SIZE_FILLED));
            EXPECT_EQ(0, BufferInfo<bool8_t>(buffer, BUFFER_INFO_IS_INCOMPLETE));
            EXPECT_NE(0, BufferInfo<bool8_t>(buffer, BUFFER_INFO_NEW_DATA));
            EXPECT_EQ(std::size_t{PAYLOAD_TYPE_IMAGE}, BufferInfo<size_t>(buffer, BUFFER_INFO_PAYLOADTYPE));
            timestamps.insert(BufferInfo<std::uint64_t>(buffer, BUFFER_INFO_TIMESTAMP));
            const auto* image = static_cast<const std::uint8_t*>(BufferInfo<void*>(buffer, BUFFER_INFO_BASE));
            // Emulated frame IDs are the producer's count, not the camera's: the
            // camera's block ID is then read from the first pixel of its ramp.
            const std::uint64_t block = emulated ? image[0] : id;
            for (std::uint32_t y = 0; y < 16; ++y)
                for (std::uint32_t x = 0; x < 64; ++x)
                    if (QEL::Sim::ReadSample(image, 64, x, y, 0, format) !=
                        QEL::Sim::PatternSample(x, y, 0, block, format, 0))
                        ++wrongPixels;
            ++seen[index];
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, buffer));
        }
    }

    void RevokeAll()
    {
        for (BUFFER_HANDLE buffer : buffers) {
            void* base = nullptr;
            void* user = nullptr;
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSRevokeBuffer)(stream, buffer, &base, &user))
                << producer.LastError().second;
        }
        buffers.clear();
    }

    ProducerLoader producer;
    TL_HANDLE tl = nullptr;
    IF_HANDLE interface = nullptr;
    DEV_HANDLE device = nullptr;
    DS_HANDLE stream = nullptr;
    EVENT_HANDLE newBuffer = nullptr;
    size_t payloadSize = 0;
    std::vector<std::vector<std::uint8_t>> memory;
    std::vector<BUFFER_HANDLE> buffers;
    std::map<std::size_t, int> seen;
    std::set<std::uint64_t> timestamps;
    std::uint64_t lastFrameId = 0;
    int wrongPixels = 0;
    bool emulated = false;
};

TEST_F(Acquisition, EveryPixelOfThreeHundredFramesInOwnAndAllocatedBuffers)
{
    EXPECT_EQ(payloadSize, Read64(stream, 0x1050000)) << "PayloadSizeReg";
    AnnounceAndQueue(4, 2);
    EXPECT_EQ(6u, StreamInfo<size_t>(STREAM_INFO_NUM_ANNOUNCED));
    EXPECT_EQ(6u, StreamInfo<size_t>(STREAM_INFO_NUM_QUEUED));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    EXPECT_NE(0, StreamInfo<bool8_t>(STREAM_INFO_IS_GRABBING));
    Grab(300);
    EXPECT_EQ(0, wrongPixels);
    for (std::size_t i = 0; i < buffers.size(); ++i)
        EXPECT_GT(seen[i], 0) << "buffer " << i << (i < 4 ? " (own)" : " (allocated)") << " was never filled";
    EXPECT_GT(timestamps.size(), 1u) << "timestamps move";

    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    EXPECT_EQ(0, StreamInfo<bool8_t>(STREAM_INFO_IS_GRABBING));
    EXPECT_GE(StreamInfo<std::uint64_t>(STREAM_INFO_NUM_DELIVERED), 300u);
    EXPECT_GE(Read64(stream, 0x10E0000), 300u) << "StatFrameDelivered, from the driver";
    EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    EXPECT_EQ("Streaming not running.", producer.LastError().second);

    // Flushed back to the input queue, the same buffers stream again.
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_TO_INPUT));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    Grab(20);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_KILL));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    RevokeAll();
    EXPECT_EQ(0u, StreamInfo<size_t>(STREAM_INFO_NUM_ANNOUNCED));
    EXPECT_EQ(0, wrongPixels);
}

TEST_F(Acquisition, StartAndStopRules)
{
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, LORUN_FN(DSStartAcquisition)(stream, 1, GENTL_INFINITE));
    EXPECT_EQ("Unsupported start flags passed.", producer.LastError().second);
    EXPECT_EQ(GC_ERR_NOT_AVAILABLE, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << "no buffers";
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, LORUN_FN(DSStopAcquisition)(stream, 2));
    AnnounceAndQueue(3, 0);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    EXPECT_EQ("Streaming already running.", producer.LastError().second);
    std::vector<std::uint8_t> late(payloadSize);
    BUFFER_HANDLE buffer = nullptr;
    EXPECT_EQ(GC_ERR_BUSY, LORUN_FN(DSAnnounceBuffer)(stream, late.data(), late.size(), nullptr, &buffer));
    void* base = nullptr;
    void* user = nullptr;
    EXPECT_EQ(GC_ERR_BUSY, LORUN_FN(DSRevokeBuffer)(stream, buffers[0], &base, &user));
    std::uint32_t mode = 2;
    size_t size = sizeof mode;
    EXPECT_NE(GC_ERR_SUCCESS, LORUN_FN(GCWritePort)(stream, 0x1090000, &mode, &size)) << "locked while streaming";
    Grab(5);
    DS_HANDLE second = nullptr;
    EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, LORUN_FN(DevOpenDataStream)(device, "DEV_CAM-1_DS_0x0", &second));
    // Closing the device while the stream runs stops and closes everything.
    EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
    EXPECT_EQ(GC_ERR_INVALID_HANDLE, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

TEST_F(Acquisition, AWaitingConsumerIsWokenByTheStopOfAKill)
{
    AnnounceAndQueue(3, 0);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(EventKill)(newBuffer));
    EVENT_NEW_BUFFER_DATA data{};
    size_t size = sizeof data;
    EXPECT_EQ(GC_ERR_ABORT, LORUN_FN(EventGetData)(newBuffer, &data, &size, 5000)) << "a kill ends the wait";
    EXPECT_EQ(GC_ERR_TIMEOUT, LORUN_FN(EventGetData)(newBuffer, &data, &size, 20)) << "nothing streams yet";
}

TEST_F(Acquisition, ConsumerThreadsSideBySide)
{
    AnnounceAndQueue(4, 0);
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &remote));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    auto readFunctions = [&] {
        auto getInfo = LORUN_FN(DSGetInfo);
        auto readPort = LORUN_FN(GCReadPort);
        auto bufferInfo = LORUN_FN(DSGetBufferInfo);
        while (!done) {
            std::uint64_t delivered = 0, statistic = 0;
            INFO_DATATYPE type = 0;
            size_t size = sizeof delivered;
            failures += getInfo(stream, STREAM_INFO_NUM_DELIVERED, &type, &delivered, &size) != GC_ERR_SUCCESS;
            size = sizeof statistic;
            failures += readPort(stream, 0x10E0000, &statistic, &size) != GC_ERR_SUCCESS;
            size_t width = 0;
            size = sizeof width;
            // A buffer may be anywhere at this moment; asking must never fail in a bad way.
            const GC_ERROR answer = bufferInfo(stream, buffers[1], BUFFER_INFO_WIDTH, &type, &width, &size);
            failures += answer != GC_ERR_SUCCESS && answer != GC_ERR_NO_DATA && answer != GC_ERR_NOT_AVAILABLE;
        }
    };
    auto readCamera = [&] {
        auto readPort = LORUN_FN(GCReadPort);
        while (!done) {
            std::uint32_t width = 0;
            size_t size = sizeof width;
            failures += readPort(remote, 0x10200010, &width, &size) != GC_ERR_SUCCESS || width != 64;
        }
    };
    std::thread statistics(readFunctions), registers(readCamera);
    Grab(300);
    done = true;
    statistics.join();
    registers.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(0, wrongPixels);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

// A camera that sends the bare payload: the producer stands in for leader and
// trailer with the image parameters of the camera's SIRM.
class EmulatedAcquisition : public Acquisition {
protected:
    EmulatedAcquisition()
        : Acquisition("width = 64\nheight = 16\npixel_format = Mono8\nframe_rate = 0\nleader_trailer = 0\n")
    {
        emulated = true;
    }
};

TEST_F(EmulatedAcquisition, FramesWithoutLeaderAndTrailer)
{
    AnnounceAndQueue(4, 0);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    Grab(300);
    EXPECT_EQ(0, wrongPixels);
    EXPECT_EQ(1u, timestamps.size()) << "an emulated frame has no timestamp";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

}
