#include "transport/EventChannel.h"

#include "base/BaseException.h"
#include "base/NamedThread.h"
#include "support/Allocation.h"
#include "support/Logger.h"
#include "support/MutexGuard.h"
#include "transport/CCIControlChannel.h"
#include "transport/EndpointHandler.h"

#include <boost/format.hpp>

#include <algorithm>
#include <cstring>
#include <new>

namespace QEL { namespace TransportLayer {

using Base::Exception;

namespace {

constexpr char Prefix[4] = {'C', 'S', 'I', 'E'};

bool HasPrefix(const std::vector<std::uint8_t>& buffer, std::size_t size)
{
    return size >= sizeof Prefix && std::memcmp(buffer.data(), Prefix, sizeof Prefix) == 0;
}

std::string TextOf(const std::exception_ptr& error, const char* foreign)
{
    try {
        std::rethrow_exception(error);
    } catch (const Exception& e) {
        return e.GetMessage();
    } catch (const System::Exception& e) {
        return e.GetMessage();
    } catch (...) {
        return foreign;
    }
}

}

// ---- Packet ----

EventChannel::Packet::Packet(const std::uint8_t* data, std::size_t size)
{
    if (size < HeadSize || size > HeadSize + 0xFFFF)
        throw Exception("Invalid packet size passed.", GC_ERR_INVALID_PARAMETER);
    if (!data)
        throw Exception("No packet data.", GC_ERR_INVALID_PARAMETER);
    Tools::Allocating("Could not allocate packet data.", [&] { bytes.assign(data, data + size); });
    if (GetPayloadSize() != size - HeadSize)
        throw Exception("Invalid packet length found.", GC_ERR_ERROR);
}

EventChannel::Packet::Packet(std::size_t payloadSize)
{
    if (payloadSize > 0xFFFF)
        throw Exception("Invalid payload size passed.", GC_ERR_INVALID_PARAMETER);
    Tools::Allocating("Could not allocate packet data.", [&] { bytes.assign(HeadSize + payloadSize, 0); });
    std::memcpy(bytes.data(), Prefix, sizeof Prefix);
    Put16(8, static_cast<std::uint16_t>(payloadSize));
}

// ---- Life ----

std::shared_ptr<EventChannel> EventChannel::Create(const std::shared_ptr<ControlChannel>& controlChannel,
                                                   const std::shared_ptr<LibCSI::EndpointHandler>& handler,
                                                   std::uint32_t transferCount)
{
    return Tools::MakeShared<EventChannel>("Could not allocate event channel.", controlChannel, handler, transferCount);
}

EventChannel::EventChannel(const std::shared_ptr<ControlChannel>& controlChannel,
                           const std::shared_ptr<LibCSI::EndpointHandler>& endpointHandler, std::uint32_t count)
    : control(controlChannel), handler(endpointHandler)
{
    if (!control)
        throw Exception("No control channel passed.", GC_ERR_INVALID_PARAMETER);
    if (!handler)
        throw Exception("No endpoint handler passed.", GC_ERR_INVALID_PARAMETER);
    if (count == 0)
        throw Exception("Invalid maximum transfer count passed.", GC_ERR_INVALID_PARAMETER);
    maximumPacketSize = handler->GetMaxPacketSize();
    if (maximumPacketSize == 0)
        throw Exception("Invalid maximum packet size found.", GC_ERR_ERROR);
    maximumTransferLength = control->GetMaxEventTransferLength();
    if (maximumTransferLength < MinTransferLength || maximumTransferLength > MaxTransferLength)
        throw Exception("Device reported invalid maximum transfer length.", GC_ERR_ERROR);
    transfersPerEvent = (maximumTransferLength + maximumPacketSize - 1) / maximumPacketSize;
    transferCount = std::min(count, handler->GetMaxTransferCount());
    CreateEventQueue();

    if (control->IsEventEnabled()) {
        handler->ResetPipe();
        handler->ClearPipe();
    } else if (handler->IsStalled()) {
        handler->ClearPipe();
    }
    for (std::uint32_t i = 0; i < transferCount + transfersPerEvent - 1; ++i)
        freeBuffers.push_back(std::make_shared<Buffer>(maximumPacketSize));

    System::SharedMutexGuard guard(GetMutex());
    Enter(Running);
    thread = Base::StartNamedThread("tl-csi-events", [this] { Run(); });
    threadRunning = true;
    Restart();
}

EventChannel::~EventChannel()
{
    {
        System::SharedMutexGuard guard(GetMutex());
        if (state != Stopped) {
            Enter(Stopping);
            // The endpoint gives back what it still holds; each buffer returns through its callback.
            try {
                handler->AbortEvents();
            } catch (...) {
            }
            while (!inFlight.empty() || threadRunning)
                endCondition.Wait(*GetMutex());
            Enter(Stopped);
        }
    }
    if (thread.joinable())
        thread.join();
}

std::shared_ptr<Base::GenCP::Packet> EventChannel::CreatePacket(std::size_t)
{
    throw Exception("Cannot allocate packet without support for event acknowledge.", GC_ERR_NOT_IMPLEMENTED);
}

void EventChannel::SendPacket(const std::shared_ptr<Base::GenCP::Packet>&)
{
    throw Exception("Cannot send packet without support for event acknowledge.", GC_ERR_NOT_IMPLEMENTED);
}

EventChannel::State EventChannel::GetState() const
{
    System::SharedMutexGuard guard(GetMutex());
    return state;
}

std::uint32_t EventChannel::GetRetryDelay() const
{
    System::SharedMutexGuard guard(GetMutex());
    return retryDelay;
}

std::size_t EventChannel::GetBuffersInFlight() const
{
    System::SharedMutexGuard guard(GetMutex());
    return inFlight.size();
}

// ---- States ----

void EventChannel::Enter(State next)
{
    if (next == state)
        return;
    if (next == Failed || next == Stopping) {
        for (const auto& transfer : received)
            GiveBack(transfer.first);
        received.clear();
        firstPacketError = false;
        if (next == Failed) {
            if (retryDelay == 0) {
                retryNow = true;
                retryDelay = 100;
            } else {
                retryTime = std::chrono::steady_clock::now() + std::chrono::milliseconds(retryDelay);
                retryNow = false;
                retryDelay = std::min(retryDelay * 2, MaxRetryDelayMs);
            }
        }
        DisableEvent();
    }
    state = next;
    threadCondition.Broadcast();
    if (next == Failed) {
        // With the camera's event off no transfer would ever end: the endpoint
        // gives the buffers back now, so that the restart is not waited for in vain.
        try {
            handler->AbortEvents();
        } catch (...) {
        }
    }
}

void EventChannel::DisableEvent()
{
    try {
        System::SharedMutexGuard guard(control->GetMutex());
        control->EnableEvents(false);
    } catch (...) {
        // The camera may be gone; the channel restarts or stops all the same.
    }
}

void EventChannel::Abort(const std::string& reason)
{
    if (state != Running && state != WaitingToRestart)
        return;
    Tools::Logger::Log((boost::format("Abort event channel due to an error: %1%") % reason).str());
    Enter(Failed);
    if (inFlight.empty())
        Enter(WaitingToRestart);
}

void EventChannel::Restart()
{
    try {
        if (handler->IsStalled())
            handler->ClearPipe();
        SubmitFreeBuffers();
        {
            System::SharedMutexGuard guard(control->GetMutex());
            control->EnableEvents(true);
        }
        retryNow = false;
        Enter(Running);
    } catch (...) {
        const std::exception_ptr error = std::current_exception();
        Enter(Failed);
        if (inFlight.empty())
            Enter(WaitingToRestart);
        const std::string text = TextOf(error, "");
        Tools::Logger::Log(text.empty() ? std::string("Could not enable event channel.")
                                        : (boost::format("Could not enable event channel. Reason: %1%") % text).str());
    }
}

void EventChannel::Run()
{
    System::SharedMutexGuard guard(GetMutex());
    for (;;) {
        if (state == Stopped || state == Stopping) {
            threadRunning = false;
            if (inFlight.empty())
                endCondition.Broadcast();
            return;
        }
        if (state == WaitingToRestart && (retryNow || std::chrono::steady_clock::now() >= retryTime)) {
            Restart();
            continue;
        }
        if (state == WaitingToRestart)
            threadCondition.TimedWait(*GetMutex(), retryTime);
        else
            threadCondition.Wait(*GetMutex());
    }
}

// ---- Transfers ----

void EventChannel::SubmitFreeBuffers()
{
    while (!freeBuffers.empty() && inFlight.size() < transferCount) {
        BufferPtr buffer = freeBuffers.front();
        freeBuffers.pop_front();
        inFlight.push_back(buffer);
        Buffer* raw = buffer.get();
        try {
            // The destructor waits for every buffer in flight, so the channel outlives each callback.
            handler->SubmitEvent(raw->data(), maximumPacketSize,
                                 [this, raw](TransferResult result, std::int32_t size) { OnTransfer(raw, result, size); });
        } catch (...) {
            inFlight.pop_back();
            freeBuffers.push_front(buffer);
            throw;
        }
    }
}

EventChannel::BufferPtr EventChannel::TakeInFlight(Buffer* buffer, bool& oldest)
{
    if (!buffer)
        throw Exception("No buffer passed.", GC_ERR_INVALID_PARAMETER);
    auto it = std::find_if(inFlight.begin(), inFlight.end(), [buffer](const BufferPtr& b) { return b.get() == buffer; });
    if (it == inFlight.end())
        throw Exception("Callback for an unknown buffer occurred.", GC_ERR_ERROR);
    oldest = it == inFlight.begin();
    BufferPtr taken = *it;
    inFlight.erase(it);
    return taken;
}

void EventChannel::OnTransfer(Buffer* buffer, TransferResult result, std::int32_t size)
{
    System::SharedMutexGuard guard(GetMutex());
    try {
        HandleTransfer(buffer, result, size);
    } catch (...) {
        const std::string text = TextOf(std::current_exception(), "");
        Tools::Logger::Log(text.empty() ? std::string("Error while handling a transfer.")
                                        : (boost::format("Error while handling a transfer. Reason: %1%") % text).str());
    }
}

void EventChannel::HandleTransfer(Buffer* raw, TransferResult result, std::int32_t size)
{
    bool oldest = false;
    BufferPtr buffer = TakeInFlight(raw, oldest);
    switch (state) {
    case Running: {
        // Three guarded steps; a failure in one aborts the channel.
        try {
            if (!oldest)
                throw Exception("Invalid transfer order found.", GC_ERR_ERROR);
            if (result != TransferSuccess)
                throw Exception("Transfer returned with an error.", GC_ERR_ERROR);
            if (size < 0 || static_cast<std::uint32_t>(size) > maximumPacketSize)
                throw Exception("Too much data received during transfer.", GC_ERR_ERROR);
        } catch (...) {
            GiveBack(buffer);
            Abort(TextOf(std::current_exception(), "Error while validating transfer."));
            return;
        }
        try {
            received.emplace_back(buffer, static_cast<std::size_t>(size));
            retryDelay = 0;
            CheckReceived();
        } catch (...) {
            Abort(TextOf(std::current_exception(), "Error while checking transfer."));
            return;
        }
        try {
            SubmitFreeBuffers();
        } catch (...) {
            Abort(TextOf(std::current_exception(), "Error while queuing transfers."));
        }
        return;
    }
    case Failed:
        GiveBack(buffer);
        if (inFlight.empty())
            Enter(WaitingToRestart);
        return;
    case Stopping:
        GiveBack(buffer);
        if (inFlight.empty() && !threadRunning)
            endCondition.Broadcast();
        return;
    default:
        GiveBack(buffer);
        return;
    }
}

void EventChannel::CheckReceived()
{
    if (received.size() == 1) {
        if (!HasPrefix(*received.front().first, received.front().second)) {
            GiveBack(received.front().first);
            received.clear();
            if (!firstPacketError)
                Tools::Logger::Log("First packet in transfer has no \"U3VE\" prefix.");
            firstPacketError = true;
            return;
        }
        firstPacketError = false;
    }
    while (!received.empty()) {
        if (received.size() < transfersPerEvent && received.back().second >= maximumPacketSize)
            return; // the event goes on in the next transfer
        std::vector<std::uint8_t> joined;
        for (const auto& transfer : received)
            joined.insert(joined.end(), transfer.first->begin(),
                          transfer.first->begin() + static_cast<std::ptrdiff_t>(transfer.second));
        std::shared_ptr<Packet> packet;
        try {
            packet = std::make_shared<Packet>(joined.data(), joined.size());
        } catch (...) {
            Tools::Logger::Log("Invalid packet found.");
            GiveBack(received.front().first);
            received.pop_front();
            firstPacketError = true;
            while (!received.empty() && !HasPrefix(*received.front().first, received.front().second)) {
                GiveBack(received.front().first);
                received.pop_front();
            }
            if (!received.empty())
                firstPacketError = false;
            continue;
        }
        for (const auto& transfer : received)
            GiveBack(transfer.first);
        received.clear();
        ProcessPacket(packet);
    }
}

} }
