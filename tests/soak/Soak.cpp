// Hours of acquisition in one process: every camera streams, the devices are
// closed and opened again every few seconds and the whole library every few
// rounds. Once a minute the process's memory, descriptors and threads are
// printed; at the end they are compared with the first sample taken after
// warm-up (four rounds, the whole library's among them).
//   lorun-soak PRODUCER SECONDS [REOPEN_SECONDS] [REPORT_SECONDS]
#include "tests/consumer/GenTLFunctions.h"

#include <dirent.h>
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Usage {
    long rssKB = 0;
    long descriptors = 0;
    long threads = 0;
};

long StatusField(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, name.size() + 1, name + ":") == 0)
            return std::atol(line.c_str() + name.size() + 1);
    return -1;
}

Usage Measure()
{
    Usage usage;
    usage.rssKB = StatusField("VmRSS");
    usage.threads = StatusField("Threads");
    if (DIR* fds = opendir("/proc/self/fd")) {
        while (readdir(fds))
            ++usage.descriptors;
        closedir(fds);
        usage.descriptors -= 3; // ".", ".." and the listing's own
    }
    return usage;
}

struct Camera {
    DEV_HANDLE device = nullptr;
    DS_HANDLE stream = nullptr;
    EVENT_HANDLE newBuffer = nullptr;
};

class Soak {
public:
    explicit Soak(const GenTLFunctions& gentl) : gentl(gentl) {}

    // Opens the library if closed, then every camera with four buffers, streaming.
    bool Open()
    {
        if (!libraryOpen) {
            if (!Check(gentl.GCInitLib(), "GCInitLib"))
                return false;
            libraryOpen = true;
            bool8_t changed = 0;
            if (!Check(gentl.TLOpen(&tl), "TLOpen") || !Check(gentl.TLUpdateInterfaceList(tl, &changed, 500), "TLUpdateInterfaceList"))
                return false;
            char id[256];
            size_t size = sizeof id;
            if (!Check(gentl.TLGetInterfaceID(tl, 0, id, &size), "TLGetInterfaceID") ||
                !Check(gentl.TLOpenInterface(tl, id, &iface), "TLOpenInterface"))
                return false;
        }
        bool8_t changed = 0;
        uint32_t count = 0;
        if (!Check(gentl.IFUpdateDeviceList(iface, &changed, 500), "IFUpdateDeviceList") ||
            !Check(gentl.IFGetNumDevices(iface, &count), "IFGetNumDevices"))
            return false;
        for (uint32_t i = 0; i < count; ++i) {
            char id[256];
            size_t size = sizeof id;
            Camera camera;
            if (!Check(gentl.IFGetDeviceID(iface, i, id, &size), "IFGetDeviceID") ||
                !Check(gentl.IFOpenDevice(iface, id, DEVICE_ACCESS_CONTROL, &camera.device), "IFOpenDevice"))
                return false;
            size = sizeof id;
            if (!Check(gentl.DevGetDataStreamID(camera.device, 0, id, &size), "DevGetDataStreamID") ||
                !Check(gentl.DevOpenDataStream(camera.device, id, &camera.stream), "DevOpenDataStream"))
                return false;
            size_t payload = 0;
            size = sizeof payload;
            INFO_DATATYPE type = 0;
            if (!Check(gentl.DSGetInfo(camera.stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size), "DSGetInfo"))
                return false;
            for (int b = 0; b < 4; ++b) {
                BUFFER_HANDLE buffer = nullptr;
                if (!Check(gentl.DSAllocAndAnnounceBuffer(camera.stream, payload, nullptr, &buffer), "DSAllocAndAnnounceBuffer"))
                    return false;
            }
            if (!Check(gentl.DSFlushQueue(camera.stream, ACQ_QUEUE_ALL_TO_INPUT), "DSFlushQueue") ||
                !Check(gentl.GCRegisterEvent(camera.stream, EVENT_NEW_BUFFER, &camera.newBuffer), "GCRegisterEvent") ||
                !Check(gentl.DSStartAcquisition(camera.stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), "DSStartAcquisition"))
                return false;
            cameras.push_back(camera);
        }
        return !cameras.empty();
    }

    // One frame from each camera, queued again at once.
    bool Acquire()
    {
        for (const Camera& camera : cameras) {
            EVENT_NEW_BUFFER_DATA data{};
            size_t size = sizeof data;
            const GC_ERROR result = gentl.EventGetData(camera.newBuffer, &data, &size, 2000);
            if (result == GC_ERR_TIMEOUT) {
                ++timeouts;
                continue;
            }
            if (!Check(result, "EventGetData") || !Check(gentl.DSQueueBuffer(camera.stream, data.BufferHandle), "DSQueueBuffer"))
                return false;
            ++frames;
        }
        return true;
    }

    // Stops and closes every camera; the library too when asked.
    bool Close(bool library)
    {
        bool good = true;
        for (const Camera& camera : cameras) {
            good = Check(gentl.DSStopAcquisition(camera.stream, ACQ_STOP_FLAGS_DEFAULT), "DSStopAcquisition") && good;
            good = Check(gentl.DSFlushQueue(camera.stream, ACQ_QUEUE_ALL_DISCARD), "DSFlushQueue") && good;
            good = Check(gentl.DevClose(camera.device), "DevClose") && good;
        }
        cameras.clear();
        if (library && libraryOpen) {
            good = Check(gentl.GCCloseLib(), "GCCloseLib") && good;
            libraryOpen = false;
        }
        return good;
    }

    unsigned long long frames = 0;
    unsigned long long timeouts = 0;

private:
    bool Check(GC_ERROR result, const char* function)
    {
        if (result == GC_ERR_SUCCESS)
            return true;
        GC_ERROR code = 0;
        char text[512] = "";
        size_t size = sizeof text;
        gentl.GCGetLastError(&code, text, &size);
        std::fprintf(stderr, "%s failed: %d %s\n", function, result, text);
        return false;
    }

    const GenTLFunctions& gentl;
    bool libraryOpen = false;
    TL_HANDLE tl = nullptr;
    IF_HANDLE iface = nullptr;
    std::vector<Camera> cameras;
};

}

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s PRODUCER SECONDS [REOPEN_SECONDS] [REPORT_SECONDS]\n", argv[0]);
        return 2;
    }
    const auto total = std::chrono::seconds(std::atol(argv[2]));
    const auto reopenEvery = std::chrono::seconds(argc > 3 ? std::atol(argv[3]) : 5);
    const auto reportEvery = std::chrono::seconds(argc > 4 ? std::atol(argv[4]) : 60);
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    const GenTLFunctions gentl = GenTLFunctions::FromLibrary(library);
    Soak soak(gentl);

    const auto start = Clock::now();
    auto nextReopen = start + reopenEvery;
    auto nextReport = start + reportEvery;
    unsigned long rounds = 0;
    unsigned long long framesAtReport = 0;
    std::vector<Usage> samples;
    std::printf("%8s %10s %8s %10s %6s %8s\n", "seconds", "frames", "frames/s", "rss_kb", "fds", "threads");
    if (!soak.Open())
        return 1;
    while (Clock::now() - start < total) {
        if (!soak.Acquire())
            return 1;
        if (Clock::now() >= nextReopen) {
            // Every fourth round closes the whole library, the others the cameras only.
            if (!soak.Close(++rounds % 4 == 0) || !soak.Open())
                return 1;
            nextReopen += reopenEvery;
        }
        if (Clock::now() >= nextReport) {
            const Usage usage = Measure();
            // Warmed up once a round of each kind, the whole library's too, has run:
            // caches, allocator pools, and under emulation the translated code, are full.
            if (rounds >= 4)
                samples.push_back(usage);
            const double seconds = std::chrono::duration<double>(reportEvery).count();
            std::printf("%8.0f %10llu %8.1f %10ld %6ld %8ld\n",
                        std::chrono::duration<double>(Clock::now() - start).count(), soak.frames,
                        (soak.frames - framesAtReport) / seconds, usage.rssKB, usage.descriptors, usage.threads);
            std::fflush(stdout);
            framesAtReport = soak.frames;
            nextReport += reportEvery;
        }
    }
    if (!soak.Close(true))
        return 1;
    std::printf("%llu frames, %llu waits timed out, %lu reopens\n", soak.frames, soak.timeouts, rounds);
    if (soak.frames == 0 || (total >= reopenEvery && rounds == 0)) {
        std::printf("NO FRAMES OR NO REOPENS\n");
        return 1;
    }
    if (samples.size() < 2)
        return 0;
    // The first sample is after warm-up; growth after it is a leak.
    const Usage& first = samples.front();
    const Usage& last = samples.back();
    const long allowedKB = first.rssKB / 10 + 4096;
    // qemu-user keeps about 280 KB for every thread the program ever started,
    // so under emulation the resident size grows with each reopen whatever we do.
    const bool emulated = std::getenv("LORUN_SOAK_EMULATED") != nullptr;
    bool flat = true;
    if (last.rssKB - first.rssKB > allowedKB) {
        std::printf("memory grew from %ld KB to %ld KB (more than %ld KB)%s\n", first.rssKB, last.rssKB, allowedKB,
                    emulated ? ", not judged under emulation" : "");
        flat = emulated;
    }
    if (last.descriptors > first.descriptors) {
        std::printf("descriptors grew from %ld to %ld\n", first.descriptors, last.descriptors);
        flat = false;
    }
    if (last.threads > first.threads) {
        std::printf("threads grew from %ld to %ld\n", first.threads, last.threads);
        flat = false;
    }
    std::printf(!flat ? "NOT FLAT\n"
                      : emulated ? "descriptors and threads stayed flat\n"
                                 : "memory, descriptors and threads stayed flat\n");
    return flat ? 0 : 1;
}
