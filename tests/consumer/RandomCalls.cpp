#include "tests/consumer/RandomCalls.h"

#include <algorithm>
#include <cstring>

namespace QEL { namespace Test {

namespace {

constexpr std::size_t MaxOwnMemory = 64u << 20;
constexpr std::size_t MaxBuffersKept = 256;

// Forged handles: small numbers, an address on the stack, a wild one.
void* Forged(Choices& choices)
{
    static int onData = 0;
    switch (choices.Below(4)) {
    case 0: return reinterpret_cast<void*>(static_cast<std::uintptr_t>(1 + choices.Below(64)));
    case 1: return &onData;
    case 2: return reinterpret_cast<void*>(static_cast<std::uintptr_t>(choices.Next() & ~std::uint64_t{7}));
    default: return nullptr;
    }
}

}

void HandlePool::Add(Kind kind, const Entry& entry)
{
    if (!entry.handle)
        return;
    std::lock_guard<std::mutex> lock(mutex);
    auto& list = entries[kind];
    if (list.size() >= MaxBuffersKept)
        list.erase(list.begin());
    list.push_back(entry);
}

HandlePool::Entry HandlePool::Pick(Kind kind, Choices& choices)
{
    Entry entry;
    if (choices.OneIn(32)) {
        entry.handle = Forged(choices);
        return entry;
    }
    if (choices.OneIn(16))
        kind = static_cast<Kind>(choices.Below(KindCount));
    std::lock_guard<std::mutex> lock(mutex);
    const auto& list = entries[kind];
    if (list.empty())
        return entry;
    // The newest handles are the likeliest to be alive.
    const std::size_t back = choices.OneIn(4) ? choices.Below(list.size()) : choices.Below(std::min<std::size_t>(list.size(), 3));
    return list[list.size() - 1 - back];
}

void* HandlePool::OwnMemory(std::size_t size)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (size == 0 || memoryBytes + size > MaxOwnMemory)
        return nullptr;
    memory.emplace_back(new std::uint64_t[(size + 7) / 8]);
    memoryBytes += size;
    return memory.back().get();
}

std::size_t HandlePool::Count(Kind kind)
{
    std::lock_guard<std::mutex> lock(mutex);
    return entries[kind].size();
}

bool RandomCaller::IsGenTLResult(GC_ERROR result)
{
    return result == GC_ERR_SUCCESS || (result <= GC_ERR_ERROR && result >= GC_ERR_BUSY);
}

GC_ERROR RandomCaller::Call(Choices& choices, bool withLibraryCalls)
{
    // Closed and opened again at once: the other threads' calls meet both,
    // and the library is open most of the time.
    if (withLibraryCalls && choices.OneIn(4000)) {
        lastFunction = "GCCloseLib";
        const GC_ERROR closed = gentl.GCCloseLib();
        if (!IsGenTLResult(closed))
            return closed;
        lastFunction = "GCInitLib";
        return gentl.GCInitLib();
    }
    switch (choices.Below(6)) {
    case 0: return Open(choices);
    case 1: return Stream(choices);
    case 2: return Events(choices);
    case 3: return Ports(choices);
    case 4: return Infos(choices);
    default: return Chain(choices);
    }
}

GC_ERROR RandomCaller::Chain(Choices& choices)
{
    using K = HandlePool;
    char id[256] = {};
    size_t size = sizeof id;
    bool8_t changed = 0;
    lastFunction = "TLOpen";
    TL_HANDLE tl = nullptr;
    GC_ERROR result = gentl.TLOpen(&tl);
    if (result == GC_ERR_RESOURCE_IN_USE)
        tl = pool.Pick(K::System, choices).handle;
    else if (result != GC_ERR_SUCCESS)
        return result;
    pool.Add(K::System, {tl});
    lastFunction = "TLUpdateInterfaceList";
    if ((result = gentl.TLUpdateInterfaceList(tl, &changed, 100)) != GC_ERR_SUCCESS)
        return result;
    lastFunction = "TLOpenInterface";
    if ((result = gentl.TLGetInterfaceID(tl, static_cast<uint32_t>(choices.Below(2)), id, &size)) != GC_ERR_SUCCESS)
        return result;
    IF_HANDLE iface = nullptr;
    if ((result = gentl.TLOpenInterface(tl, id, &iface)) != GC_ERR_SUCCESS)
        return result;
    pool.Add(K::Interface, {iface});
    lastFunction = "IFUpdateDeviceList";
    if ((result = gentl.IFUpdateDeviceList(iface, &changed, 100)) != GC_ERR_SUCCESS)
        return result;
    lastFunction = "IFOpenDevice";
    size = sizeof id;
    if ((result = gentl.IFGetDeviceID(iface, static_cast<uint32_t>(choices.Below(2)), id, &size)) != GC_ERR_SUCCESS)
        return result;
    DEV_HANDLE device = nullptr;
    if ((result = gentl.IFOpenDevice(iface, id, DEVICE_ACCESS_CONTROL, &device)) != GC_ERR_SUCCESS)
        return result;
    pool.Add(K::Device, {device});
    PORT_HANDLE port = nullptr;
    if (gentl.DevGetPort(device, &port) == GC_ERR_SUCCESS)
        pool.Add(K::Port, {port});
    lastFunction = "DevOpenDataStream";
    size = sizeof id;
    if ((result = gentl.DevGetDataStreamID(device, 0, id, &size)) != GC_ERR_SUCCESS)
        return result;
    DS_HANDLE stream = nullptr;
    if ((result = gentl.DevOpenDataStream(device, id, &stream)) != GC_ERR_SUCCESS)
        return result;
    pool.Add(K::Stream, {stream});
    size_t payload = 0;
    size = sizeof payload;
    INFO_DATATYPE type = 0;
    lastFunction = "DSGetInfo";
    if ((result = gentl.DSGetInfo(stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size)) != GC_ERR_SUCCESS)
        return result;
    lastFunction = "DSAllocAndAnnounceBuffer";
    for (int i = 0; i < 3; ++i) {
        BUFFER_HANDLE buffer = nullptr;
        if ((result = gentl.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer)) != GC_ERR_SUCCESS)
            return result;
        pool.Add(K::Buffer, {buffer, stream});
    }
    lastFunction = "DSFlushQueue";
    if ((result = gentl.DSFlushQueue(stream, ACQ_QUEUE_ALL_TO_INPUT)) != GC_ERR_SUCCESS)
        return result;
    EVENT_HANDLE event = nullptr;
    lastFunction = "GCRegisterEvent";
    if ((result = gentl.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event)) != GC_ERR_SUCCESS)
        return result;
    pool.Add(K::Event, {event, stream, EVENT_NEW_BUFFER});
    lastFunction = "DSStartAcquisition";
    if ((result = gentl.DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE)) != GC_ERR_SUCCESS)
        return result;
    lastFunction = "EventGetData";
    EVENT_NEW_BUFFER_DATA data{};
    size = sizeof data;
    return gentl.EventGetData(event, &data, &size, 500);
}

GC_ERROR RandomCaller::Open(Choices& choices)
{
    using K = HandlePool;
    // A close undoes much; it is rarer than the calls that build up.
    if (choices.OneIn(24)) {
        switch (choices.Below(4)) {
        case 0: lastFunction = "TLClose"; return gentl.TLClose(pool.Pick(K::System, choices).handle);
        case 1: lastFunction = "IFClose"; return gentl.IFClose(pool.Pick(K::Interface, choices).handle);
        case 2: lastFunction = "DevClose"; return gentl.DevClose(pool.Pick(K::Device, choices).handle);
        default: lastFunction = "DSClose"; return gentl.DSClose(pool.Pick(K::Stream, choices).handle);
        }
    }
    char id[256] = {};
    size_t size = sizeof id;
    switch (choices.Below(6)) {
    case 0: {
        lastFunction = "TLOpen";
        TL_HANDLE tl = nullptr;
        const GC_ERROR result = gentl.TLOpen(&tl);
        pool.Add(K::System, {tl});
        return result;
    }
    case 1: {
        lastFunction = "TLUpdateInterfaceList";
        bool8_t changed = 0;
        void* tl = pool.Pick(K::System, choices).handle;
        return gentl.TLUpdateInterfaceList(tl, &changed, choices.Below(20));
    }
    case 2: {
        lastFunction = "TLOpenInterface";
        void* tl = pool.Pick(K::System, choices).handle;
        uint32_t count = 0;
        gentl.TLGetNumInterfaces(tl, &count);
        if (GC_ERROR result = gentl.TLGetInterfaceID(tl, static_cast<uint32_t>(choices.Below(count + 1)), id, &size))
            return result;
        IF_HANDLE iface = nullptr;
        const GC_ERROR result = gentl.TLOpenInterface(tl, id, &iface);
        pool.Add(K::Interface, {iface});
        return result;
    }
    case 3: {
        lastFunction = "IFUpdateDeviceList";
        bool8_t changed = 0;
        void* iface = pool.Pick(K::Interface, choices).handle;
        return gentl.IFUpdateDeviceList(iface, &changed, choices.Below(50));
    }
    case 4: {
        lastFunction = "IFOpenDevice";
        void* iface = pool.Pick(K::Interface, choices).handle;
        uint32_t count = 0;
        gentl.IFGetNumDevices(iface, &count);
        if (GC_ERROR result = gentl.IFGetDeviceID(iface, static_cast<uint32_t>(choices.Below(count + 1)), id, &size))
            return result;
        DEV_HANDLE device = nullptr;
        const GC_ERROR result =
            gentl.IFOpenDevice(iface, id, static_cast<DEVICE_ACCESS_FLAGS>(choices.Below(6)), &device);
        pool.Add(K::Device, {device});
        PORT_HANDLE port = nullptr;
        if (device && gentl.DevGetPort(device, &port) == GC_ERR_SUCCESS)
            pool.Add(K::Port, {port});
        return result;
    }
    default: {
        lastFunction = "DevOpenDataStream";
        void* device = pool.Pick(K::Device, choices).handle;
        if (GC_ERROR result = gentl.DevGetDataStreamID(device, static_cast<uint32_t>(choices.Below(2)), id, &size))
            return result;
        DS_HANDLE stream = nullptr;
        const GC_ERROR result = gentl.DevOpenDataStream(device, id, &stream);
        pool.Add(K::Stream, {stream});
        return result;
    }
    }
}

GC_ERROR RandomCaller::Stream(Choices& choices)
{
    using K = HandlePool;
    const HandlePool::Entry buffer = pool.Pick(K::Buffer, choices);
    void* stream = choices.OneIn(8) ? pool.Pick(K::Stream, choices).handle : buffer.owner;
    switch (choices.Below(10)) {
    case 0:
    case 1: {
        lastFunction = "DSAllocAndAnnounceBuffer";
        stream = pool.Pick(K::Stream, choices).handle;
        size_t payload = 0;
        size_t size = sizeof payload;
        INFO_DATATYPE type = 0;
        if (gentl.DSGetInfo(stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size) != GC_ERR_SUCCESS ||
            choices.OneIn(4))
            payload = choices.Below(1u << 16);
        payload = std::min<size_t>(payload, 8u << 20);
        BUFFER_HANDLE handle = nullptr;
        void* own = choices.OneIn(2) ? pool.OwnMemory(payload) : nullptr;
        const GC_ERROR result = own ? gentl.DSAnnounceBuffer(stream, own, payload, nullptr, &handle)
                                    : gentl.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &handle);
        pool.Add(K::Buffer, {handle, stream});
        return result;
    }
    case 2:
    case 3: lastFunction = "DSQueueBuffer"; return gentl.DSQueueBuffer(stream, buffer.handle);
    case 4: {
        lastFunction = "DSRevokeBuffer";
        void* memory = nullptr;
        void* privateData = nullptr;
        return gentl.DSRevokeBuffer(stream, buffer.handle, choices.OneIn(2) ? &memory : nullptr, &privateData);
    }
    case 5:
        lastFunction = "DSFlushQueue";
        return gentl.DSFlushQueue(stream, static_cast<ACQ_QUEUE_TYPE>(choices.Below(6)));
    case 6: {
        lastFunction = "DSStartAcquisition";
        const auto flags = static_cast<ACQ_START_FLAGS>(choices.Below(2));
        return gentl.DSStartAcquisition(stream, flags, choices.OneIn(2) ? GENTL_INFINITE : choices.Below(20));
    }
    case 7:
        lastFunction = "DSStopAcquisition";
        return gentl.DSStopAcquisition(stream, static_cast<ACQ_STOP_FLAGS>(choices.Below(3)));
    case 8: {
        lastFunction = "DSGetBufferChunkData";
        SINGLE_CHUNK_DATA chunks[4];
        size_t count = choices.Below(5);
        return gentl.DSGetBufferChunkData(stream, buffer.handle, choices.OneIn(4) ? nullptr : chunks, &count);
    }
    default: {
        lastFunction = "DSGetBufferID";
        BUFFER_HANDLE handle = nullptr;
        const GC_ERROR result = gentl.DSGetBufferID(stream, static_cast<uint32_t>(choices.Below(8)), &handle);
        return result;
    }
    }
}

GC_ERROR RandomCaller::Events(Choices& choices)
{
    using K = HandlePool;
    const HandlePool::Entry event = pool.Pick(K::Event, choices);
    switch (choices.Below(7)) {
    case 0:
    case 1: {
        lastFunction = "GCRegisterEvent";
        static const K::Kind sources[] = {K::System, K::Interface, K::Device, K::Stream, K::Port};
        void* source = pool.Pick(sources[choices.Below(5)], choices).handle;
        const auto type = static_cast<EVENT_TYPE>(choices.Below(7));
        EVENT_HANDLE handle = nullptr;
        const GC_ERROR result = gentl.GCRegisterEvent(source, type, &handle);
        pool.Add(K::Event, {handle, source, type});
        return result;
    }
    case 2: lastFunction = "GCUnregisterEvent"; return gentl.GCUnregisterEvent(event.owner, event.type);
    case 3:
    case 4: {
        lastFunction = "EventGetData";
        std::uint64_t data[64];
        size_t size = choices.Below(sizeof data + 1);
        void* out = choices.OneIn(8) ? nullptr : data;
        return gentl.EventGetData(event.handle, out, &size,
                                  mayWaitForever && choices.OneIn(64) ? GENTL_INFINITE : choices.Below(20));
    }
    case 5: lastFunction = "EventKill"; return gentl.EventKill(event.handle);
    default: {
        if (choices.OneIn(2)) {
            lastFunction = "EventFlush";
            return gentl.EventFlush(event.handle);
        }
        lastFunction = "EventGetDataInfo";
        std::uint8_t in[64];
        for (auto& byte : in)
            byte = static_cast<std::uint8_t>(choices.Next());
        char out[64];
        size_t outSize = choices.Below(sizeof out + 1);
        INFO_DATATYPE type = 0;
        const size_t inSize = choices.Below(sizeof in + 1);
        return gentl.EventGetDataInfo(event.handle, in, inSize, static_cast<EVENT_DATA_INFO_CMD>(choices.Below(4)),
                                      &type, out, &outSize);
    }
    }
}

GC_ERROR RandomCaller::Ports(Choices& choices)
{
    using K = HandlePool;
    static const K::Kind owners[] = {K::System, K::Interface, K::Device, K::Stream, K::Port, K::Buffer};
    void* port = pool.Pick(owners[choices.Below(6)], choices).handle;
    // Mostly the first registers of a space, where the modules keep theirs.
    const std::uint64_t address = choices.OneIn(4) ? choices.Next() : choices.Below(0x400) & ~std::uint64_t{3};
    std::uint8_t data[600] = {};
    size_t size = choices.OneIn(2) ? 4 : choices.Below(sizeof data + 1);
    switch (choices.Below(6)) {
    case 0:
    case 1: lastFunction = "GCReadPort"; return gentl.GCReadPort(port, address, data, &size);
    case 2:
        // Writes to the camera's registers would change its image as well;
        // they are rarer than reads.
        lastFunction = "GCWritePort";
        for (std::size_t i = 0; i < size; ++i)
            data[i] = static_cast<std::uint8_t>(choices.Below(4));
        return gentl.GCWritePort(port, address, data, &size);
    case 3: {
        lastFunction = "GCReadPortStacked";
        PORT_REGISTER_STACK_ENTRY entries[3];
        for (auto& entry : entries)
            entry = {choices.Below(0x400), data + 8 * choices.Below(60), static_cast<size_t>(1 + choices.Below(8))};
        size_t count = choices.Below(4);
        return gentl.GCReadPortStacked(port, entries, &count);
    }
    case 4: {
        lastFunction = "GCGetPortURLInfo";
        uint32_t count = 0;
        gentl.GCGetNumPortURLs(port, &count);
        char url[128];
        size_t urlSize = choices.Below(sizeof url + 1);
        gentl.GCGetPortURL(port, choices.OneIn(4) ? nullptr : url, &urlSize);
        INFO_DATATYPE type = 0;
        size_t infoSize = sizeof data;
        const auto index = static_cast<uint32_t>(choices.Below(count + 1));
        return gentl.GCGetPortURLInfo(port, index, static_cast<URL_INFO_CMD>(choices.Below(12)), &type, data,
                                      &infoSize);
    }
    default: {
        lastFunction = "GCGetPortInfo";
        INFO_DATATYPE type = 0;
        return gentl.GCGetPortInfo(port, static_cast<PORT_INFO_CMD>(choices.Below(16)), &type,
                                   choices.OneIn(8) ? nullptr : data, &size);
    }
    }
}

GC_ERROR RandomCaller::Infos(Choices& choices)
{
    using K = HandlePool;
    std::uint64_t data[64] = {};
    size_t size = choices.OneIn(2) ? sizeof data : choices.Below(sizeof data + 1);
    void* out = choices.OneIn(8) ? nullptr : data;
    INFO_DATATYPE type = 0;
    const auto command = static_cast<std::int32_t>(choices.OneIn(16) ? 1000 + choices.Below(4) : choices.Below(40));
    char id[128] = {};
    size_t idSize = sizeof id;
    switch (choices.Below(11)) {
    case 0: lastFunction = "GCGetInfo"; return gentl.GCGetInfo(command, &type, out, &size);
    case 1: {
        lastFunction = "GCGetLastError";
        GC_ERROR code = 0;
        return gentl.GCGetLastError(&code, static_cast<char*>(out), &size);
    }
    case 2: lastFunction = "TLGetInfo"; return gentl.TLGetInfo(pool.Pick(K::System, choices).handle, command, &type, out, &size);
    case 3: {
        lastFunction = "TLGetInterfaceInfo";
        void* tl = pool.Pick(K::System, choices).handle;
        gentl.TLGetInterfaceID(tl, 0, id, &idSize);
        return gentl.TLGetInterfaceInfo(tl, id, command, &type, out, &size);
    }
    case 4: lastFunction = "IFGetInfo"; return gentl.IFGetInfo(pool.Pick(K::Interface, choices).handle, command, &type, out, &size);
    case 5: {
        lastFunction = "IFGetDeviceInfo";
        void* iface = pool.Pick(K::Interface, choices).handle;
        gentl.IFGetDeviceID(iface, static_cast<uint32_t>(choices.Below(2)), id, &idSize);
        return gentl.IFGetDeviceInfo(iface, id, command, &type, out, &size);
    }
    case 6: lastFunction = "DevGetInfo"; return gentl.DevGetInfo(pool.Pick(K::Device, choices).handle, command, &type, out, &size);
    case 7: lastFunction = "DSGetInfo"; return gentl.DSGetInfo(pool.Pick(K::Stream, choices).handle, command, &type, out, &size);
    case 8: {
        lastFunction = "DSGetBufferInfo";
        const HandlePool::Entry buffer = pool.Pick(K::Buffer, choices);
        if (choices.OneIn(4)) {
            uint32_t parts = 0;
            gentl.DSGetNumBufferParts(buffer.owner, buffer.handle, &parts);
            return gentl.DSGetBufferPartInfo(buffer.owner, buffer.handle, static_cast<uint32_t>(choices.Below(2)),
                                             command, &type, out, &size);
        }
        return gentl.DSGetBufferInfo(buffer.owner, buffer.handle, command, &type, out, &size);
    }
    case 9: lastFunction = "EventGetInfo"; return gentl.EventGetInfo(pool.Pick(K::Event, choices).handle, command, &type, out, &size);
    default: {
        lastFunction = "parents";
        void* parent = nullptr;
        gentl.IFGetParentTL(pool.Pick(K::Interface, choices).handle, &parent);
        gentl.DevGetParentIF(pool.Pick(K::Device, choices).handle, &parent);
        return gentl.DSGetParentDev(pool.Pick(K::Stream, choices).handle, &parent);
    }
    }
}

} }
