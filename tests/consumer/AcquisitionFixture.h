#pragma once

// A consumer that opens the first virtual camera through the built producer
// and acquires from it: buffers of its own and allocated ones, every pixel of
// each frame checked against the virtual camera's pattern.
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

#define LORUN_FN(name) producer.Symbol<decltype(&::name)>(#name)

inline const std::string DefaultCamera = "width = 64\nheight = 16\npixel_format = Mono8\nframe_rate = 0\n";

class Acquisition : public ::testing::Test {
protected:
    struct Setup {
        explicit Setup(std::string cameraKeys = DefaultCamera, std::string systemKeys = "", std::string config = "",
                       bool dynamicBuffers = false)
            : camera(std::move(cameraKeys)), system(std::move(systemKeys)), libcsiConfig(std::move(config)),
              dynamicBufferHandling(dynamicBuffers)
        {
        }
        std::string camera;       // keys of [camera0]
        std::string system;       // keys of [system]
        std::string libcsiConfig; // libcsi.cfg beside the producer, read as it loads
        bool dynamicBufferHandling; // GCInitLibEx's flag: buffers announced and revoked while streaming
    };

    Acquisition() : Acquisition(Setup{}) {}
    explicit Acquisition(const Setup& setup) : producer("", setup.libcsiConfig)
    {
        std::ofstream(producer.File("cameras.ini"))
            << "[system]\n" << setup.system << "[camera0]\nguid = CAM-1\nbus_timing = 0\n" << setup.camera;
        emulated = setup.camera.find("leader_trailer = 0") != std::string::npos;
        chunks = setup.camera.find("chunk_data = 1") != std::string::npos;
        setenv("LORUN_VIRTUAL_CAMERA", producer.File("cameras.ini").c_str(), 1);
        EXPECT_EQ(GC_ERR_SUCCESS, setup.dynamicBufferHandling ? producer.GCInitLibEx(1) : producer.GCInitLib());
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(TLOpen)(&tl));
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(TLOpenInterface)(tl, "LorunCSIInterface_0x0", &interface));
        bool8_t changed = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(IFUpdateDeviceList)(interface, &changed, 100));
        OpenCamera();
    }

    // Opens the camera and its data stream, with an EVENT_NEW_BUFFER event and no buffers.
    void OpenCamera()
    {
        buffers.clear();
        lastFrameId = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(IFOpenDevice)(interface, "DEV_CAM-1", DEVICE_ACCESS_CONTROL, &device))
            << producer.LastError().second;
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

    // Announces `own` buffers of the consumer and `allocated` ones of the producer,
    // of `size` bytes or the payload size, and queues them all.
    void AnnounceAndQueue(std::size_t own, std::size_t allocated, std::size_t size = 0)
    {
        if (size == 0)
            size = payloadSize;
        memory.resize(own);
        for (std::size_t i = 0; i < own; ++i) {
            memory[i].assign(size + Alignment, 0);
            BUFFER_HANDLE buffer = nullptr;
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSAnnounceBuffer)(stream, OwnBuffer(i), size,
                                                                 reinterpret_cast<void*>(buffers.size()), &buffer))
                << producer.LastError().second;
            buffers.push_back(buffer);
        }
        for (std::size_t i = 0; i < allocated; ++i) {
            BUFFER_HANDLE buffer = nullptr;
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSAllocAndAnnounceBuffer)(
                                          stream, size, reinterpret_cast<void*>(buffers.size()), &buffer))
                << producer.LastError().second;
            buffers.push_back(buffer);
        }
        for (BUFFER_HANDLE buffer : buffers)
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, buffer));
    }

    // The consumer's buffer `i`, aligned as the driver wants user pointers.
    std::uint8_t* OwnBuffer(std::size_t i)
    {
        auto address = reinterpret_cast<std::uintptr_t>(memory[i].data());
        return memory[i].data() + (Alignment - address % Alignment) % Alignment;
    }

    // Takes `count` frames, checks each, and queues its buffer again.
    void Grab(std::size_t count)
    {
        for (std::size_t frame = 0; frame < count; ++frame) {
            BUFFER_HANDLE buffer = nullptr;
            ASSERT_NO_FATAL_FAILURE(buffer = TakeChecked(frame));
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, buffer));
        }
    }

    // Waits for the next frame and checks it; its buffer, not queued again
    // (check with ASSERT_NO_FATAL_FAILURE). The user pointer of each buffer is
    // its index in `buffers`.
    BUFFER_HANDLE TakeChecked(std::size_t frame)
    {
        BUFFER_HANDLE buffer = nullptr;
        [&] {
            const auto& format = QEL::Sim::PixelFormatByName("Mono8");
            EVENT_NEW_BUFFER_DATA data{};
            size_t size = sizeof data;
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(EventGetData)(newBuffer, &data, &size, 5000))
                << "frame " << frame << ": " << producer.LastError().second;
            const auto index = reinterpret_cast<std::uintptr_t>(data.pUserPointer);
            ASSERT_LT(index, buffers.size());
            ASSERT_EQ(buffers[index], data.BufferHandle);
            buffer = data.BufferHandle;
            const auto id = BufferInfo<std::uint64_t>(buffer, BUFFER_INFO_FRAMEID);
            EXPECT_GT(id, lastFrameId);
            lastFrameId = id;
            EXPECT_EQ(width, BufferInfo<size_t>(buffer, BUFFER_INFO_WIDTH));
            EXPECT_EQ(height, BufferInfo<size_t>(buffer, BUFFER_INFO_HEIGHT));
            EXPECT_EQ(format.pfnc, BufferInfo<std::uint64_t>(buffer, BUFFER_INFO_PIXELFORMAT));
            // With leader and trailer the frame fills the payload; emulated, it
            // is as large as the camera's valid payload, the image itself.
            EXPECT_EQ(emulated ? width * height : payloadSize, BufferInfo<size_t>(buffer, BUFFER_INFO_SIZE_FILLED));
            if (chunks)
                CheckChunks(buffer, id);
            EXPECT_EQ(0, BufferInfo<bool8_t>(buffer, BUFFER_INFO_IS_INCOMPLETE));
            EXPECT_NE(0, BufferInfo<bool8_t>(buffer, BUFFER_INFO_NEW_DATA));
            EXPECT_EQ(std::size_t{chunks ? PAYLOAD_TYPE_CHUNK_DATA : PAYLOAD_TYPE_IMAGE},
                      BufferInfo<size_t>(buffer, BUFFER_INFO_PAYLOADTYPE));
            timestamps.insert(BufferInfo<std::uint64_t>(buffer, BUFFER_INFO_TIMESTAMP));
            const auto* image = static_cast<const std::uint8_t*>(BufferInfo<void*>(buffer, BUFFER_INFO_BASE));
            // Emulated frame IDs are the producer's count, not the camera's: the
            // camera's block ID is then read from the first pixel of its ramp.
            const std::uint64_t block = emulated ? image[0] : id;
            for (std::uint32_t y = 0; y < height; ++y)
                for (std::uint32_t x = 0; x < width; ++x)
                    if (QEL::Sim::ReadSample(image, width, x, y, 0, format) !=
                        QEL::Sim::PatternSample(x, y, 0, block, format, 0))
                        ++wrongPixels;
            ++seen[index];
        }();
        return buffer;
    }

    // Announces and queues buffers, starts, takes `frames` checked frames and stops.
    void StreamVerified(std::size_t own, std::size_t allocated, std::size_t frames)
    {
        AnnounceAndQueue(own, allocated);
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
            << producer.LastError().second;
        Grab(frames);
        EXPECT_EQ(0, wrongPixels);
        for (std::size_t i = 0; i < buffers.size(); ++i)
            EXPECT_GT(seen[i], 0) << "buffer " << i << " was never filled";
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    }

    // The virtual camera's chunks: the image first, then the block ID.
    void CheckChunks(BUFFER_HANDLE buffer, std::uint64_t frameId)
    {
        EXPECT_NE(0, BufferInfo<bool8_t>(buffer, BUFFER_INFO_CONTAINS_CHUNKDATA));
        EXPECT_EQ(1u, BufferInfo<std::uint64_t>(buffer, BUFFER_INFO_CHUNKLAYOUTID));
        EXPECT_EQ(16u, BufferInfo<size_t>(buffer, BUFFER_INFO_DELIVERED_CHUNKPAYLOADSIZE)) << "the last chunk";
        SINGLE_CHUNK_DATA chunk[3] = {};
        size_t count = 3;
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSGetBufferChunkData)(stream, buffer, chunk, &count))
            << producer.LastError().second;
        ASSERT_EQ(2u, count);
        EXPECT_EQ(0xA5A5A5A5u, chunk[0].ChunkID);
        EXPECT_EQ(0u, chunk[0].ChunkOffset);
        EXPECT_EQ(payloadSize - 24, chunk[0].ChunkLength) << "the image with its padding";
        EXPECT_EQ(0x1001u, chunk[1].ChunkID);
        EXPECT_EQ(8u, chunk[1].ChunkLength);
        const auto* base = static_cast<const std::uint8_t*>(BufferInfo<void*>(buffer, BUFFER_INFO_BASE));
        std::uint64_t block = 0;
        std::memcpy(&block, base + chunk[1].ChunkOffset, sizeof block);
        EXPECT_EQ(frameId, block);
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
    bool chunks = false;
    std::uint32_t width = 64, height = 16; // of the frames Grab expects
    static constexpr std::size_t Alignment = 256;
};


