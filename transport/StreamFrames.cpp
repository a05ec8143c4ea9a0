#include "transport/StreamFrames.h"

#include "base/Exception.h"
#include "support/MutexGuard.h"
#include "transport/LibCSIDevice.h"
#include "transport/LibCSILibrary.h"

#include <boost/format.hpp>

#include <algorithm>
#include <atomic>
#include <thread>

namespace QEL { namespace LibCSI {

using System::MutexGuard;

namespace {

// Counts emulated frames across all endpoints, as a camera counts its blocks.
std::atomic<std::uint64_t> emulatedBlockId{1};

} // namespace

StreamFrames::StreamFrames(std::shared_ptr<Device> device, std::shared_ptr<LibCSIWrapper_Impl> wrapper)
    : device(std::move(device)), wrapper(std::move(wrapper)), frameSink(std::make_shared<FrameSink>())
{
    frameSink->frames = this;
}

std::shared_ptr<StreamFrames::DataTransfer> StreamFrames::MakeDataTransfer(Origin origin, void* payload,
                                                                           std::size_t size, std::uint32_t leaderSize,
                                                                           std::uint32_t trailerSize,
                                                                           FrameHandler callback)
{
    if (size < 1)
        throw System::Exception("Invalid size passed.");
    auto transfer = std::make_shared<DataTransfer>();
    transfer->callback = std::move(callback);
    if (emulateLeaderTrailer)
        leaderSize = trailerSize = 0;
    lib_frame_transfer& frame = transfer->record.frame;
    frame.m_nLeaderSize = leaderSize;
    frame.m_nPayloadSize = size;
    frame.m_nTrailerSize = trailerSize;
    if (origin == Origin::Announced) {
        transfer->leader.resize(leaderSize);
        transfer->trailer.resize(trailerSize);
        frame.m_pLeader = leaderSize ? reinterpret_cast<std::uintptr_t>(transfer->leader.data()) : 0;
        frame.m_pPayload = reinterpret_cast<std::uintptr_t>(payload);
        frame.m_pTrailer = trailerSize ? reinterpret_cast<std::uintptr_t>(transfer->trailer.data()) : 0;
    }
    transfer->record.callback = &StreamFrames::OnFrameReady;
    transfer->record.context = frameSink.get();
    return transfer;
}

void* StreamFrames::AllocateBuffer(std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size, std::uint32_t leaderSize,
                                   std::uint32_t trailerSize, FrameHandler callback)
{
    MutexGuard guard(&frameMutex);
    auto transfer = MakeDataTransfer(Origin::Allocated, nullptr, size, leaderSize, trailerSize, std::move(callback));
    frame_handle_t* handle = wrapper->AllocAndAnnounceFrame(ipuX, ipuY, &transfer->record);
    if (!handle)
        return nullptr;
    void* payload = reinterpret_cast<void*>(transfer->record.frame.m_pPayload);
    frames[handle] = transfer;
    payloads[payload] = handle;
    return payload;
}

frame_handle_t* StreamFrames::AnnounceLocked(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                             std::uint32_t leaderSize, std::uint32_t trailerSize, FrameHandler callback)
{
    if (!payload)
        throw System::Exception("No data passed.");
    const auto known = payloads.find(payload);
    if (known != payloads.end())
        return known->second;
    auto transfer = MakeDataTransfer(Origin::Announced, payload, size, leaderSize, trailerSize, std::move(callback));
    frame_handle_t* handle = wrapper->AnnounceFrame(ipuX, ipuY, &transfer->record);
    if (!handle)
        return nullptr;
    frames[handle] = transfer;
    payloads[payload] = handle;
    return handle;
}

frame_handle_t* StreamFrames::AnnounceBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                             std::uint32_t leaderSize, std::uint32_t trailerSize, FrameHandler callback)
{
    MutexGuard guard(&frameMutex);
    return AnnounceLocked(payload, ipuX, ipuY, size, leaderSize, trailerSize, std::move(callback));
}

std::int32_t StreamFrames::QueueBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                       std::uint32_t leaderSize, std::uint32_t trailerSize, FrameHandler callback)
{
    MutexGuard guard(&frameMutex);
    frame_handle_t* handle = AnnounceLocked(payload, ipuX, ipuY, size, leaderSize, trailerSize, callback);
    if (!handle)
        return LIBCSI_ERROR;
    const std::shared_ptr<DataTransfer>& transfer = frames.at(handle);
    // Queueings of two streams ago can no longer come back: libcsi delivers or
    // drops what it holds before a stream after the next one starts.
    auto& queueings = transfer->queueings;
    for (auto it = queueings.begin(); it != queueings.end();) {
        const auto next = std::next(it);
        if (it->stops + 2 <= stops)
            transfer->Retire(it);
        it = next;
    }
    // The latest handler also hears of a revoke; frames go to the one of their own queueing.
    if (callback)
        transfer->callback = std::move(callback);
    auto& spares = transfer->spareQueueings;
    if (spares.empty())
        spares.emplace_back();
    queueings.splice(queueings.end(), spares, spares.begin());
    DataTransfer::Queueing& queueing = queueings.back();
    queueing.record = transfer->record;
    queueing.callback = transfer->callback;
    queueing.stops = stops;
    const std::int32_t result = wrapper->QueueFrame(&queueing.record);
    if (result != 0)
        transfer->Retire(std::prev(queueings.end()));
    return result;
}

void StreamFrames::DataTransfer::Retire(std::list<Queueing>::iterator queueing)
{
    queueing->callback.reset();
    spareQueueings.splice(spareQueueings.begin(), queueings, queueing);
}

std::int32_t StreamFrames::FlushBuffers()
{
    return wrapper->FlushFrames();
}

void StreamFrames::StreamStopped()
{
    MutexGuard guard(&frameMutex);
    ++stops;
}

void StreamFrames::CloseGate()
{
    frameSink->gate.Close();
}

void StreamFrames::RevokeLeft()
{
    std::map<frame_handle_t*, std::shared_ptr<DataTransfer>> left;
    {
        MutexGuard guard(&frameMutex);
        left.swap(frames);
        payloads.clear();
    }
    for (const auto& frame : left) {
        try {
            wrapper->RevokeFrame(frame.first);
        } catch (...) {
        }
        device->KeepUntilClosed(frame.second);
    }
    device->KeepUntilClosed(frameSink);
}

void StreamFrames::RevokeBuffers()
{
    std::map<frame_handle_t*, std::shared_ptr<DataTransfer>> revoked;
    {
        MutexGuard guard(&frameMutex);
        revoked.swap(frames);
        payloads.clear();
    }
    for (const auto& [handle, transfer] : revoked) {
        GiveBack(handle, transfer);
        frame_info canceled;
        canceled.result = RESULT_Unused;
        if (transfer->callback && *transfer->callback)
            (*transfer->callback)(canceled);
    }
}

std::int32_t StreamFrames::RevokeBuffer(const void* payload)
{
    frame_handle_t* handle = nullptr;
    std::shared_ptr<DataTransfer> transfer;
    {
        MutexGuard guard(&frameMutex);
        const auto known = payloads.find(payload);
        if (known == payloads.end())
            return 0;
        handle = known->second;
        payloads.erase(known);
        const auto frame = frames.find(handle);
        if (frame != frames.end()) {
            transfer = frame->second;
            frames.erase(frame);
        }
    }
    return GiveBack(handle, transfer);
}

// The frame, already out of the maps, goes back to libcsi once no callback
// reads its memory; its records stay, as libcsi's callback thread may be
// about to hand one back.
std::int32_t StreamFrames::GiveBack(frame_handle_t* handle, const std::shared_ptr<DataTransfer>& transfer)
{
    if (transfer)
        transfer->AwaitReaders();
    const std::int32_t result = wrapper->RevokeFrame(handle);
    if (transfer)
        device->KeepUntilClosed(transfer);
    return result;
}

// Out of the maps, no new reader can find the transfer; a running one reads a
// few words and takes no lock, so the wait is short and cannot deadlock.
void StreamFrames::DataTransfer::AwaitReaders() const
{
    while (readers.load(std::memory_order_acquire) != 0)
        std::this_thread::yield();
}

std::size_t StreamFrames::GetBufferCount() const
{
    MutexGuard guard(&frameMutex);
    return frames.size();
}

void StreamFrames::SetEmulateLeaderTrailer(bool emulate)
{
    MutexGuard guard(&frameMutex);
    emulateLeaderTrailer = emulate;
}

void StreamFrames::SetLeaderTrailerParam(const LeaderTrailerParameters& p)
{
    Library::MediaLog((boost::format("Endpoint::SetLeaderTrailerParam:\nnGenCPImageSizeX=%1%\nnGenCPImageSizeY=%2%"
                                     "\nnGenCPImageOffsetX=%3%\nnGenCPImageOffsetY=%4%\nnGenCPImagePaddingX=%5%"
                                     "\nnGenCPImagePixelFormat=0x%6$x\nnGenCPImagePayloadType=%7%"
                                     "\nnGenCPValidPayloadSize=%8%\nnGenCPChunkLayoutID=%9%") %
                       p.sizeX % p.sizeY % p.offsetX % p.offsetY % p.paddingX % p.pixelFormat % p.payloadType %
                       p.validPayloadSize % p.chunkLayoutId)
                          .str());
    MutexGuard guard(&frameMutex);
    leaderTrailer = p;
}

void StreamFrames::OnFrameReady(FrameRecord* record)
{
    if (!record || !record->context)
        return;
    auto* sink = static_cast<FrameSink*>(record->context);
    sink->gate.Run([&] { sink->frames->Deliver(record); });
}

void StreamFrames::Deliver(FrameRecord* record)
{
    MutexGuard guard(&frameMutex);
    const auto found = frames.find(record->handle);
    if (found == frames.end() || !found->second) {
        guard.Release();
        Library::MediaLog("Endpoint::EnqueueMessage Transfer not found or found Transfer = NULL");
        return;
    }
    const std::shared_ptr<DataTransfer> transfer = found->second;
    // This queueing is done with; the caller no longer reads its record, which
    // the next queueing of the buffer may take over once the guard is released.
    auto& queueings = transfer->queueings;
    const auto queueing = std::find_if(queueings.begin(), queueings.end(),
                                       [&](const DataTransfer::Queueing& q) { return &q.record == record; });
    if (queueing == queueings.end()) {
        guard.Release();
        Library::MediaLog("Endpoint::EnqueueMessage Transfer not found or found Transfer = NULL");
        return;
    }
    const FrameHandler callback = queueing->callback;
    const lib_frame_transfer frame = record->frame;
    const std::uint32_t status = record->status;
    transfer->Retire(queueing);
    const bool emulated = emulateLeaderTrailer;
    const LeaderTrailerParameters parameters = leaderTrailer;
    transfer->readers.fetch_add(1, std::memory_order_relaxed);
    guard.Release();
    const frame_info info = emulated ? EmulatedFrameInfo(parameters, emulatedBlockId.fetch_add(1))
                                     : FrameInfoFromLeaderTrailer(frame, status);
    transfer->readers.fetch_sub(1, std::memory_order_release);
    if (callback && *callback)
        (*callback)(info);
}

}} // namespace QEL::LibCSI
