#include "transport/Endpoint.h"

#include "base/Exception.h"
#include "support/MutexGuard.h"
#include "transport/LibCSIDevice.h"
#include "transport/LibCSILibrary.h"

#include <boost/format.hpp>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

namespace QEL { namespace LibCSI {

using System::MutexGuard;

std::shared_ptr<Endpoint> Endpoint::Open(const std::shared_ptr<Device>& device, std::uint32_t number)
{
    if (!device)
        throw System::Exception("No device passed.");
    std::shared_ptr<Endpoint> endpoint;
    try {
        endpoint.reset(new Endpoint(device, number));
    } catch (const std::bad_alloc&) {
        throw System::Exception("Could not allocate endpoint.");
    }
    endpoint->Start();
    return endpoint;
}

Endpoint::Endpoint(const std::shared_ptr<Device>& device, std::uint32_t number)
    : device(device), wrapper(device->GetWrapper()), number(number), descriptor(number),
      frameSink(std::make_shared<FrameSink>())
{
    frameSink->endpoint = this;
}

void Endpoint::Start()
{
    if (number > DEBUG_CHANNEL_2)
        throw System::Exception("Could not open device endpoint (Reason: Invalid endpoint number).");
    channelRecord = std::make_shared<lib_channel_transfer>();
    channelRecord->context = this;
    switch (number) {
    case ENDPOINT_MODE_SI:
        channelRecord->callback = &Endpoint::OnStreamChannelEvent;
        break;
    case EVENT_CHANNEL:
        channelRecord->callback = &Endpoint::OnEventChannelEvent;
        break;
    case DEBUG_CHANNEL:
    case DEBUG_CHANNEL_2:
        channelRecord->callback = &Endpoint::OnDebugChannelEvent;
        break;
    default:
        break;
    }
    const std::int32_t result =
        wrapper->StartChannel(device->GetKey(), static_cast<std::int32_t>(number), channelRecord.get());
    if (result != 0)
        throw System::Exception((boost::format("Could not open device endpoint (Reason: %1%).") % result).str());
    {
        MutexGuard guard(&mutex);
        state = Running;
    }
    thread = std::thread([this] { Run(); });
}

Endpoint::~Endpoint()
{
    // libcsi holds pointers into the frame records: they go before the records do.
    if (number == ENDPOINT_MODE_SI) {
        // No frame reaches this endpoint from here on; a frame already inside finishes first.
        frameSink->gate.Close();
        try {
            if (streaming)
                StopStreaming();
            if (GetBufferCount())
                FlushBuffers();
        } catch (...) {
        }
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
    {
        MutexGuard guard(&mutex);
        if (state == Running) {
            state = StopRequested;
            condition.Broadcast();
        }
    }
    if (thread.joinable())
        thread.join();
    try {
        wrapper->StopChannel(static_cast<std::int32_t>(number));
    } catch (...) {
    }
}

bool Endpoint::IsRunning() const
{
    MutexGuard guard(&mutex);
    return state == Running;
}

std::uint32_t Endpoint::GetMaxPacketSize() const { return wrapper->GetMaximumPacketSize(); }

void Endpoint::Run()
{
    MutexGuard guard(&mutex);
    while (state == Running) {
        if (transfers.empty()) {
            condition.Wait(mutex);
            continue;
        }
        std::shared_ptr<Transfer> transfer = transfers.front();
        transfers.pop_front();
        guard.Release();
        const std::uint32_t status = transfer->control.status;
        const std::uint32_t done = status == 0 ? transfer->control.bytesDone : 0;
        try {
            transfer->completion(status, done);
        } catch (...) {
            // A failing completion must not end the endpoint.
        }
        guard.Lock(&mutex);
    }
    // What was still queued is served, so that nobody waits for ever.
    std::deque<std::shared_ptr<Transfer>> left;
    left.swap(transfers);
    state = Stopped;
    condition.Broadcast();
    guard.Release();
    for (const auto& transfer : left)
        transfer->completion(transfer->control.status, transfer->control.status == 0 ? transfer->control.bytesDone : 0);
}

void Endpoint::Submit(void* buffer, std::size_t size, Completion completion)
{
    MutexGuard guard(&mutex);
    if (!buffer)
        throw System::Exception("No data passed.");
    if (size < 1)
        throw System::Exception("Invalid size passed.");
    if (state != Running)
        throw System::Exception("Endpoint not running anymore.");
    auto transfer = MakeTransfer(buffer, size, std::move(completion));
    ControlTransfer& control = transfer->control;
    if (number == CONTROL_CHANNEL_IN)
        wrapper->ReadControlAnswer(control);
    else
        wrapper->SendControlCommand(control);
    if (control.status != 0)
        throw System::Exception(
            (boost::format("Could not submit transfer (Reason: %1%).") % static_cast<std::int32_t>(control.status))
                .str());
    const bool wasEmpty = transfers.empty();
    transfers.push_back(transfer);
    if (wasEmpty)
        condition.Broadcast();
}

std::shared_ptr<Endpoint::Transfer> Endpoint::MakeTransfer(void* buffer, std::size_t size, Completion completion)
{
    auto transfer = std::make_shared<Transfer>();
    transfer->control.buffer = buffer;
    transfer->control.size = static_cast<std::uint32_t>(size);
    transfer->control.bytesLeft = transfer->control.size;
    transfer->completion = std::move(completion);
    return transfer;
}

void Endpoint::SubmitEvent(void* buffer, std::size_t size, Completion completion)
{
    if (!buffer)
        throw System::Exception("No data passed.");
    if (size < 1)
        throw System::Exception("Invalid size passed.");
    if (!IsRunning())
        throw System::Exception("Endpoint not running anymore.");
    auto transfer = MakeTransfer(buffer, size, std::move(completion));
    MutexGuard guard(&eventMutex);
    eventTransfers.push_back(transfer);
}

void Endpoint::AbortEvents()
{
    if (!IsRunning())
        throw System::Exception("Endpoint not running anymore.");
    std::deque<std::shared_ptr<Transfer>> aborted;
    {
        MutexGuard guard(&eventMutex);
        aborted.swap(eventTransfers);
    }
    for (const auto& transfer : aborted)
        transfer->completion(0, 0);
}

void Endpoint::EnqueueEvent(const void* data, std::size_t size)
{
    std::shared_ptr<Transfer> transfer;
    {
        MutexGuard guard(&eventMutex);
        if (!eventTransfers.empty()) {
            transfer = eventTransfers.front();
            eventTransfers.pop_front();
        }
    }
    if (!transfer) {
        Library::MediaLog("Endpoint::EnqueueEvent Transfer not found or found Transfer = NULL");
        return;
    }
    if (data && size <= transfer->control.size) {
        std::memcpy(transfer->control.buffer, data, size);
        transfer->completion(0, static_cast<std::uint32_t>(size));
    } else {
        transfer->completion(TransferFailed, 0);
    }
}


namespace {

std::string Text(const lib_channel_transfer* transfer)
{
    return transfer->text ? transfer->text : "";
}

}

void Endpoint::OnStreamChannelEvent(lib_channel_transfer* transfer)
{
    auto* endpoint = transfer ? static_cast<Endpoint*>(transfer->context) : nullptr;
    if (!endpoint)
        return;
    switch (transfer->message) {
    case MSG_TEXT:
        Library::MediaLog("Endpoint::OnStreamChannelEvent MSG_TEXT: message=" + Text(transfer));
        break;
    case MSG_DATA:
        Library::MediaLogDump("Endpoint::OnStreamChannelEvent MSG_DATA:\n", transfer->data, transfer->size);
        break;
    case MSG_FRAME_DROPPED: {
        Library::MediaLog((boost::format("Endpoint::OnStreamChannelEvent MSG_FRAME_DROPPED: dropped frameID=%1%, "
                                         "total dropped frames=%2%, reason = %3%") %
                           transfer->frameId % transfer->total % Text(transfer))
                              .str());
        break;
    }
    case MSG_ERROR:
        Library::MediaLog("Endpoint::OnStreamChannelEvent MSG_ERROR: message=" + Text(transfer));
        break;
    default:
        break;
    }
}

void Endpoint::OnEventChannelEvent(lib_channel_transfer* transfer)
{
    auto* endpoint = transfer ? static_cast<Endpoint*>(transfer->context) : nullptr;
    if (!endpoint)
        return;
    switch (transfer->message) {
    case MSG_DATA:
        Library::MediaLogDump("Endpoint::OnEventChannelEvent MSG_DATA:\n", transfer->data, transfer->size);
        endpoint->EnqueueEvent(transfer->data, transfer->size);
        break;
    case MSG_ERROR:
        Library::MediaLog("Endpoint::OnEventChannelEvent MSG_ERROR: message=" + Text(transfer));
        break;
    case MSG_TEXT:
        Library::MediaLog("Endpoint::OnEventChannelEvent MSG_TEXT: message=" + Text(transfer));
        break;
    default:
        break;
    }
}

void Endpoint::OnDebugChannelEvent(lib_channel_transfer*) {}

// Frames.

namespace {

// Counts emulated frames across all endpoints, as a camera counts its blocks.
std::atomic<std::uint64_t> emulatedBlockId{1};

}

std::shared_ptr<Endpoint::DataTransfer> Endpoint::MakeDataTransfer(DataTransfer::Origin origin, void* payload,
                                                                   std::size_t size, std::uint32_t leaderSize,
                                                                   std::uint32_t trailerSize, FrameHandler callback)
{
    if (size < 1)
        throw System::Exception("Invalid size passed.");
    auto transfer = std::make_shared<DataTransfer>();
    transfer->origin = origin;
    transfer->callback = std::move(callback);
    if (emulateLeaderTrailer)
        leaderSize = trailerSize = 0;
    lib_frame_transfer& frame = transfer->record.frame;
    frame.m_nLeaderSize = leaderSize;
    frame.m_nPayloadSize = size;
    frame.m_nTrailerSize = trailerSize;
    if (origin == DataTransfer::Announced) {
        transfer->leader.resize(leaderSize);
        transfer->trailer.resize(trailerSize);
        frame.m_pLeader = leaderSize ? reinterpret_cast<std::uintptr_t>(transfer->leader.data()) : 0;
        frame.m_pPayload = reinterpret_cast<std::uintptr_t>(payload);
        frame.m_pTrailer = trailerSize ? reinterpret_cast<std::uintptr_t>(transfer->trailer.data()) : 0;
    }
    transfer->record.callback = &Endpoint::OnStreamChannelFrameReady;
    transfer->record.context = frameSink.get();
    return transfer;
}

void* Endpoint::AllocateBuffer(std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size, std::uint32_t leaderSize,
                               std::uint32_t trailerSize, FrameHandler callback)
{
    MutexGuard guard(&frameMutex);
    auto transfer =
        MakeDataTransfer(DataTransfer::Allocated, nullptr, size, leaderSize, trailerSize, std::move(callback));
    frame_handle_t* handle = wrapper->AllocAndAnnounceFrame(ipuX, ipuY, &transfer->record);
    if (!handle)
        return nullptr;
    void* payload = reinterpret_cast<void*>(transfer->record.frame.m_pPayload);
    frames[handle] = transfer;
    payloads[payload] = handle;
    return payload;
}

frame_handle_t* Endpoint::AnnounceLocked(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                         std::uint32_t leaderSize, std::uint32_t trailerSize, FrameHandler callback)
{
    if (!payload)
        throw System::Exception("No data passed.");
    const auto known = payloads.find(payload);
    if (known != payloads.end())
        return known->second;
    auto transfer =
        MakeDataTransfer(DataTransfer::Announced, payload, size, leaderSize, trailerSize, std::move(callback));
    frame_handle_t* handle = wrapper->AnnounceFrame(ipuX, ipuY, &transfer->record);
    if (!handle)
        return nullptr;
    frames[handle] = transfer;
    payloads[payload] = handle;
    return handle;
}

frame_handle_t* Endpoint::AnnounceBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                         std::uint32_t leaderSize, std::uint32_t trailerSize, FrameHandler callback)
{
    MutexGuard guard(&frameMutex);
    return AnnounceLocked(payload, ipuX, ipuY, size, leaderSize, trailerSize, std::move(callback));
}

std::int32_t Endpoint::QueueBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
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

void Endpoint::DataTransfer::Retire(std::list<Queueing>::iterator queueing)
{
    queueing->callback.reset();
    spareQueueings.splice(spareQueueings.begin(), queueings, queueing);
}

std::int32_t Endpoint::FlushBuffers() { return wrapper->FlushFrames(); }

void Endpoint::RevokeBuffers()
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

std::int32_t Endpoint::RevokeBuffer(const void* payload)
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
std::int32_t Endpoint::GiveBack(frame_handle_t* handle, const std::shared_ptr<DataTransfer>& transfer)
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
void Endpoint::DataTransfer::AwaitReaders() const
{
    while (readers.load(std::memory_order_acquire) != 0)
        std::this_thread::yield();
}

std::size_t Endpoint::GetBufferCount() const
{
    MutexGuard guard(&frameMutex);
    return frames.size();
}

void Endpoint::SetEmulateLeaderTrailer(bool emulate)
{
    MutexGuard guard(&frameMutex);
    emulateLeaderTrailer = emulate;
}

void Endpoint::SetLeaderTrailerParam(const LeaderTrailerParameters& p)
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

std::int32_t Endpoint::StartStreaming(std::uint8_t dataIdentifier)
{
    streamRecord = std::make_shared<lib_channel_transfer>();
    streamRecord->context = this;
    streamRecord->callback = &Endpoint::OnStreamChannelEvent;
    Library::MediaLog("Endpoint::StartStreaming(..)");
    const std::int32_t result = wrapper->StartStream(dataIdentifier, streamRecord.get());
    streaming = result == 0;
    return result;
}

std::int32_t Endpoint::StopStreaming()
{
    streaming = false;
    const std::int32_t result = wrapper->StopStream();
    MutexGuard guard(&frameMutex);
    ++stops;
    return result;
}

void Endpoint::OnStreamChannelFrameReady(FrameRecord* record)
{
    if (!record || !record->context)
        return;
    auto* sink = static_cast<FrameSink*>(record->context);
    sink->gate.Run([&] { sink->endpoint->EnqueueMessage(record); });
}

void Endpoint::EnqueueMessage(FrameRecord* record)
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

} }
