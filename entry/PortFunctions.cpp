// The port and event functions of the transport layer.
#include "entry/BasicTransportLayer.h"
#include "framework/BaseEvent.h"
#include "framework/BasePort.h"
#include "framework/BaseRoles.h"

#include <cstring>

namespace QEL { namespace Base {

GC_ERROR BasicTransportLayer::GCReadPort(PORT_HANDLE hPort, uint64_t iAddress, void* pBuffer, size_t* piSize)
{
    return RunBody("Could not read from port.", [&] { Locked<Port>(hPort)->ReadPort(iAddress, pBuffer, piSize); });
}

GC_ERROR BasicTransportLayer::GCWritePort(PORT_HANDLE hPort, uint64_t iAddress, const void* pBuffer, size_t* piSize)
{
    return RunBody("Could not write to port.", [&] { Locked<Port>(hPort)->WritePort(iAddress, pBuffer, piSize); });
}

GC_ERROR BasicTransportLayer::GCGetPortURL(PORT_HANDLE hPort, char* sURL, size_t* piSize)
{
    return RunBody("Could not get port URL.", [&] {
        Require(piSize, "No size passed.");
        std::vector<std::string> urls = Locked<Port>(hPort)->GetPortURLs();
        // Each non-empty URL with its terminator, and one more zero at the end.
        std::string list;
        for (const std::string& url : urls)
            if (!url.empty())
                list.append(url).push_back('\0');
        list.push_back('\0');
        if (urls.empty() || list.size() == 1)
            list.push_back('\0');
        if (sURL) {
            if (*piSize < list.size())
                throw Exception("Size too small.", GC_ERR_BUFFER_TOO_SMALL);
            std::memcpy(sURL, list.data(), list.size()); // NOLINT(bugprone-not-null-terminated-result): `list` ends in its terminator
        }
        *piSize = list.size();
    });
}

GC_ERROR BasicTransportLayer::GCGetNumPortURLs(PORT_HANDLE hPort, uint32_t* piNumURLs)
{
    return RunBody("Could not get number of port URLs.", [&] {
        Require(piNumURLs, "No number of port URLs passed.");
        *piNumURLs = static_cast<uint32_t>(Locked<Port>(hPort)->GetPortURLs().size());
    });
}

GC_ERROR BasicTransportLayer::GCGetPortInfo(PORT_HANDLE hPort, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                                            void* pBuffer, size_t* piSize)
{
    const char* text = "Could not get port info.";
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        // No guard here: the port locks itself, and a buffer is told apart
        // from other handles that are no port.
        auto object = Handleable::FromHandle(hPort);
        auto port = std::dynamic_pointer_cast<Port>(object);
        if (!port) {
            if (std::dynamic_pointer_cast<Buffer>(object))
                throw Exception("Buffer does not implement a port.", GC_ERR_NOT_IMPLEMENTED);
            throw Exception("Invalid handle passed.", GC_ERR_INVALID_HANDLE);
        }
        answer([&] { return port->GetPortInfo(iInfoCmd); },
               [&](INFO_DATATYPE* type) { return port->GetPortInfoSize(iInfoCmd, type); });
    });
}

GC_ERROR BasicTransportLayer::GCGetPortURLInfo(PORT_HANDLE hPort, uint32_t iURLIndex, URL_INFO_CMD iInfoCmd,
                                               INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    const char* text = "Could not get port URL info.";
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        Locked<Port> port(hPort);
        answer([&] { return port->GetPortURLInfo(iURLIndex, iInfoCmd); },
               [&](INFO_DATATYPE* type) { return port->GetPortURLInfoSize(iURLIndex, iInfoCmd, type); });
    });
}

namespace {

// Zeroes the count before anything else, so that a refused call, also one
// turned away by the library state, reports no entries done.
size_t TakeEntryCount(size_t* piNumEntries)
{
    size_t count = piNumEntries ? *piNumEntries : 0;
    if (piNumEntries)
        *piNumEntries = 0;
    return count;
}

template <class Operation>
void Stacked(PORT_REGISTER_STACK_ENTRY* pEntries, size_t* piNumEntries, size_t count, Operation operation)
{
    if (!pEntries)
        throw Exception("No register stack entries passed.", GC_ERR_INVALID_PARAMETER);
    if (!piNumEntries)
        throw Exception("No number of register stack entries passed.", GC_ERR_INVALID_PARAMETER);
    operation(Port::StackEntries(pEntries, pEntries + count));
}

}

GC_ERROR BasicTransportLayer::GCReadPortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries,
                                                size_t* piNumEntries)
{
    const size_t count = TakeEntryCount(piNumEntries);
    return RunBody("Could not read stacked from port.", [&] {
        Stacked(pEntries, piNumEntries, count, [&](const Port::StackEntries& entries) {
            Locked<Port>(hPort)->ReadPortStacked(entries, piNumEntries);
        });
    });
}

GC_ERROR BasicTransportLayer::GCWritePortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries,
                                                 size_t* piNumEntries)
{
    const size_t count = TakeEntryCount(piNumEntries);
    return RunBody("Could not write stacked from port.", [&] {
        Stacked(pEntries, piNumEntries, count, [&](const Port::StackEntries& entries) {
            Locked<Port>(hPort)->WritePortStacked(entries, piNumEntries);
        });
    });
}

GC_ERROR BasicTransportLayer::GCRegisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID, EVENT_HANDLE* phEvent)
{
    return RunBody("Could not register event.", [&] {
        Require(phEvent, "No event handle passed.");
        HandOut(Locked<Module>(hEventSrc)->RegisterEvent(iEventID), phEvent, "Could not register event.");
    });
}

GC_ERROR BasicTransportLayer::GCUnregisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID)
{
    return RunBody("Could not unregister event.", [&] { Locked<Module>(hEventSrc)->UnregisterEvent(iEventID); });
}

GC_ERROR BasicTransportLayer::EventGetData(EVENT_HANDLE hEvent, void* pBuffer, size_t* piSize, uint64_t iTimeout)
{
    // A wait that runs out is returned, not thrown, and leaves no last error.
    return RunBody("Could not get event data.",
                   [&]() -> GC_ERROR { return Locked<Event>(hEvent)->GetData(pBuffer, piSize, iTimeout); });
}

GC_ERROR BasicTransportLayer::EventGetDataInfo(EVENT_HANDLE hEvent, const void* pInBuffer, size_t iInSize,
                                               EVENT_DATA_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pOutBuffer,
                                               size_t* piOutSize)
{
    const char* text = "Could not get event data info.";
    return AnswerInfo(text, text, piType, pOutBuffer, piOutSize, [&](auto answer) {
        Locked<Event> event(hEvent);
        answer([&] { return event->GetDataInfo(pInBuffer, iInSize, iInfoCmd); },
               [&](INFO_DATATYPE* type) { return event->GetDataInfoSize(pInBuffer, iInSize, iInfoCmd, type); });
    });
}

GC_ERROR BasicTransportLayer::EventGetInfo(EVENT_HANDLE hEvent, EVENT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                                           void* pBuffer, size_t* piSize)
{
    const char* text = "Could not get event info.";
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        Locked<Event> event(hEvent);
        answer([&] { return event->GetInfo(iInfoCmd); },
               [&](INFO_DATATYPE* type) { return event->GetInfoSize(iInfoCmd, type); });
    });
}

GC_ERROR BasicTransportLayer::EventFlush(EVENT_HANDLE hEvent)
{
    return RunBody("Could not flush event.", [&] { Locked<Event>(hEvent)->Flush(); });
}

GC_ERROR BasicTransportLayer::EventKill(EVENT_HANDLE hEvent)
{
    return RunBody("Could not kill event.", [&] { Locked<Event>(hEvent)->Kill(); });
}

} }
