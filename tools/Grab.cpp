#include "tools/Grab.h"

#include "client/FeatureTree.h"
#include "client/InfoOf.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <vector>

namespace LorunTool {

using namespace LorunClient;

namespace {

using Clock = std::chrono::steady_clock;

struct Counts {
    std::uint64_t frames = 0, incomplete = 0, lost = 0, bytes = 0, saved = 0;
    std::uint64_t lastFrameId = 0;
    bool haveFrameId = false;
};

void Progress(GenTLProducer& producer, DS_HANDLE stream, const Counts& counts, double seconds, bool terminal)
{
    size_t queued = 0;
    StreamInfo(producer, stream, STREAM_INFO_NUM_QUEUED, queued);
    const double fps = seconds > 0 ? static_cast<double>(counts.frames) / seconds : 0;
    const double mbps = seconds > 0 ? static_cast<double>(counts.bytes) / seconds / 1e6 : 0;
    if (terminal)
        std::printf("\r\033[K");
    std::printf("frames %llu  %.1f fps  %.1f MB/s  incomplete %llu  lost %llu  queued %zu",
                static_cast<unsigned long long>(counts.frames), fps, mbps,
                static_cast<unsigned long long>(counts.incomplete), static_cast<unsigned long long>(counts.lost),
                queued);
    if (!terminal)
        std::printf("\n");
    std::fflush(stdout);
}

void Summary(Session& session, const Counts& counts, double seconds)
{
    GenTLProducer& producer = session.Producer();
    DS_HANDLE stream = session.Stream();
    std::uint64_t underruns = 0, delivered = 0;
    StreamInfo(producer, stream, STREAM_INFO_NUM_UNDERRUN, underruns);
    StreamInfo(producer, stream, STREAM_INFO_NUM_DELIVERED, delivered);
    auto row = [](const char* name, const std::string& value) { std::printf("%-28s %s\n", name, value.c_str()); };
    auto number = [](double value, int digits) {
        char text[64];
        std::snprintf(text, sizeof text, "%.*f", digits, value);
        return std::string(text);
    };
    std::printf("\n%-28s %s\n%-28s %s\n", "Summary", "Value", "----------------------------", "-----");
    row("Camera", session.DeviceId());
    row("Frames", std::to_string(counts.frames));
    row("Seconds", number(seconds, 2));
    row("Frames per second", number(seconds > 0 ? counts.frames / seconds : 0, 1));
    row("MB per second", number(seconds > 0 ? counts.bytes / seconds / 1e6 : 0, 1));
    row("Incomplete", std::to_string(counts.incomplete));
    row("Lost (frame ID gaps)", std::to_string(counts.lost));
    row("Underruns", std::to_string(underruns));
    row("Delivered (DataStream)", std::to_string(delivered));
    row("Images saved", std::to_string(counts.saved));
    // The DataStream's own statistics, where its document has them.
    try {
        FeatureTree features(producer, stream);
        for (const char* name : {"StatFrameDelivered", "StatFrameCRCError", "StatFrameIncomplete", "StatFrameUnderrun",
                                 "StatFrameRate"})
            if (features.Has(name))
                try {
                    row(name, features.Get(name));
                } catch (const std::exception&) {
                    row(name, "(unreadable)");
                }
    } catch (const std::exception&) {
    }
}

}

int Grab(Session& session, const GrabOptions& options, const std::atomic<bool>& stop)
{
    // Before the camera is touched: a folder that cannot take the images ends the grab at once.
    if (!options.saveFolder.empty() && ::mkdir(options.saveFolder.c_str(), 0755) != 0) {
        const int error = errno;
        struct stat status {};
        if (error != EEXIST || ::stat(options.saveFolder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            std::fprintf(stderr, "Cannot save images in %s: %s\n", options.saveFolder.c_str(),
                         std::strerror(error == EEXIST ? ENOTDIR : error));
            return 1;
        }
    }
    GenTLProducer& producer = session.Producer();
    session.OpenDevice(options.deviceId);
    session.OpenStream();
    DS_HANDLE stream = session.Stream();

    size_t payload = 0;
    INFO_DATATYPE type = 0;
    size_t size = sizeof payload;
    producer.Check(producer.DSGetInfo(stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size),
                   "DSGetInfo STREAM_INFO_PAYLOAD_SIZE");
    std::vector<BUFFER_HANDLE> buffers;
    EVENT_HANDLE newBuffer = nullptr;
    bool acquiring = false;
    // Whatever ends the acquisition, it ends with buffers revoked and the stream stopped.
    auto cleanUp = [&] {
        if (acquiring)
            producer.DSStopAcquisition(stream, ACQ_STOP_FLAGS_KILL);
        acquiring = false;
        producer.DSFlushQueue(stream, ACQ_QUEUE_ALL_DISCARD);
        for (BUFFER_HANDLE buffer : buffers) {
            void* base = nullptr;
            void* user = nullptr;
            producer.DSRevokeBuffer(stream, buffer, &base, &user);
        }
        buffers.clear();
        if (newBuffer)
            producer.GCUnregisterEvent(stream, EVENT_NEW_BUFFER);
        newBuffer = nullptr;
    };
    Counts counts;
    const auto start = Clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    int result = 0;
    try {
        for (std::uint32_t i = 0; i < options.buffers; ++i) {
            BUFFER_HANDLE buffer = nullptr;
            producer.Check(producer.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer),
                           "DSAllocAndAnnounceBuffer");
            buffers.push_back(buffer);
            producer.Check(producer.DSQueueBuffer(stream, buffer), "DSQueueBuffer");
        }
        producer.Check(producer.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &newBuffer), "GCRegisterEvent");
        producer.Check(producer.DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE),
                       "DSStartAcquisition");
        acquiring = true;
        auto lastShown = Clock::now();
        const auto interval = std::chrono::milliseconds(options.progressOnTerminal ? 200 : 1000);
        int quietWaits = 0;
        while (!stop && (options.frames == 0 || counts.frames < options.frames) &&
               (options.seconds <= 0 || elapsed() < options.seconds)) {
            EVENT_NEW_BUFFER_DATA data{};
            size = sizeof data;
            const GC_ERROR rc = producer.EventGetData(newBuffer, &data, &size, 200);
            if (rc == GC_ERR_TIMEOUT) {
                // Five quiet waits in a row: is the camera still there?
                if (++quietWaits % 5 == 0 && !session.DevicePresent())
                    throw ProducerError(GC_ERR_NOT_AVAILABLE, "The camera " + session.DeviceId() + " was pulled out.");
                continue;
            }
            producer.Check(rc, "EventGetData");
            quietWaits = 0;
            bool8_t incomplete = 0;
            BufferInfo(producer, stream, data.BufferHandle, BUFFER_INFO_IS_INCOMPLETE, incomplete);
            if (incomplete) {
                ++counts.incomplete;
            } else {
                ++counts.frames;
                std::uint64_t frameId = 0;
                if (BufferInfo(producer, stream, data.BufferHandle, BUFFER_INFO_FRAMEID, frameId)) {
                    if (counts.haveFrameId && frameId > counts.lastFrameId + 1)
                        counts.lost += frameId - counts.lastFrameId - 1;
                    counts.lastFrameId = frameId;
                    counts.haveFrameId = true;
                }
                size_t filled = 0;
                BufferInfo(producer, stream, data.BufferHandle, BUFFER_INFO_SIZE_FILLED, filled);
                counts.bytes += filled;
                if (!options.saveFolder.empty() && (counts.frames - 1) % options.every == 0) {
                    void* base = nullptr;
                    size_t width = 0, height = 0;
                    std::uint64_t pfnc = 0;
                    BufferInfo(producer, stream, data.BufferHandle, BUFFER_INFO_BASE, base);
                    BufferInfo(producer, stream, data.BufferHandle, BUFFER_INFO_WIDTH, width);
                    BufferInfo(producer, stream, data.BufferHandle, BUFFER_INFO_HEIGHT, height);
                    BufferInfo(producer, stream, data.BufferHandle, BUFFER_INFO_PIXELFORMAT, pfnc);
                    char name[64];
                    std::snprintf(name, sizeof name, "/frame-%06llu.%s", static_cast<unsigned long long>(frameId),
                                  Extension(options.format));
                    SaveImage(options.saveFolder + name, options.format, pfnc, static_cast<std::uint32_t>(width),
                              static_cast<std::uint32_t>(height), static_cast<const std::uint8_t*>(base), filled);
                    ++counts.saved;
                }
            }
            producer.Check(producer.DSQueueBuffer(stream, data.BufferHandle), "DSQueueBuffer");
            if (Clock::now() - lastShown >= interval) {
                lastShown = Clock::now();
                Progress(producer, stream, counts, elapsed(), options.progressOnTerminal);
            }
        }
    } catch (const ProducerError& e) {
        std::printf("\n");
        std::fprintf(stderr, "%s\n", e.what());
        result = 1;
    } catch (const std::runtime_error& e) { // an image that could not be saved
        std::printf("\n");
        std::fprintf(stderr, "%s\n", e.what());
        result = 1;
    }
    const double seconds = elapsed();
    if (acquiring)
        Progress(producer, stream, counts, seconds, options.progressOnTerminal);
    cleanUp();
    Summary(session, counts, seconds);
    // Lost frames are the camera's data, not a failure of the grab: a camera
    // that runs at its own rate loses frames whenever the consumer is slow.
    if (counts.lost)
        std::fprintf(stderr, "Warning: %llu frames lost (frame ID gaps).\n",
                     static_cast<unsigned long long>(counts.lost));
    return result;
}

}
