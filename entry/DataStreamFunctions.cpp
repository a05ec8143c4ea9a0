// The functions of the data stream module and its buffers.
#include "entry/BasicTransportLayer.h"
#include "framework/BaseRoles.h"

namespace QEL { namespace Base {

GC_ERROR BasicTransportLayer::DSAnnounceBuffer(DS_HANDLE hDataStream, void* pBuffer, size_t iSize, void* pPrivate,
                                               BUFFER_HANDLE* phBuffer)
{
    return RunBody("Could not announce buffer.", [&] {
        Require(phBuffer, "No buffer handle passed.");
        HandOut(Locked<DataStream>(hDataStream)->AnnounceBuffer(pBuffer, iSize, pPrivate), phBuffer,
                "Could not announce buffer.");
    });
}

GC_ERROR BasicTransportLayer::DSAllocAndAnnounceBuffer(DS_HANDLE hDataStream, size_t iSize, void* pPrivate,
                                                       BUFFER_HANDLE* phBuffer)
{
    return RunBody("Could not allocate and announce buffer.", [&] {
        Require(phBuffer, "No buffer handle passed.");
        HandOut(Locked<DataStream>(hDataStream)->AllocAndAnnounceBuffer(iSize, pPrivate), phBuffer,
                "Could not allocate and announce buffer.");
    });
}

GC_ERROR BasicTransportLayer::DSFlushQueue(DS_HANDLE hDataStream, ACQ_QUEUE_TYPE iOperation)
{
    return RunBody("Could not flush queue.", [&] { Locked<DataStream>(hDataStream)->FlushQueue(iOperation); });
}

GC_ERROR BasicTransportLayer::DSStartAcquisition(DS_HANDLE hDataStream, ACQ_START_FLAGS iStartFlags,
                                                 uint64_t iNumToAcquire)
{
    return RunBody("Could not start acquisition.",
                   [&] { Locked<DataStream>(hDataStream)->StartAcquisition(iStartFlags, iNumToAcquire); });
}

GC_ERROR BasicTransportLayer::DSStopAcquisition(DS_HANDLE hDataStream, ACQ_STOP_FLAGS iStopFlags)
{
    return RunBody("Could not stop acquisition.", [&] { Locked<DataStream>(hDataStream)->StopAcquisition(iStopFlags); });
}

GC_ERROR BasicTransportLayer::DSGetInfo(DS_HANDLE hDataStream, STREAM_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                                        void* pBuffer, size_t* piSize)
{
    const char* text = "Could not get data stream info.";
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        Locked<DataStream> stream(hDataStream);
        answer([&] { return stream->GetInfo(iInfoCmd); },
               [&](INFO_DATATYPE* type) { return stream->GetInfoSize(iInfoCmd, type); });
    });
}

GC_ERROR BasicTransportLayer::DSGetBufferID(DS_HANDLE hDataStream, uint32_t iIndex, BUFFER_HANDLE* phBuffer)
{
    return RunBody("Could not access buffer.", [&] {
        Require(phBuffer, "No buffer handle passed.");
        HandOut(Locked<DataStream>(hDataStream)->GetBufferID(iIndex), phBuffer, "Could not access buffer.");
    });
}

GC_ERROR BasicTransportLayer::DSClose(DS_HANDLE hDataStream)
{
    return RunBody("Could not close data stream.", [&] { Locked<DataStream>(hDataStream)->Close(); });
}

GC_ERROR BasicTransportLayer::DSRevokeBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, void** pBuffer,
                                             void** pPrivate)
{
    return RunBody("Could not revoke buffer.", [&] {
        Locked<DataStream> stream(hDataStream);
        stream->RevokeBuffer(GetHandleAs<Buffer>(hBuffer), pBuffer, pPrivate);
    });
}

GC_ERROR BasicTransportLayer::DSQueueBuffer(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer)
{
    return RunBody("Could not queue buffer.", [&] {
        Locked<DataStream> stream(hDataStream);
        stream->QueueBuffer(GetHandleAs<Buffer>(hBuffer));
    });
}

GC_ERROR BasicTransportLayer::DSGetBufferInfo(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd,
                                              INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    const char* text = "Could not get buffer info.";
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        Locked<DataStream> stream(hDataStream);
        auto buffer = GetHandleAs<Buffer>(hBuffer);
        answer([&] { return stream->GetBufferInfo(buffer, iInfoCmd); },
               [&](INFO_DATATYPE* type) { return stream->GetBufferInfoSize(buffer, iInfoCmd, type); });
    });
}

GC_ERROR BasicTransportLayer::DSGetBufferChunkData(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer,
                                                   SINGLE_CHUNK_DATA* pChunkData, size_t* piNumChunks)
{
    return RunBody("Could not get buffer chunk data.", [&] {
        Locked<DataStream> stream(hDataStream);
        stream->GetBufferChunkData(GetHandleAs<Buffer>(hBuffer), pChunkData, piNumChunks);
    });
}

GC_ERROR BasicTransportLayer::DSGetParentDev(DS_HANDLE hDataStream, DEV_HANDLE* phDevice)
{
    return RunBody("Could not get parent device.", [&] {
        Require(phDevice, "No device handle passed.");
        // The child's lock ends before the parent's is taken: locks go from parent to child.
        const auto parent = Locked<DataStream>(hDataStream)->GetParent();
        HandOut(parent, phDevice, "Invalid device returned.");
    });
}

GC_ERROR BasicTransportLayer::DSGetNumBufferParts(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t* piNumParts)
{
    return RunBody("Could not get number of buffer parts.", [&] {
        Require(piNumParts, "No number of buffer parts passed.");
        Locked<DataStream> stream(hDataStream);
        *piNumParts = stream->GetNumBufferParts(GetHandleAs<Buffer>(hBuffer));
    });
}

GC_ERROR BasicTransportLayer::DSGetBufferPartInfo(DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t iPartIndex,
                                                  BUFFER_PART_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer,
                                                  size_t* piSize)
{
    const char* text = "Could not get buffer part info.";
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        Locked<DataStream> stream(hDataStream);
        auto buffer = GetHandleAs<Buffer>(hBuffer);
        answer([&] { return stream->GetBufferPartInfo(buffer, iPartIndex, iInfoCmd); },
               [&](INFO_DATATYPE* type) { return stream->GetBufferPartInfoSize(buffer, iPartIndex, iInfoCmd, type); });
    });
}

} }
