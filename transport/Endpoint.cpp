#include "transport/Endpoint.h"

#include "base/Exception.h"
#include "base/NamedThread.h"
#include "support/Allocation.h"
#include "support/MutexGuard.h"
#include "transport/LibCSIDevice.h"
#include "transport/LibCSILibrary.h"

#include <boost/format.hpp>

#include <cstring>
#include <new>

namespace QEL { namespace LibCSI {

using System::MutexGuard;

std::shared_ptr<Endpoint> Endpoint::Open(const std::shared_ptr<Device>& device, std::uint32_t number)
{
    if (!device)
        throw System::Exception("No device passed.");
    std::shared_ptr<Endpoint> endpoint(
        Tools::Allocating("Could not allocate endpoint.", [&] { return new Endpoint(device, number); }));
    endpoint->Start();
    return endpoint;
}

Endpoint::Endpoint(const std::shared_ptr<Device>& device, std::uint32_t number)
    : device(device), wrapper(device->GetWrapper()), number(number), descriptor(number)
{
    if (number == ENDPOINT_MODE_SI)
        frames = std::make_unique<StreamFrames>(device, wrapper);
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
        state = State::Running;
    }
    thread = Base::StartNamedThread("tl-endpoint", [this] { Run(); });
}

Endpoint::~Endpoint()
{
    // libcsi holds pointers into the frame records: they go before the records do.
    if (frames) {
        frames->CloseGate();
        try {
            if (streaming)
                StopStreaming();
            if (frames->GetBufferCount())
                frames->FlushBuffers();
        } catch (...) {
        }
        frames->RevokeLeft();
    }
    {
        MutexGuard guard(&mutex);
        if (state == State::Running) {
            state = State::StopRequested;
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
    return state == State::Running;
}

std::uint32_t Endpoint::GetMaxPacketSize() const { return wrapper->GetMaximumPacketSize(); }

void Endpoint::Run()
{
    MutexGuard guard(&mutex);
    while (state == State::Running) {
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
    state = State::Stopped;
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
    if (state != State::Running)
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
    frames->StreamStopped();
    return result;
}

StreamFrames& Endpoint::Frames()
{
    if (!frames)
        throw System::Exception("Not a stream endpoint.");
    return *frames;
}

} }
