// The producer's own costs through the GenTL functions, on virtual cameras whose
// frames cost the driver next to nothing (prepared frames): how soon a waiting
// consumer wakes after the driver finished a frame, what the calls of the frame
// loop cost and allocate, two cameras against one, register traffic against
// the bus, and opening a camera with and without its document cached.
#include "bench/BenchSupport.h"
#include "entry/TransportLayerHandler.h"
#include "libcsi/Config.h"
#include "libcsi/OsSeam.h"
#include "libcsi/include/libcsi/libcsi.h"
#include "sim/CameraMap.h"
#include "sim/ObservedSystem.h"
#include "sim/VirtualSystem.h"

#include <boost/filesystem.hpp>

#include <atomic>
#include <cstring>
#include <execinfo.h>
#include <linux/videodev2.h>
#include <fstream>
#include <memory>
#include <new>
#include <shared_mutex>
#include <thread>

using namespace QEL;
using namespace QEL::Bench;

// This program replaces the global allocator: every new below ends in malloc
// and every delete in free, which the compiler cannot see through.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

// Heap allocations of the calling thread, counted by the global allocator.
// LORUN_BENCH_ALLOCATION_SITES=1 prints the stack of every allocation made
// inside a measured call (addresses for addr2line), to find where they come from.
namespace {
thread_local std::uint64_t allocations = 0;
thread_local bool showSites = false;

void ShowSite()
{
    showSites = false; // backtrace itself may allocate once
    void* frames[24];
    const int depth = backtrace(frames, 24);
    std::fprintf(stderr, "allocation:\n");
    backtrace_symbols_fd(frames, depth, 2);
    showSites = true;
}
}

void* operator new(std::size_t size)
{
    ++allocations;
    if (showSites)
        ShowSite();
    if (void* memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
// Libraries allocate with the nothrow forms and release with plain delete
// (Boost.Filesystem's directory iterator does): every form must use one heap.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    ++allocations;
    return std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace {

using TL = Base::TransportLayerHandler;

// A virtual board for one group, installed for the group's life.
class Board {
public:
    explicit Board(const std::string& description)
        : system(std::make_shared<Sim::VirtualSystem>(Sim::SystemDescription::FromText(description)))
    {
        Os::Install(system);
    }
    ~Board() { Os::Install(nullptr); }
    std::shared_ptr<Sim::VirtualSystem> system;
};

std::string Camera(int index, const std::string& keys)
{
    return "[camera" + std::to_string(index) + "]\nnode = video" + std::to_string(index) + "\nport = " +
           std::to_string(2 + index) + "\nbus = " + std::to_string(2 + index) +
           "\nguid = BENCH-" + std::to_string(index) + "\nmode_switch_delay_ms = 1\n" + keys;
}

// The system and interface, opened once per board.
struct Session {
    TL_HANDLE system = nullptr;
    IF_HANDLE iface = nullptr;

    Session()
    {
        auto tl = TL::Get();
        bool8_t changed = 0;
        tl->GCInitLib();
        tl->TLOpen(&system);
        tl->TLUpdateInterfaceList(system, &changed, 100);
        tl->TLOpenInterface(system, "LorunCSIInterface_0x0", &iface);
        tl->IFUpdateDeviceList(iface, &changed, 100);
    }
    ~Session() { TL::Get()->GCCloseLib(); }
};

// One camera opened through the GenTL functions, its stream with `buffers` allocated buffers queued.
struct Stream {
    DEV_HANDLE device = nullptr;
    DS_HANDLE stream = nullptr;
    EVENT_HANDLE event = nullptr;
    std::vector<BUFFER_HANDLE> buffers;

    bool Open(const Session& session, const std::string& deviceId, int bufferCount)
    {
        auto tl = TL::Get();
        char id[256] = {};
        size_t size = sizeof id;
        if (tl->IFOpenDevice(session.iface, deviceId.c_str(), DEVICE_ACCESS_CONTROL, &device) != GC_ERR_SUCCESS)
            return false;
        tl->DevGetDataStreamID(device, 0, id, &size);
        if (tl->DevOpenDataStream(device, id, &stream) != GC_ERR_SUCCESS)
            return false;
        size_t payload = 0;
        INFO_DATATYPE type = 0;
        size = sizeof payload;
        tl->DSGetInfo(stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size);
        buffers.resize(bufferCount);
        for (auto& buffer : buffers)
            tl->DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer);
        tl->DSFlushQueue(stream, ACQ_QUEUE_ALL_TO_INPUT);
        tl->GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event);
        return tl->DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE) == GC_ERR_SUCCESS;
    }

    void Close()
    {
        auto tl = TL::Get();
        tl->DSStopAcquisition(stream, ACQ_STOP_FLAGS_DEFAULT);
        tl->DSFlushQueue(stream, ACQ_QUEUE_ALL_DISCARD);
        tl->DevClose(device);
    }
};

// Frames per second of `stream` over `frames` frames.
double Grab(Stream& s, int frames)
{
    auto tl = TL::Get();
    const double start = WallSeconds();
    int got = 0;
    while (got < frames) {
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        if (tl->EventGetData(s.event, &data, &size, 2000) != GC_ERR_SUCCESS)
            break;
        ++got;
        tl->DSQueueBuffer(s.stream, data.BufferHandle);
    }
    return got / (WallSeconds() - start);
}

// From the driver's end of a frame (the leader's timestamp, taken as the
// driver fills the buffer) to EventGetData's return in a consumer that waits,
// split where libcsi's dequeue thread has the frame back from the driver.
void WakeUpLatency()
{
    const int frames = Tiny() ? 200 : 10000;
    Board board("[system]\nboard = imx8m\n" +
                Camera(0, "width = 640\nheight = 480\nframe_rate = 500\nbus_timing = 0\nprepared_frames = 1\n"));
    // Frames reach the consumer in the order the dequeue thread took them:
    // the n-th frame taken is the n-th delivered (no faults are injected).
    std::vector<std::atomic<std::uint64_t>> dequeuedAt(static_cast<std::size_t>(frames) + 64);
    std::atomic<std::size_t> dequeued{0};
    Os::Install(std::make_shared<Sim::ObservedSystem>(board.system, nullptr, [&](unsigned long request, const void*) {
        if (request != VIDIOC_DQBUF)
            return;
        const std::size_t n = dequeued.fetch_add(1);
        if (n < dequeuedAt.size())
            dequeuedAt[n].store(SteadyNanoseconds(), std::memory_order_release);
    }));
    auto tl = TL::Get();
    Session session;
    Stream s;
    s.Open(session, "DEV_BENCH-0", 8);
    std::vector<double> whole, toDequeue, fromDequeue;
    whole.reserve(frames);
    std::size_t outOfOrder = 0;
    while (static_cast<int>(whole.size()) < frames) {
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        if (tl->EventGetData(s.event, &data, &size, 2000) != GC_ERR_SUCCESS)
            break;
        const std::uint64_t now = SteadyNanoseconds();
        std::uint64_t stamp = 0;
        INFO_DATATYPE type = 0;
        size = sizeof stamp;
        tl->DSGetBufferInfo(s.stream, data.BufferHandle, BUFFER_INFO_TIMESTAMP, &type, &stamp, &size);
        const std::uint64_t taken = dequeuedAt[whole.size()].load(std::memory_order_acquire);
        whole.push_back(static_cast<double>(now - stamp) / 1000.0);
        if (taken >= stamp && taken <= now) {
            toDequeue.push_back(static_cast<double>(taken - stamp) / 1000.0);
            fromDequeue.push_back(static_cast<double>(now - taken) / 1000.0);
        } else {
            ++outOfOrder;
        }
        tl->DSQueueBuffer(s.stream, data.BufferHandle);
    }
    s.Close();
    const std::vector<double> handOffs = MeasureHandOffs(Tiny() ? 200 : 20000).wakeUps;
    std::printf("### Wake-up latency\n\nFrom the driver filling a frame (its leader's timestamp) to EventGetData "
                "returning in a consumer that waits: %zu frames of 640x480 Mono8 at 500 fps, 8 buffers. The floor "
                "is 0; the goal is p99 <= 100 us on an idle machine. The stages split at the moment libcsi's "
                "dequeue thread has the frame back from the driver (VIDIOC_DQBUF returned); after it the frame "
                "crosses to libcsi's callback thread and then to the consumer. The last row is the floor of each "
                "crossing: one thread waking another on this machine, nothing else done.%s\n\n",
                whole.size(),
                outOfOrder ? (" " + std::to_string(outOfOrder) +
                              " frames could not be matched to their dequeue and are left out of the stages.")
                                 .c_str()
                           : "");
    auto row = [](const char* name, const std::vector<double>& values, const char* crossings) {
        return std::vector<std::string>{name, crossings, Format("%.1f", Percentile(values, 0.5)),
                                        Format("%.1f", Percentile(values, 0.99)), Format("%.1f", Percentile(values, 1.0)),
                                        Format("%.2f", Percentile(values, 0.99) / 100.0)};
    };
    PrintTable({"stage", "thread wake-ups", "p50 us", "p99 us", "max us", "p99 vs goal (100 us)"},
               {row("driver -> dequeue thread", toDequeue, "1"),
                row("dequeue thread -> EventGetData returns", fromDequeue, "2"),
                row("whole", whole, "3"), row("one wake-up, thread to thread", handOffs, "1")});
}

struct CallCost {
    explicit CallCost(std::string name) : name(std::move(name)) {}
    std::string name;
    std::vector<double> nanoseconds;
    std::uint64_t allocations = 0;
    std::uint64_t calls = 0;
};

template <class F>
void Measure(CallCost& cost, F&& call)
{
    static const bool sites = std::getenv("LORUN_BENCH_ALLOCATION_SITES") != nullptr;
    const std::uint64_t before = allocations;
    const std::uint64_t start = SteadyNanoseconds();
    showSites = sites;
    call();
    showSites = false;
    const std::uint64_t end = SteadyNanoseconds();
    cost.allocations += allocations - before;
    cost.nanoseconds.push_back(static_cast<double>(end - start));
    ++cost.calls;
}

// Nanoseconds of one uncontended take and release of `lock`.
template <class Take>
double LockNanoseconds(Take&& take)
{
    const int rounds = Tiny() ? 10000 : 2000000;
    const std::uint64_t start = SteadyNanoseconds();
    for (int n = 0; n < rounds; ++n)
        take();
    return static_cast<double>(SteadyNanoseconds() - start) / rounds;
}

// The locks every exported call takes that all threads of the process share,
// with their count per call (from the handles the call resolves) and their
// uncontended price on this machine.
void ProcessWideLocks(const std::vector<std::pair<const char*, int>>& handlesOfCalls)
{
    std::mutex mutex;
    std::shared_mutex shared;
    const double exclusive = LockNanoseconds([&] { std::lock_guard<std::mutex> lock(mutex); });
    const double reader = LockNanoseconds([&] { std::shared_lock<std::shared_mutex> lock(shared); });
    std::printf("Process-wide locks per call: the static data registry's mutex (once for the transport layer, "
                "once per handle), the handle tables' reader lock (once per handle) and the library state's mutex "
                "(twice, counting the call in and out). Uncontended, a mutex costs %.1f ns and a reader lock "
                "%.1f ns here.\n\n",
                exclusive, reader);
    std::vector<std::vector<std::string>> rows;
    for (const auto& [name, handles] : handlesOfCalls) {
        const int registry = 1 + handles, state = 2;
        rows.push_back({name, Format("%.0f", registry), Format("%.0f", handles), Format("%.0f", state),
                        Format("%.0f", (registry + state) * exclusive + handles * reader)});
    }
    PrintTable({"call", "registry mutex", "handle table reader lock", "state mutex", "ns per call, uncontended"},
               rows);
}

// The calls of the frame loop, each timed alone with the heap allocations of
// the calling thread. Frames come as fast as 16 buffers allow, so that
// EventGetData finds data waiting.
void CallCosts()
{
    const int frames = Tiny() ? 200 : 20000;
    const int repeats = Tiny() ? 1000 : 200000;
    Board board("[system]\nboard = imx8m\n" +
                Camera(0, "width = 64\nheight = 16\nframe_rate = 0\nbus_timing = 0\nprepared_frames = 1\n"));
    auto tl = TL::Get();
    Session session;
    Stream s;
    s.Open(session, "DEV_BENCH-0", 16);
    CallCost queue("DSQueueBuffer"), get("EventGetData, data waiting"), info("DSGetBufferInfo (SIZE_FILLED)"),
        port("GCReadPort, 4 bytes of a DataStream register");
    // Let the buffers fill, so that data waits.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (int n = 0; n < frames; ++n) {
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        GC_ERROR result = GC_ERR_SUCCESS;
        Measure(get, [&] { result = tl->EventGetData(s.event, &data, &size, 2000); });
        if (result != GC_ERR_SUCCESS)
            break;
        Measure(queue, [&] { tl->DSQueueBuffer(s.stream, data.BufferHandle); });
    }
    BUFFER_HANDLE buffer = s.buffers.front();
    for (int n = 0; n < repeats; ++n) {
        size_t filled = 0, size = sizeof filled;
        INFO_DATATYPE type = 0;
        Measure(info, [&] { tl->DSGetBufferInfo(s.stream, buffer, BUFFER_INFO_SIZE_FILLED, &type, &filled, &size); });
        std::uint32_t value = 0;
        size = sizeof value;
        Measure(port, [&] { tl->GCReadPort(s.stream, 0x01040000, &value, &size); });
    }
    s.Close();
    std::printf("### Cost of the hot-path calls\n\nEach call timed alone (steady clock around the call, so about "
                "40 ns of the figure is the clock), with the heap allocations of the calling thread counted by "
                "the global allocator. The floor of allocations is 0.\n\n");
    std::vector<std::vector<std::string>> rows;
    for (CallCost* c : {&queue, &get, &info, &port})
        rows.push_back({c->name, std::to_string(c->calls), Format("%.0f", Median(c->nanoseconds)),
                        Format("%.0f", Percentile(c->nanoseconds, 0.99)),
                        Format("%.2f", c->calls ? static_cast<double>(c->allocations) / c->calls : 0)});
    PrintTable({"call", "calls", "median ns", "p99 ns", "allocations per call"}, rows);
    ProcessWideLocks({{"DSQueueBuffer", 2}, {"EventGetData", 1}, {"DSGetBufferInfo", 2}, {"GCReadPort", 1}});
}

// Each camera streaming alone, then both at once, at the rate they are set to.
void TwoCameras()
{
    const int frames = Tiny() ? 50 : 1000;
    const std::string keys = "width = 640\nheight = 480\nframe_rate = 200\nbus_timing = 0\nprepared_frames = 1\n";
    Board board("[system]\nboard = imx8m\n" + Camera(0, keys) + Camera(1, keys));
    Session session;
    double alone[2] = {0, 0}, together[2] = {0, 0};
    for (int c = 0; c < 2; ++c) {
        Stream s;
        s.Open(session, "DEV_BENCH-" + std::to_string(c), 8);
        alone[c] = Grab(s, frames);
        s.Close();
    }
    Stream s[2];
    s[0].Open(session, "DEV_BENCH-0", 8);
    s[1].Open(session, "DEV_BENCH-1", 8);
    std::thread second([&] { together[1] = Grab(s[1], frames); });
    together[0] = Grab(s[0], frames);
    second.join();
    s[0].Close();
    s[1].Close();
    std::printf("### Two cameras\n\nTwo 640x480 Mono8 cameras at 200 fps each, 8 buffers each, one consumer "
                "thread per camera; the floor is each camera streaming alone. Goal: >= 0.95.\n\n");
    PrintTable({"camera", "fps alone", "fps with the other", "ratio"},
               {{"camera 0", Format("%.1f", alone[0]), Format("%.1f", together[0]), Format("%.2f", together[0] / alone[0])},
                {"camera 1", Format("%.1f", alone[1]), Format("%.1f", together[1]), Format("%.2f", together[1] / alone[1])}});
}

// GenCP reads and writes through libcsi against the time the modelled bus
// needs for the bytes that went over it (9 clocks a byte).
void RegisterTraffic()
{
    const double seconds = Tiny() ? 0.3 : 2.0;
    std::vector<std::vector<std::string>> rows;
    for (const std::uint32_t speed : {100000u, 400000u}) {
        Board board("[system]\nboard = imx8m\n" +
                    Camera(0, "bus_speed = " + std::to_string(speed) + "\nbus_timing = 1\n"));
        libcsi_init();
        libcsi_update_device_list();
        device_handle_t* device = nullptr;
        libcsi_open_device(0, &device);
        for (const bool write : {false, true})
            for (const std::uint16_t length : {std::uint16_t{4}, std::uint16_t{512}}) {
                const std::uint64_t address = write ? Sim::CameraMap::Width : Sim::CameraMap::XmlFile; // a register; the document
                const std::vector<std::uint8_t> command =
                    write ? WriteMemoryCommand(address, std::vector<std::uint8_t>(length, 0))
                          : ReadMemoryCommand(address, length);
                if (write && length > 4)
                    continue; // the camera's registers take 4 bytes; larger writes go to no register
                std::vector<std::uint8_t> ack(2048);
                auto& firmware = board.system->GetFirmware(0);
                const std::uint64_t bytesBefore = firmware.GetBusBytes();
                const double start = WallSeconds();
                int done = 0;
                while (WallSeconds() - start < seconds) {
                    std::uint64_t size = ack.size();
                    if (libcsi_write_gencp(device, command.data(), command.size(), 1000) != LIBCSI_OK ||
                        libcsi_read_gencp(device, ack.data(), &size, 1000) != LIBCSI_OK)
                        break;
                    ++done;
                }
                const double elapsed = WallSeconds() - start;
                if (done == 0)
                    continue;
                const double bytes = static_cast<double>(firmware.GetBusBytes() - bytesBefore) / done;
                const double busMs = bytes * 9.0 / speed * 1000.0;
                const double perMs = elapsed * 1000.0 / done;
                rows.push_back({std::to_string(speed / 1000) + " kHz", write ? "write" : "read",
                                std::to_string(length), Format("%.1f", done / elapsed), Format("%.0f", bytes),
                                Format("%.2f", perMs), Format("%.2f", busMs), Format("%.2f", perMs - busMs),
                                Format("%.2f", busMs / perMs)});
            }
        libcsi_close_device(device);
        libcsi_deinit();
    }
    std::printf("### Register traffic\n\nGenCP commands through libcsi (write the command, read the "
                "acknowledge), as many as fit in %.1f s. The floor is the time the bus needs for the bytes "
                "that went over it, handshake polls included; the rest is waiting: the camera's turnaround "
                "and the pauses between polls that the handshake rules prescribe. Goal: >= 0.9 of the "
                "limit where those rules allow it.\n\n",
                seconds);
    PrintTable({"bus", "kind", "bytes", "per s", "bus bytes each", "ms each", "bus ms each", "waiting ms each",
                "vs bus limit"},
               rows);
}


// Opening a camera with its document read over the control bus (cold: the
// cache emptied before each open) against the same open with the document
// taken from the disk cache (warm), on a 400 kHz bus with its timing modelled.
// Once with the camera's built-in document, once with a document of the size
// real cameras carry (the built-in one with a comment that fills it up).
void OpeningCamera(const std::string& folder, const boost::filesystem::path& cache)
{
    const int rounds = Tiny() ? 1 : 5;
    std::vector<std::vector<std::string>> rows;
    const std::string own = Board("[system]\n" + Camera(0, "")).system->GetFirmware(0).GetXML();
    for (const std::size_t padTo : {std::size_t{0}, static_cast<std::size_t>(Tiny() ? 16384 : 262144)}) {
        std::string keys = "bus_speed = 400000\nbus_timing = 1\nwidth = 640\nheight = 480\n";
        if (padTo) {
            const std::string path = folder + "/document.xml";
            const std::size_t fill = padTo > own.size() + 16 ? padTo - own.size() - 16 : 0;
            std::ofstream(path) << own << "\n<!-- " << std::string(fill, 'x') << " -->\n";
            keys += "document = " + path + "\n";
        }
        Board board("[system]\nboard = imx8m\n" + Camera(0, keys));
        auto& firmware = board.system->GetFirmware(0);
        const std::size_t documentSize = firmware.GetXML().size();
        auto tl = TL::Get();
        std::vector<double> cold, warm;
        std::uint64_t coldCommands = 0, warmCommands = 0;
        {
            Session session;
            auto open = [&](std::vector<double>& times, std::uint64_t& commands) {
                DEV_HANDLE device = nullptr;
                const std::uint64_t before = firmware.GetCommandCount();
                const double start = WallSeconds();
                const GC_ERROR result = tl->IFOpenDevice(session.iface, "DEV_BENCH-0", DEVICE_ACCESS_CONTROL, &device);
                const double elapsed = WallSeconds() - start;
                commands = firmware.GetCommandCount() - before;
                if (result == GC_ERR_SUCCESS) {
                    times.push_back(elapsed * 1000.0);
                    tl->DevClose(device);
                }
            };
            for (int round = 0; round < rounds; ++round) {
                boost::system::error_code ignored;
                boost::filesystem::remove_all(cache, ignored);
                open(cold, coldCommands);
                open(warm, warmCommands);
            }
        }
        const double coldMs = Median(cold), warmMs = Median(warm);
        rows.push_back({Format("%.0f", static_cast<double>(documentSize) / 1024.0), std::to_string(coldCommands),
                        std::to_string(warmCommands), Format("%.1f", coldMs), Format("%.1f", warmMs),
                        Format("%.1f", warmCommands ? warmMs / static_cast<double>(warmCommands) : 0),
                        Format("%.3f", coldMs > 0 ? warmMs / coldMs : 0)});
    }
    std::printf("### Opening a camera\n\nIFOpenDevice of a camera on a 400 kHz control bus, median of %d opens "
                "each: cold with the document read from the camera (the cache emptied first), warm with the "
                "document from the disk cache; GenCP commands counted by the camera. The floor is the cold open; "
                "goal: warm <= 0.1 x cold. A warm open still makes the register reads every open makes "
                "(bootstrap, manifest, stream and capability registers), so its time is those commands' bus "
                "time.\n\n",
                rounds);
    PrintTable({"document KiB", "commands cold", "commands warm", "cold ms", "warm ms", "warm ms per command",
                "warm / cold"},
               rows);
}

}

int main()
{
    LibCSIImpl::TheConfig().logLevel = 0;
    const std::string folder =
        (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("lorun-bench-%%%%")).string();
    boost::filesystem::create_directories(folder);
    LibCSIImpl::TheConfig().directory = folder;
    // The producer reads its settings beside itself (here: beside this
    // program) when first used; they give the document cache a folder.
    const boost::filesystem::path settings =
        boost::filesystem::read_symlink("/proc/self/exe").replace_extension(".xml");
    const boost::filesystem::path cache = boost::filesystem::path(folder) / "cache";
    std::ofstream(settings.string()) << "<Settings><XMLCacheFolder>" << cache.string()
                                     << "</XMLCacheFolder></Settings>\n";
    WakeUpLatency();
    CallCosts();
    TwoCameras();
    RegisterTraffic();
    OpeningCamera(folder, cache);
    boost::system::error_code ignored;
    boost::filesystem::remove(settings, ignored);
    boost::filesystem::remove_all(folder, ignored);
    return 0;
}
