// Sixteen threads calling the exported functions at random, across
// GCInitLib/GCCloseLib cycles, some of them called by the threads themselves:
// every call returns, with a GenTL result, and the producer is usable after.
#include "tests/consumer/ProducerLoader.h"
#include "tests/consumer/RandomCalls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

namespace {

using namespace QEL::Test;
using Clock = std::chrono::steady_clock;

class RandomChoices : public Choices {
public:
    explicit RandomChoices(std::uint64_t seed) : generator(seed) {}
    std::uint64_t Next() override { return generator(); }

private:
    std::mt19937_64 generator;
};

constexpr int Threads = 16;
constexpr int Cycles = 3;
constexpr int CallsPerCycle = 1000;
// A call or a closing GCCloseLib ends within this, or the test stops with
// the functions every thread was in.
constexpr auto Stuck = std::chrono::seconds(120);

struct Worker {
    std::atomic<const char*> function{""};
    std::atomic<bool> finished{false};
};

struct OpenCamera {
    TL_HANDLE tl = nullptr;
    IF_HANDLE iface = nullptr;
    DEV_HANDLE device = nullptr;
    DS_HANDLE stream = nullptr;
};

// The first virtual camera and its stream, opened as a consumer opens them.
void Open(const GenTLFunctions& gentl, OpenCamera& camera)
{
    bool8_t changed = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.TLOpen(&camera.tl));
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.TLUpdateInterfaceList(camera.tl, &changed, 100));
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.TLOpenInterface(camera.tl, "LorunCSIInterface_0x0", &camera.iface));
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.IFUpdateDeviceList(camera.iface, &changed, 100));
    ASSERT_EQ(GC_ERR_SUCCESS,
              gentl.IFOpenDevice(camera.iface, "DEV_VIRTUAL-CAMERA-0001", DEVICE_ACCESS_CONTROL, &camera.device));
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.DevOpenDataStream(camera.device, "DEV_VIRTUAL-CAMERA-0001_DS_0x0", &camera.stream));
}

// Streams frames on a camera as a consumer would after all that.
void ExpectUsable(const GenTLFunctions& gentl)
{
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.GCInitLib());
    OpenCamera camera;
    Open(gentl, camera);
    DS_HANDLE stream = camera.stream;
    EVENT_HANDLE newBuffer = nullptr;
    size_t payload = 0, size = sizeof payload;
    INFO_DATATYPE type = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.DSGetInfo(stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size));
    for (int i = 0; i < 3; ++i) {
        BUFFER_HANDLE buffer = nullptr;
        ASSERT_EQ(GC_ERR_SUCCESS, gentl.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer));
    }
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.DSFlushQueue(stream, ACQ_QUEUE_ALL_TO_INPUT));
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &newBuffer));
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    for (int frame = 0; frame < 20; ++frame) {
        EVENT_NEW_BUFFER_DATA data{};
        size = sizeof data;
        ASSERT_EQ(GC_ERR_SUCCESS, gentl.EventGetData(newBuffer, &data, &size, 2000)) << "frame " << frame;
        size_t filled = 0;
        size = sizeof filled;
        EXPECT_EQ(GC_ERR_SUCCESS, gentl.DSGetBufferInfo(stream, data.BufferHandle, BUFFER_INFO_SIZE_FILLED, &type,
                                                        &filled, &size));
        EXPECT_EQ(payload, filled);
        ASSERT_EQ(GC_ERR_SUCCESS, gentl.DSQueueBuffer(stream, data.BufferHandle));
    }
    EXPECT_EQ(GC_ERR_SUCCESS, gentl.DSStopAcquisition(stream, ACQ_STOP_FLAGS_DEFAULT));
    EXPECT_EQ(GC_ERR_SUCCESS, gentl.GCCloseLib());
}

}

// Asking a module for its parent locks the module; handing the parent out
// locks the parent. Opening a child locks the parent, then the child. Done at
// once on two threads, the first order must not meet the second.
TEST(Stress, ParentQueriesBesideOpensOfChildrenNeverDeadlock)
{
    ProducerLoader producer;
    std::ofstream(producer.File("cameras.ini")) << "[camera0]\nbus_timing = 0\nmode_switch_delay_ms = 2\n";
    setenv("LORUN_VIRTUAL_CAMERA", producer.File("cameras.ini").c_str(), 1);
    const GenTLFunctions gentl = GenTLFunctions::FromLibrary(producer.Library());
    ASSERT_EQ(GC_ERR_SUCCESS, gentl.GCInitLib());
    OpenCamera camera;
    Open(gentl, camera);
    TL_HANDLE tl = camera.tl;
    IF_HANDLE iface = camera.iface;
    DEV_HANDLE device = camera.device;
    DS_HANDLE stream = camera.stream;

    constexpr int Rounds = 20000;
    std::atomic<int> done{0};
    std::atomic<int> failures{0};
    auto count = [&](GC_ERROR result) { failures += result != GC_ERR_SUCCESS; };
    std::thread parents([&] {
        for (int i = 0; i < Rounds; ++i) {
            void* parent = nullptr;
            count(gentl.IFGetParentTL(iface, &parent));
            count(gentl.DevGetParentIF(device, &parent));
            count(gentl.DSGetParentDev(stream, &parent));
        }
        ++done;
    });
    std::thread children([&] {
        for (int i = 0; i < Rounds; ++i) {
            // Looks at the open interface under the system's lock, and refuses.
            void* child = nullptr;
            failures += gentl.TLOpenInterface(tl, "LorunCSIInterface_0x0", &child) != GC_ERR_RESOURCE_IN_USE;
            uint32_t count32 = 0;
            count(gentl.IFGetNumDevices(iface, &count32));
            count(gentl.DevGetNumDataStreams(device, &count32));
        }
        ++done;
    });
    const auto deadline = Clock::now() + Stuck;
    while (done < 2 && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (done < 2) {
        // The threads hold the producer's locks for ever; nothing can end them.
        std::fprintf(stderr, "deadlock: parent queries and opens of children did not finish\n");
        std::fflush(stderr);
        std::abort();
    }
    parents.join();
    children.join();
    EXPECT_EQ(0, failures.load());
    unsetenv("LORUN_VIRTUAL_CAMERA");
}

TEST(Stress, SixteenThreadsCallAtRandomAcrossLibraryCycles)
{
    // Declared first, so that memory announced to the producer outlives its GCCloseLib.
    HandlePool pool;
    ProducerLoader producer;
    std::ofstream(producer.File("cameras.ini"))
        << "[camera0]\nnode = video0\nport = 2\nbus = 2\nwidth = 64\nheight = 16\nframe_rate = 500\n"
           "bus_timing = 0\nmode_switch_delay_ms = 2\n"
           "[camera1]\nnode = video1\nport = 3\nbus = 3\nwidth = 32\nheight = 8\npixel_format = Mono12\n"
           "frame_rate = 500\nbus_timing = 0\nmode_switch_delay_ms = 2\nleader_trailer = 0\n";
    setenv("LORUN_VIRTUAL_CAMERA", producer.File("cameras.ini").c_str(), 1);
    const GenTLFunctions gentl = GenTLFunctions::FromLibrary(producer.Library());

    std::atomic<std::uint64_t> calls{0}, foreignResults{0};
    std::mutex successesMutex;
    std::map<std::string, int> successes;
    for (int cycle = 0; cycle < Cycles; ++cycle) {
        ASSERT_EQ(GC_ERR_SUCCESS, gentl.GCInitLib());
        Worker workers[Threads];
        std::vector<std::thread> threads;
        for (int t = 0; t < Threads; ++t)
            threads.emplace_back([&, t] {
                RandomChoices choices(1000u * cycle + t);
                RandomCaller caller(gentl, pool, true);
                std::map<std::string, int> own;
                for (int i = 0; i < CallsPerCycle; ++i) {
                    const GC_ERROR result = caller.Call(choices, true);
                    workers[t].function = caller.LastFunction();
                    if (!RandomCaller::IsGenTLResult(result)) {
                        std::fprintf(stderr, "%s gave %d\n", caller.LastFunction(), result);
                        ++foreignResults;
                    }
                    if (result == GC_ERR_SUCCESS)
                        ++own[caller.LastFunction()];
                    ++calls;
                }
                {
                    std::lock_guard<std::mutex> lock(successesMutex);
                    for (const auto& entry : own)
                        successes[entry.first] += entry.second;
                }
                workers[t].finished = true;
            });
        // A thread may wait without a time-out on an event nobody kills;
        // GCCloseLib ends such waits. Nothing moving for much longer is a hang.
        std::uint64_t seen = calls;
        auto lastProgress = Clock::now();
        for (;;) {
            int finished = 0;
            for (const Worker& worker : workers)
                finished += worker.finished;
            if (finished == Threads)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (calls != seen) {
                seen = calls;
                lastProgress = Clock::now();
            } else if (Clock::now() - lastProgress > std::chrono::seconds(1)) {
                gentl.GCCloseLib();
            }
            if (Clock::now() - lastProgress > Stuck) {
                for (int t = 0; t < Threads; ++t)
                    if (!workers[t].finished)
                        std::fprintf(stderr, "thread %d stuck after %s\n", t, workers[t].function.load());
                std::fflush(stderr);
                std::abort();
            }
        }
        for (auto& thread : threads)
            thread.join();
        // A thread's own GCCloseLib may have been the last word.
        const GC_ERROR closed = gentl.GCCloseLib();
        EXPECT_TRUE(closed == GC_ERR_SUCCESS || closed == GC_ERR_NOT_INITIALIZED) << closed;
    }
    EXPECT_EQ(0u, foreignResults.load());
    // Random handles fail most calls; frames must still have flowed for the load to be real.
    for (const auto& entry : successes)
        std::printf("%-28s %6d succeeded\n", entry.first.c_str(), entry.second);
    EXPECT_GT(successes["DSStartAcquisition"], 0);
    EXPECT_GT(successes["EventGetData"], 0);
    EXPECT_GT(successes["DSQueueBuffer"], 0);
    ExpectUsable(gentl);
    unsetenv("LORUN_VIRTUAL_CAMERA");
}
