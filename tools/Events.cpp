#include "tools/Events.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

namespace LorunTool {

using namespace LorunClient;

namespace {

struct Watched {
    EVENT_HANDLE handle;
    EVENT_TYPE type;
    const char* name;
};

// An event data info as text: strings as they are, numbers in decimal, buffers in hexadecimal.
std::string DataInfo(GenTLProducer& producer, EVENT_HANDLE event, const void* data, size_t dataSize,
                     EVENT_DATA_INFO_CMD command)
{
    INFO_DATATYPE type = 0;
    size_t size = 0;
    if (producer.EventGetDataInfo(event, data, dataSize, command, &type, nullptr, &size) != GC_ERR_SUCCESS)
        return "";
    std::vector<unsigned char> value(size + 1, 0);
    if (producer.EventGetDataInfo(event, data, dataSize, command, &type, value.data(), &size) != GC_ERR_SUCCESS)
        return "";
    switch (type) {
    case INFO_DATATYPE_STRING:
        return reinterpret_cast<const char*>(value.data());
    case INFO_DATATYPE_INT32:
    case INFO_DATATYPE_UINT32:
    case INFO_DATATYPE_INT64:
    case INFO_DATATYPE_UINT64: {
        std::uint64_t number = 0;
        std::memcpy(&number, value.data(), std::min<size_t>(size, sizeof number));
        if (type == INFO_DATATYPE_INT32)
            return std::to_string(static_cast<std::int32_t>(number));
        return std::to_string(number);
    }
    default: {
        std::string text;
        char hex[4];
        for (size_t i = 0; i < size && i < 64; ++i) {
            std::snprintf(hex, sizeof hex, "%02X", value[i]);
            text += hex;
        }
        return text;
    }
    }
}

}

int WatchEvents(Session& session, const std::string& module, double seconds, const std::atomic<bool>& stop)
{
    GenTLProducer& producer = session.Producer();
    EVENTSRC_HANDLE source = session.Port(module);
    static const struct {
        EVENT_TYPE type;
        const char* name;
    } types[] = {{EVENT_ERROR, "error"},
                 {EVENT_FEATURE_INVALIDATE, "feature invalidate"},
                 {EVENT_FEATURE_CHANGE, "feature change"},
                 {EVENT_REMOTE_DEVICE, "camera event"},
                 {EVENT_MODULE, "module event"},
                 {1001, "device list change"}};
    std::vector<Watched> watched;
    for (const auto& entry : types) {
        EVENT_HANDLE handle = nullptr;
        if (producer.GCRegisterEvent(source, entry.type, &handle) == GC_ERR_SUCCESS)
            watched.push_back({handle, entry.type, entry.name});
    }
    if (watched.empty()) {
        std::fprintf(stderr, "The %s module offers no events to watch.\n", module.c_str());
        return 1;
    }
    std::printf("Watching %zu event type(s) of the %s module%s.\n", watched.size(), module.c_str(),
                seconds > 0 ? "" : " until Ctrl-C");
    std::fflush(stdout);
    const auto start = std::chrono::steady_clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    std::vector<unsigned char> data(std::size_t{64} * 1024);
    while (!stop && (seconds <= 0 || elapsed() < seconds)) {
        for (const Watched& w : watched) {
            size_t size = data.size();
            const GC_ERROR rc = producer.EventGetData(w.handle, data.data(), &size, 50);
            if (rc != GC_ERR_SUCCESS)
                continue;
            std::printf("%9.3f s  %-20s id %s  value %s\n", elapsed(), w.name,
                        DataInfo(producer, w.handle, data.data(), size, EVENT_DATA_ID).c_str(),
                        DataInfo(producer, w.handle, data.data(), size, EVENT_DATA_VALUE).c_str());
            std::fflush(stdout);
        }
    }
    for (const Watched& w : watched)
        producer.GCUnregisterEvent(source, w.type);
    return 0;
}

}
