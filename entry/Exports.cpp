// The exported GenTL functions: each one fetches the transport layer, traces
// itself and hands the call on unchanged. Nothing may throw across this file.
#include "entry/CallTrace.h"
#include "base/GenTL.h"
#include "entry/TransportLayerHandler.h"

namespace {

using QEL::Base::TraceParam;
using QEL::Base::TraceParams;
using TL = QEL::Base::TransportLayer;

template <class Call> GC_ERROR Exported(const char* name, TraceParams inputs, TraceParams outputs, Call call) noexcept
{
    try {
        // The transport layer installs the log, so fetch it first: the very
        // first call of the process is traced too.
        auto transportLayer = QEL::Base::TransportLayerHandler::Get();
        QEL::Base::CallTrace trace(name, inputs);
        GC_ERROR result = transportLayer ? call(*transportLayer) : GC_ERR_NOT_INITIALIZED;
        trace.Finish(result, transportLayer.get(), outputs);
        return result;
    } catch (...) {
        return GC_ERR_ERROR;
    }
}

} // namespace

extern "C" {

GC_API GCGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return Exported("GCGetInfo",
                    {TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.GCGetInfo(iInfoCmd, piType, pBuffer, piSize); });
}

GC_API GCGetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize)
{
    return Exported("GCGetLastError", {TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piErrorCode", piErrorCode), TraceParam::String("sErrText", sErrText),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.GCGetLastError(piErrorCode, sErrText, piSize); });
}

GC_API GCInitLib(void)
{
    return Exported("GCInitLib", {}, {}, [&](TL& tl) { return tl.GCInitLib(); });
}

GC_API GCInitLibEx(uint32_t iFlags)
{
    return Exported("GCInitLibEx", {TraceParam::UInt32("iFlags", iFlags)}, {},
                    [&](TL& tl) { return tl.GCInitLibEx(iFlags); });
}

GC_API GCCloseLib(void)
{
    return Exported("GCCloseLib", {}, {}, [&](TL& tl) { return tl.GCCloseLib(); });
}

GC_API GCReadPort(PORT_HANDLE hPort, uint64_t iAddress, void* pBuffer, size_t* piSize)
{
    return Exported("GCReadPort",
                    {TraceParam::Pointer("hPort", hPort), TraceParam::UInt64("iAddress", iAddress),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.GCReadPort(hPort, iAddress, pBuffer, piSize); });
}

GC_API GCWritePort(PORT_HANDLE hPort, uint64_t iAddress, const void* pBuffer, size_t* piSize)
{
    return Exported("GCWritePort",
                    {TraceParam::Pointer("hPort", hPort), TraceParam::UInt64("iAddress", iAddress),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.GCWritePort(hPort, iAddress, pBuffer, piSize); });
}

GC_API GCGetPortURL(PORT_HANDLE hPort, char* sURL, size_t* piSize)
{
    return Exported("GCGetPortURL", {TraceParam::Pointer("hPort", hPort), TraceParam::Size("piSize", piSize)},
                    {TraceParam::String("sURL", sURL), TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.GCGetPortURL(hPort, sURL, piSize); });
}

GC_API GCGetNumPortURLs(PORT_HANDLE hPort, uint32_t* piNumURLs)
{
    return Exported("GCGetNumPortURLs", {TraceParam::Pointer("hPort", hPort)},
                    {TraceParam::UInt32Ptr("piNumURLs", piNumURLs)},
                    [&](TL& tl) { return tl.GCGetNumPortURLs(hPort, piNumURLs); });
}

GC_API GCGetPortInfo(PORT_HANDLE hPort, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return Exported("GCGetPortInfo",
                    {TraceParam::Pointer("hPort", hPort), TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.GCGetPortInfo(hPort, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API GCGetPortURLInfo(PORT_HANDLE hPort, uint32_t iURLIndex, URL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                        void* pBuffer, size_t* piSize)
{
    return Exported("GCGetPortURLInfo",
                    {TraceParam::Pointer("hPort", hPort), TraceParam::UInt32("iURLIndex", iURLIndex),
                     TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.GCGetPortURLInfo(hPort, iURLIndex, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API GCReadPortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries, size_t* piNumEntries)
{
    return Exported("GCReadPortStacked",
                    {TraceParam::Pointer("hPort", hPort), TraceParam::Data("pEntries", pEntries),
                     TraceParam::Size("piNumEntries", piNumEntries)},
                    {TraceParam::Size("piNumEntries", piNumEntries)},
                    [&](TL& tl) { return tl.GCReadPortStacked(hPort, pEntries, piNumEntries); });
}

GC_API GCWritePortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries, size_t* piNumEntries)
{
    return Exported("GCWritePortStacked",
                    {TraceParam::Pointer("hPort", hPort), TraceParam::Data("pEntries", pEntries),
                     TraceParam::Size("piNumEntries", piNumEntries)},
                    {TraceParam::Size("piNumEntries", piNumEntries)},
                    [&](TL& tl) { return tl.GCWritePortStacked(hPort, pEntries, piNumEntries); });
}

GC_API GCRegisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID, EVENT_HANDLE* phEvent)
{
    return Exported(
        "GCRegisterEvent",
        {TraceParam::Pointer("hEventSrc", hEventSrc), TraceParam::Int32("iEventID", static_cast<int32_t>(iEventID))},
        {TraceParam::Handle("phEvent", reinterpret_cast<void* const*>(phEvent))},
        [&](TL& tl) { return tl.GCRegisterEvent(hEventSrc, iEventID, phEvent); });
}

GC_API GCUnregisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID)
{
    return Exported(
        "GCUnregisterEvent",
        {TraceParam::Pointer("hEventSrc", hEventSrc), TraceParam::Int32("iEventID", static_cast<int32_t>(iEventID))},
        {}, [&](TL& tl) { return tl.GCUnregisterEvent(hEventSrc, iEventID); });
}

GC_API EventGetData(EVENT_HANDLE hEvent, void* pBuffer, size_t* piSize, uint64_t iTimeout)
{
    return Exported("EventGetData",
                    {TraceParam::Pointer("hEvent", hEvent), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize), TraceParam::UInt64("iTimeout", iTimeout)},
                    {TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.EventGetData(hEvent, pBuffer, piSize, iTimeout); });
}

GC_API EventGetDataInfo(EVENT_HANDLE hEvent, const void* pInBuffer, size_t iInSize, EVENT_DATA_INFO_CMD iInfoCmd,
                        INFO_DATATYPE* piType, void* pOutBuffer, size_t* piOutSize)
{
    return Exported("EventGetDataInfo",
                    {TraceParam::Pointer("hEvent", hEvent), TraceParam::Pointer("pInBuffer", pInBuffer),
                     TraceParam::UInt64("iInSize", iInSize),
                     TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pOutBuffer", pOutBuffer), TraceParam::Size("piOutSize", piOutSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pOutBuffer", pOutBuffer),
                     TraceParam::Size("piOutSize", piOutSize)},
                    [&](TL& tl) {
                        return tl.EventGetDataInfo(hEvent, pInBuffer, iInSize, iInfoCmd, piType, pOutBuffer, piOutSize);
                    });
}

GC_API EventGetInfo(EVENT_HANDLE hEvent, EVENT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return Exported("EventGetInfo",
                    {TraceParam::Pointer("hEvent", hEvent),
                     TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.EventGetInfo(hEvent, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API EventFlush(EVENT_HANDLE hEvent)
{
    return Exported("EventFlush", {TraceParam::Pointer("hEvent", hEvent)}, {},
                    [&](TL& tl) { return tl.EventFlush(hEvent); });
}

GC_API EventKill(EVENT_HANDLE hEvent)
{
    return Exported("EventKill", {TraceParam::Pointer("hEvent", hEvent)}, {},
                    [&](TL& tl) { return tl.EventKill(hEvent); });
}

GC_API TLOpen(TL_HANDLE* phTL)
{
    return Exported("TLOpen", {}, {TraceParam::Handle("phTL", reinterpret_cast<void* const*>(phTL))},
                    [&](TL& tl) { return tl.TLOpen(phTL); });
}

GC_API TLClose(TL_HANDLE hTL)
{
    return Exported("TLClose", {TraceParam::Pointer("hTL", hTL)}, {}, [&](TL& tl) { return tl.TLClose(hTL); });
}

GC_API TLGetInfo(TL_HANDLE hTL, TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return Exported("TLGetInfo",
                    {TraceParam::Pointer("hTL", hTL), TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.TLGetInfo(hTL, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API TLGetNumInterfaces(TL_HANDLE hTL, uint32_t* piNumIfaces)
{
    return Exported("TLGetNumInterfaces", {TraceParam::Pointer("hTL", hTL)},
                    {TraceParam::UInt32Ptr("piNumIfaces", piNumIfaces)},
                    [&](TL& tl) { return tl.TLGetNumInterfaces(hTL, piNumIfaces); });
}

GC_API TLGetInterfaceID(TL_HANDLE hTL, uint32_t iIndex, char* sID, size_t* piSize)
{
    return Exported(
        "TLGetInterfaceID",
        {TraceParam::Pointer("hTL", hTL), TraceParam::UInt32("iIndex", iIndex), TraceParam::Size("piSize", piSize)},
        {TraceParam::String("sID", sID), TraceParam::Size("piSize", piSize)},
        [&](TL& tl) { return tl.TLGetInterfaceID(hTL, iIndex, sID, piSize); });
}

GC_API TLGetInterfaceInfo(TL_HANDLE hTL, const char* sIfaceID, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                          void* pBuffer, size_t* piSize)
{
    return Exported("TLGetInterfaceInfo",
                    {TraceParam::Pointer("hTL", hTL), TraceParam::String("sIfaceID", sIfaceID),
                     TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.TLGetInterfaceInfo(hTL, sIfaceID, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API TLOpenInterface(TL_HANDLE hTL, const char* sIfaceID, IF_HANDLE* phIface)
{
    return Exported("TLOpenInterface", {TraceParam::Pointer("hTL", hTL), TraceParam::String("sIfaceID", sIfaceID)},
                    {TraceParam::Handle("phIface", reinterpret_cast<void* const*>(phIface))},
                    [&](TL& tl) { return tl.TLOpenInterface(hTL, sIfaceID, phIface); });
}

GC_API TLUpdateInterfaceList(TL_HANDLE hTL, bool8_t* pbChanged, uint64_t iTimeout)
{
    return Exported("TLUpdateInterfaceList",
                    {TraceParam::Pointer("hTL", hTL), TraceParam::UInt64("iTimeout", iTimeout)},
                    {TraceParam::Bool("pbChanged", pbChanged)},
                    [&](TL& tl) { return tl.TLUpdateInterfaceList(hTL, pbChanged, iTimeout); });
}

GC_API IFClose(IF_HANDLE hIface)
{
    return Exported("IFClose", {TraceParam::Pointer("hIface", hIface)}, {}, [&](TL& tl) { return tl.IFClose(hIface); });
}

GC_API IFGetInfo(IF_HANDLE hIface, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return Exported("IFGetInfo",
                    {TraceParam::Pointer("hIface", hIface),
                     TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.IFGetInfo(hIface, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API IFGetNumDevices(IF_HANDLE hIface, uint32_t* piNumDevices)
{
    return Exported("IFGetNumDevices", {TraceParam::Pointer("hIface", hIface)},
                    {TraceParam::UInt32Ptr("piNumDevices", piNumDevices)},
                    [&](TL& tl) { return tl.IFGetNumDevices(hIface, piNumDevices); });
}

GC_API IFGetDeviceID(IF_HANDLE hIface, uint32_t iIndex, char* sIDeviceID, size_t* piSize)
{
    return Exported("IFGetDeviceID",
                    {TraceParam::Pointer("hIface", hIface), TraceParam::UInt32("iIndex", iIndex),
                     TraceParam::Size("piSize", piSize)},
                    {TraceParam::String("sIDeviceID", sIDeviceID), TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.IFGetDeviceID(hIface, iIndex, sIDeviceID, piSize); });
}

GC_API IFUpdateDeviceList(IF_HANDLE hIface, bool8_t* pbChanged, uint64_t iTimeout)
{
    return Exported("IFUpdateDeviceList",
                    {TraceParam::Pointer("hIface", hIface), TraceParam::UInt64("iTimeout", iTimeout)},
                    {TraceParam::Bool("pbChanged", pbChanged)},
                    [&](TL& tl) { return tl.IFUpdateDeviceList(hIface, pbChanged, iTimeout); });
}

GC_API IFGetDeviceInfo(IF_HANDLE hIface, const char* sDeviceID, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                       void* pBuffer, size_t* piSize)
{
    return Exported("IFGetDeviceInfo",
                    {TraceParam::Pointer("hIface", hIface), TraceParam::String("sDeviceID", sDeviceID),
                     TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.IFGetDeviceInfo(hIface, sDeviceID, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API IFOpenDevice(IF_HANDLE hIface, const char* sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlags, DEV_HANDLE* phDevice)
{
    return Exported("IFOpenDevice",
                    {TraceParam::Pointer("hIface", hIface), TraceParam::String("sDeviceID", sDeviceID),
                     TraceParam::Int32("iOpenFlags", static_cast<int32_t>(iOpenFlags))},
                    {TraceParam::Handle("phDevice", reinterpret_cast<void* const*>(phDevice))},
                    [&](TL& tl) { return tl.IFOpenDevice(hIface, sDeviceID, iOpenFlags, phDevice); });
}

GC_API DevGetPort(DEV_HANDLE hDevice, PORT_HANDLE* phRemoteDevice)
{
    return Exported("DevGetPort", {TraceParam::Pointer("hDevice", hDevice)},
                    {TraceParam::Handle("phRemoteDevice", reinterpret_cast<void* const*>(phRemoteDevice))},
                    [&](TL& tl) { return tl.DevGetPort(hDevice, phRemoteDevice); });
}

GC_API DevGetNumDataStreams(DEV_HANDLE hDevice, uint32_t* piNumDataStreams)
{
    return Exported("DevGetNumDataStreams", {TraceParam::Pointer("hDevice", hDevice)},
                    {TraceParam::UInt32Ptr("piNumDataStreams", piNumDataStreams)},
                    [&](TL& tl) { return tl.DevGetNumDataStreams(hDevice, piNumDataStreams); });
}

GC_API DevGetDataStreamID(DEV_HANDLE hDevice, uint32_t iIndex, char* sDataStreamID, size_t* piSize)
{
    return Exported("DevGetDataStreamID",
                    {TraceParam::Pointer("hDevice", hDevice), TraceParam::UInt32("iIndex", iIndex),
                     TraceParam::Size("piSize", piSize)},
                    {TraceParam::String("sDataStreamID", sDataStreamID), TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.DevGetDataStreamID(hDevice, iIndex, sDataStreamID, piSize); });
}

GC_API DevOpenDataStream(DEV_HANDLE hDevice, const char* sDataStreamID, DS_HANDLE* phDataStream)
{
    return Exported("DevOpenDataStream",
                    {TraceParam::Pointer("hDevice", hDevice), TraceParam::String("sDataStreamID", sDataStreamID)},
                    {TraceParam::Handle("phDataStream", reinterpret_cast<void* const*>(phDataStream))},
                    [&](TL& tl) { return tl.DevOpenDataStream(hDevice, sDataStreamID, phDataStream); });
}

GC_API DevGetInfo(DEV_HANDLE hDevice, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return Exported("DevGetInfo",
                    {TraceParam::Pointer("hDevice", hDevice),
                     TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.DevGetInfo(hDevice, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API DevClose(DEV_HANDLE hDevice)
{
    return Exported("DevClose", {TraceParam::Pointer("hDevice", hDevice)}, {},
                    [&](TL& tl) { return tl.DevClose(hDevice); });
}

GC_API DSAnnounceBuffer(DS_HANDLE hDataStream, void* pBuffer, size_t iSize, void* pPrivate, BUFFER_HANDLE* phBuffer)
{
    return Exported("DSAnnounceBuffer",
                    {TraceParam::Pointer("hDataStream", hDataStream), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::UInt64("iSize", iSize), TraceParam::Pointer("pPrivate", pPrivate)},
                    {TraceParam::Handle("phBuffer", reinterpret_cast<void* const*>(phBuffer))},
                    [&](TL& tl) { return tl.DSAnnounceBuffer(hDataStream, pBuffer, iSize, pPrivate, phBuffer); });
}

GC_API DSAllocAndAnnounceBuffer(DS_HANDLE hDataStream, size_t iSize, void* pPrivate, BUFFER_HANDLE* phBuffer)
{
    return Exported("DSAllocAndAnnounceBuffer",
                    {TraceParam::Pointer("hDataStream", hDataStream), TraceParam::UInt64("iSize", iSize),
                     TraceParam::Pointer("pPrivate", pPrivate)},
                    {TraceParam::Handle("phBuffer", reinterpret_cast<void* const*>(phBuffer))},
                    [&](TL& tl) { return tl.DSAllocAndAnnounceBuffer(hDataStream, iSize, pPrivate, phBuffer); });
}

GC_API DSFlushQueue(DS_HANDLE hDataStream, ACQ_QUEUE_TYPE iOperation)
{
    return Exported("DSFlushQueue",
                    {TraceParam::Pointer("hDataStream", hDataStream),
                     TraceParam::Int32("iOperation", static_cast<int32_t>(iOperation))},
                    {}, [&](TL& tl) { return tl.DSFlushQueue(hDataStream, iOperation); });
}

GC_API DSStartAcquisition(DS_HANDLE hDataStream, ACQ_START_FLAGS iStartFlags, uint64_t iNumToAcquire)
{
    return Exported("DSStartAcquisition",
                    {TraceParam::Pointer("hDataStream", hDataStream),
                     TraceParam::Int32("iStartFlags", static_cast<int32_t>(iStartFlags)),
                     TraceParam::UInt64("iNumToAcquire", iNumToAcquire)},
                    {}, [&](TL& tl) { return tl.DSStartAcquisition(hDataStream, iStartFlags, iNumToAcquire); });
}

GC_API DSStopAcquisition(DS_HANDLE hDataStream, ACQ_STOP_FLAGS iStopFlags)
{
    return Exported("DSStopAcquisition",
                    {TraceParam::Pointer("hDataStream", hDataStream),
                     TraceParam::Int32("iStopFlags", static_cast<int32_t>(iStopFlags))},
                    {}, [&](TL& tl) { return tl.DSStopAcquisition(hDataStream, iStopFlags); });
}

GC_API DSGetInfo(DS_HANDLE hDataStream, STREAM_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return Exported("DSGetInfo",
                    {TraceParam::Pointer("hDataStream", hDataStream),
                     TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
                     TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.DSGetInfo(hDataStream, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API DSGetBufferID(DS_HANDLE hDataStream, uint32_t iIndex, BUFFER_HANDLE* phBuffer)
{
    return Exported("DSGetBufferID",
                    {TraceParam::Pointer("hDataStream", hDataStream), TraceParam::UInt32("iIndex", iIndex)},
                    {TraceParam::Handle("phBuffer", reinterpret_cast<void* const*>(phBuffer))},
                    [&](TL& tl) { return tl.DSGetBufferID(hDataStream, iIndex, phBuffer); });
}

GC_API DSClose(DS_HANDLE hDataStream)
{
    return Exported("DSClose", {TraceParam::Pointer("hDataStream", hDataStream)}, {},
                    [&](TL& tl) { return tl.DSClose(hDataStream); });
}

GC_API DSRevokeBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, void** pBuffer, void** pPrivate)
{
    return Exported("DSRevokeBuffer",
                    {TraceParam::Pointer("hDataStream", hDataStream), TraceParam::Pointer("hBuffer", hBuffer)},
                    {TraceParam::Handle("pBuffer", reinterpret_cast<void* const*>(pBuffer)),
                     TraceParam::Handle("pPrivate", reinterpret_cast<void* const*>(pPrivate))},
                    [&](TL& tl) { return tl.DSRevokeBuffer(hDataStream, hBuffer, pBuffer, pPrivate); });
}

GC_API DSQueueBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer)
{
    return Exported("DSQueueBuffer",
                    {TraceParam::Pointer("hDataStream", hDataStream), TraceParam::Pointer("hBuffer", hBuffer)}, {},
                    [&](TL& tl) { return tl.DSQueueBuffer(hDataStream, hBuffer); });
}

GC_API DSGetBufferInfo(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                       void* pBuffer, size_t* piSize)
{
    return Exported(
        "DSGetBufferInfo",
        {TraceParam::Pointer("hDataStream", hDataStream), TraceParam::Pointer("hBuffer", hBuffer),
         TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)), TraceParam::Pointer("pBuffer", pBuffer),
         TraceParam::Size("piSize", piSize)},
        {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
         TraceParam::Size("piSize", piSize)},
        [&](TL& tl) { return tl.DSGetBufferInfo(hDataStream, hBuffer, iInfoCmd, piType, pBuffer, piSize); });
}

GC_API DSGetBufferChunkData(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, SINGLE_CHUNK_DATA* pChunkData,
                            size_t* piNumChunks)
{
    return Exported("DSGetBufferChunkData",
                    {TraceParam::Pointer("hDataStream", hDataStream), TraceParam::Pointer("hBuffer", hBuffer),
                     TraceParam::Size("piNumChunks", piNumChunks)},
                    {TraceParam::Data("pChunkData", pChunkData), TraceParam::Size("piNumChunks", piNumChunks)},
                    [&](TL& tl) { return tl.DSGetBufferChunkData(hDataStream, hBuffer, pChunkData, piNumChunks); });
}

GC_API IFGetParentTL(IF_HANDLE hIface, TL_HANDLE* phSystem)
{
    return Exported("IFGetParentTL", {TraceParam::Pointer("hIface", hIface)},
                    {TraceParam::Handle("phSystem", reinterpret_cast<void* const*>(phSystem))},
                    [&](TL& tl) { return tl.IFGetParentTL(hIface, phSystem); });
}

GC_API DevGetParentIF(DEV_HANDLE hDevice, IF_HANDLE* phIface)
{
    return Exported("DevGetParentIF", {TraceParam::Pointer("hDevice", hDevice)},
                    {TraceParam::Handle("phIface", reinterpret_cast<void* const*>(phIface))},
                    [&](TL& tl) { return tl.DevGetParentIF(hDevice, phIface); });
}

GC_API DSGetParentDev(DS_HANDLE hDataStream, DEV_HANDLE* phDevice)
{
    return Exported("DSGetParentDev", {TraceParam::Pointer("hDataStream", hDataStream)},
                    {TraceParam::Handle("phDevice", reinterpret_cast<void* const*>(phDevice))},
                    [&](TL& tl) { return tl.DSGetParentDev(hDataStream, phDevice); });
}

GC_API DSGetNumBufferParts(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t* piNumParts)
{
    return Exported("DSGetNumBufferParts",
                    {TraceParam::Pointer("hDataStream", hDataStream), TraceParam::Pointer("hBuffer", hBuffer)},
                    {TraceParam::UInt32Ptr("piNumParts", piNumParts)},
                    [&](TL& tl) { return tl.DSGetNumBufferParts(hDataStream, hBuffer, piNumParts); });
}

GC_API DSGetBufferPartInfo(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t iPartIndex,
                           BUFFER_PART_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return Exported(
        "DSGetBufferPartInfo",
        {TraceParam::Pointer("hDataStream", hDataStream), TraceParam::Pointer("hBuffer", hBuffer),
         TraceParam::UInt32("iPartIndex", iPartIndex), TraceParam::Int32("iInfoCmd", static_cast<int32_t>(iInfoCmd)),
         TraceParam::Pointer("pBuffer", pBuffer), TraceParam::Size("piSize", piSize)},
        {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
         TraceParam::Size("piSize", piSize)},
        [&](TL& tl) {
            return tl.DSGetBufferPartInfo(hDataStream, hBuffer, iPartIndex, iInfoCmd, piType, pBuffer, piSize);
        });
}
}
