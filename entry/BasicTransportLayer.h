#pragma once

#include "base/BaseException.h"
#include "entry/ErrorHandler.h"
#include "framework/Handleable.h"
#include "entry/LibraryState.h"
#include "entry/TransportLayer.h"
#include "framework/BaseLibrary.h"
#include "support/MutexGuard.h"

#include <memory>
#include <string>
#include <type_traits>

namespace QEL { namespace Base {

// Copies a text and its terminator into a consumer buffer, or reports the size needed.
void CopyStringToBuffer(const std::string& text, char* buffer, std::size_t* size);

// The call frame of every exported function: admission by the library state,
// and every failure turned into a GenTL code and the thread's last error.
class BasicTransportLayer : public virtual TransportLayer {
public:
    using State = LibraryState;

    BasicTransportLayer();
    ~BasicTransportLayer() override;

    GC_ERROR GCGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR GCGetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize) override;
    GC_ERROR GCInitLib() override;
    GC_ERROR GCInitLibEx(uint32_t iFlags) override;
    GC_ERROR GCCloseLib() override;
    GC_ERROR GCReadPort(PORT_HANDLE hPort, uint64_t iAddress, void* pBuffer, size_t* piSize) override;
    GC_ERROR GCWritePort(PORT_HANDLE hPort, uint64_t iAddress, const void* pBuffer, size_t* piSize) override;
    GC_ERROR GCGetPortURL(PORT_HANDLE hPort, char* sURL, size_t* piSize) override;
    GC_ERROR GCGetNumPortURLs(PORT_HANDLE hPort, uint32_t* piNumURLs) override;
    GC_ERROR GCGetPortInfo(PORT_HANDLE hPort, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR GCGetPortURLInfo(PORT_HANDLE hPort, uint32_t iURLIndex, URL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR GCReadPortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries, size_t* piNumEntries) override;
    GC_ERROR GCWritePortStacked(PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY* pEntries, size_t* piNumEntries) override;
    GC_ERROR GCRegisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID, EVENT_HANDLE* phEvent) override;
    GC_ERROR GCUnregisterEvent(EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID) override;
    GC_ERROR EventGetData(EVENT_HANDLE hEvent, void* pBuffer, size_t* piSize, uint64_t iTimeout) override;
    GC_ERROR EventGetDataInfo(EVENT_HANDLE hEvent, const void* pInBuffer, size_t iInSize, EVENT_DATA_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pOutBuffer, size_t* piOutSize) override;
    GC_ERROR EventGetInfo(EVENT_HANDLE hEvent, EVENT_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR EventFlush(EVENT_HANDLE hEvent) override;
    GC_ERROR EventKill(EVENT_HANDLE hEvent) override;
    GC_ERROR TLOpen(TL_HANDLE* phTL) override;
    GC_ERROR TLClose(TL_HANDLE hTL) override;
    GC_ERROR TLGetInfo(TL_HANDLE hTL, TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR TLGetNumInterfaces(TL_HANDLE hTL, uint32_t* piNumIfaces) override;
    GC_ERROR TLGetInterfaceID(TL_HANDLE hTL, uint32_t iIndex, char* sID, size_t* piSize) override;
    GC_ERROR TLGetInterfaceInfo(TL_HANDLE hTL, const char* sIfaceID, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR TLOpenInterface(TL_HANDLE hTL, const char* sIfaceID, IF_HANDLE* phIface) override;
    GC_ERROR TLUpdateInterfaceList(TL_HANDLE hTL, bool8_t* pbChanged, uint64_t iTimeout) override;
    GC_ERROR IFClose(IF_HANDLE hIface) override;
    GC_ERROR IFGetInfo(IF_HANDLE hIface, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR IFGetNumDevices(IF_HANDLE hIface, uint32_t* piNumDevices) override;
    GC_ERROR IFGetDeviceID(IF_HANDLE hIface, uint32_t iIndex, char* sIDeviceID, size_t* piSize) override;
    GC_ERROR IFUpdateDeviceList(IF_HANDLE hIface, bool8_t* pbChanged, uint64_t iTimeout) override;
    GC_ERROR IFGetDeviceInfo(IF_HANDLE hIface, const char* sDeviceID, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR IFOpenDevice(IF_HANDLE hIface, const char* sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlags, DEV_HANDLE* phDevice) override;
    GC_ERROR DevGetPort(DEV_HANDLE hDevice, PORT_HANDLE* phRemoteDevice) override;
    GC_ERROR DevGetNumDataStreams(DEV_HANDLE hDevice, uint32_t* piNumDataStreams) override;
    GC_ERROR DevGetDataStreamID(DEV_HANDLE hDevice, uint32_t iIndex, char* sDataStreamID, size_t* piSize) override;
    GC_ERROR DevOpenDataStream(DEV_HANDLE hDevice, const char* sDataStreamID, DS_HANDLE* phDataStream) override;
    GC_ERROR DevGetInfo(DEV_HANDLE hDevice, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR DevClose(DEV_HANDLE hDevice) override;
    GC_ERROR DSAnnounceBuffer(DS_HANDLE hDataStream, void* pBuffer, size_t iSize, void* pPrivate, BUFFER_HANDLE* phBuffer) override;
    GC_ERROR DSAllocAndAnnounceBuffer(DS_HANDLE hDataStream, size_t iSize, void* pPrivate, BUFFER_HANDLE* phBuffer) override;
    GC_ERROR DSFlushQueue(DS_HANDLE hDataStream, ACQ_QUEUE_TYPE iOperation) override;
    GC_ERROR DSStartAcquisition(DS_HANDLE hDataStream, ACQ_START_FLAGS iStartFlags, uint64_t iNumToAcquire) override;
    GC_ERROR DSStopAcquisition(DS_HANDLE hDataStream, ACQ_STOP_FLAGS iStopFlags) override;
    GC_ERROR DSGetInfo(DS_HANDLE hDataStream, STREAM_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR DSGetBufferID(DS_HANDLE hDataStream, uint32_t iIndex, BUFFER_HANDLE* phBuffer) override;
    GC_ERROR DSClose(DS_HANDLE hDataStream) override;
    GC_ERROR DSRevokeBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, void** pBuffer, void** pPrivate) override;
    GC_ERROR DSQueueBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer) override;
    GC_ERROR DSGetBufferInfo(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR DSGetBufferChunkData(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, SINGLE_CHUNK_DATA* pChunkData, size_t* piNumChunks) override;
    GC_ERROR IFGetParentTL(IF_HANDLE hIface, TL_HANDLE* phSystem) override;
    GC_ERROR DevGetParentIF(DEV_HANDLE hDevice, IF_HANDLE* phIface) override;
    GC_ERROR DSGetParentDev(DS_HANDLE hDataStream, DEV_HANDLE* phDevice) override;
    GC_ERROR DSGetNumBufferParts(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t* piNumParts) override;
    GC_ERROR DSGetBufferPartInfo(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t iPartIndex, BUFFER_PART_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;

    virtual std::shared_ptr<Library> CreateLibrary(uint32_t flags) = 0;

    // Resolves a handle and casts by the object's real class.
    template <class T>
    static std::shared_ptr<T> GetHandleAs(const void* handle)
    {
        auto object = std::dynamic_pointer_cast<T>(Handleable::FromHandle(handle));
        if (!object)
            throw Exception("The module referenced by the given handle does not implement a port.",
                            GC_ERR_NOT_IMPLEMENTED);
        return object;
    }

    // Hands out the handle of an object, under the object's guard.
    static void* MakeHandle(const std::shared_ptr<Handleable>& object);

protected:
    // Runs `body` under a read token; a failure becomes the thread's last error,
    // with `fallback` as the text of exceptions of foreign types.
    template <class Body>
    GC_ERROR RunBody(const char* fallback, Body&& body);

    GC_ERROR Fail(const Exception& error);
    // Inside a catch clause: records the exception in flight as the thread's
    // last error and returns its code; `fallback` names a foreign one.
    GC_ERROR FailCurrent(const char* fallback);

    // The common steps of every info function: the argument checks come
    // before any handle is touched; `locate` casts and locks, then the info
    // is read or only its size and datatype are given.
    template <class Locate>
    GC_ERROR AnswerInfo(const char* fallback, const char* nullResult, INFO_DATATYPE* piType, void* pBuffer,
                        size_t* piSize, Locate locate)
    {
        return RunBody(fallback, [&] {
            CheckInfoArguments(piType, piSize);
            locate([&](auto getInfo, auto getSize) {
                if (pBuffer) {
                    InfoPtr info = getInfo();
                    if (!info)
                        throw Exception(nullResult, GC_ERR_ERROR);
                    info->Read(pBuffer, piSize);
                    if (piType)
                        *piType = info->GetType();
                } else {
                    *piSize = getSize(piType);
                }
            });
        });
    }

    void CheckInfoArguments(const INFO_DATATYPE* piType, const size_t* piSize) const;

    // Resolves, casts and locks a module for the rest of a body.
    template <class T>
    struct Locked {
        explicit Locked(const void* handle) : object(GetHandleAs<T>(handle)), guard(object->GetMutex()) {}
        T* operator->() const { return object.get(); }
        std::shared_ptr<T> object;
        QEL::System::SharedMutexGuard guard;
    };

    static void Require(const void* pointer, const char* message);
    // Hands out the handle of a module that an operation returned.
    template <class T>
    static void HandOut(const std::shared_ptr<T>& module, void** handle, const char* nullResult)
    {
        if (!module)
            throw Exception(nullResult, GC_ERR_ERROR);
        *handle = MakeHandle(module);
    }
    GC_ERROR CloseLibrary();

    void SetTolerateTypeNullptr(bool value) { tolerateTypeNullptr = value; }
    bool GetTolerateTypeNullptr() const { return tolerateTypeNullptr; }
    std::shared_ptr<Library> GetLibrary() const { return library; }

private:
    GC_ERROR InitLibrary(uint32_t flags);

    std::shared_ptr<State> state;
    std::shared_ptr<Tools::ErrorHandler<Exception>> errorHandler;
    bool tolerateTypeNullptr = true;
    std::shared_ptr<Library> library;
};

template <class Body>
GC_ERROR BasicTransportLayer::RunBody(const char* fallback, Body&& body)
{
    auto access = state->GetReadAccess();
    if (!access)
        return GC_ERR_NOT_INITIALIZED;
    try {
        if constexpr (std::is_same_v<decltype(body()), GC_ERROR>) {
            return body();
        } else {
            body();
            return GC_ERR_SUCCESS;
        }
    } catch (...) {
        return FailCurrent(fallback);
    }
}

} }
