#include "transport/EndpointHandler.h"

#include "base/Exception.h"
#include "support/MutexGuard.h"
#include "transport/CSIInfo.h"
#include "transport/Endpoint.h"
#include "transport/LibCSIDevice.h"
#include "transport/LibCSIWrapper_Impl.h"
#include "support/Allocation.h"

#include <new>

namespace QEL { namespace LibCSI {

using System::MutexGuard;
using TransportLayer::TransferResult;

std::shared_ptr<EndpointHandler> EndpointHandler::Create(const std::shared_ptr<Endpoint>& endpoint,
                                                         std::uint32_t maxTransferCount,
                                                         std::uint32_t maxTransferSize, std::int32_t channel)
{
    return Tools::MakeShared<EndpointHandler>("Could not allocate endpoint handler.", endpoint, maxTransferCount,
                                              maxTransferSize, channel);
}

EndpointHandler::EndpointHandler(const std::shared_ptr<Endpoint>& endpoint, std::uint32_t maxTransferCount,
                                 std::uint32_t maxTransferSize, std::int32_t channel)
    : endpoint(endpoint), maxTransferCount(maxTransferCount), maxTransferSize(maxTransferSize),
      direction(channel == CONTROL_CHANNEL ? 1 : 0)
{
    if (!endpoint)
        throw System::Exception("No endpoint passed.");
    if (maxTransferCount < 1)
        throw System::Exception("Invalid maximum transfer count passed.");
    maxPacketSize = endpoint->GetMaxPacketSize();
    if (maxPacketSize == 0)
        throw System::Exception("Invalid maximum packet size found.");
    running = true;
}

EndpointHandler::EndpointHandler(std::uint32_t maxTransferCount, std::uint32_t maxTransferSize,
                                 std::uint32_t maxPacketSize)
    : running(true), maxTransferCount(maxTransferCount), maxTransferSize(maxTransferSize), maxPacketSize(maxPacketSize)
{
}

EndpointHandler::~EndpointHandler()
{
    // Control transfers cannot be aborted; each completes on the endpoint's thread.
    MutexGuard guard(&mutex);
    running = false;
    while (activeTransfers > 0)
        condition.Wait(mutex);
}

TransferResult EndpointHandler::ResultOf(std::uint32_t status)
{
    switch (status) {
    case 0:
        return TransportLayer::TransferSuccess;
    case 0xE0010000:
        return TransportLayer::TransferAborted;
    case 0xE0000004:
        return TransportLayer::TransferStatusFailure;
    default:
        return TransportLayer::TransferFailure;
    }
}

void EndpointHandler::Submit(void* buffer, std::size_t size, const Callback& callback)
{
    if (size < 1)
        throw System::Exception("Invalid size passed.");
    if (size > maxTransferSize)
        throw System::Exception("Size exceeds maximum transfer size.");
    if (direction == 0 && size % maxPacketSize != 0)
        throw System::Exception("Size on in endpoint not a multiple of maximum packet size.");
    MutexGuard guard(&mutex);
    if (!running)
        throw System::Exception("Endpoint handler not running anymore.");
    if (activeTransfers >= static_cast<std::int32_t>(maxTransferCount))
        throw System::Exception("Maximum transfer count reached.");
    ++activeTransfers;
    // The handler outlives its transfers: its destructor waits for them.
    try {
        endpoint->Submit(buffer, size, [this, callback](std::uint32_t status, std::uint32_t done) {
            {
                MutexGuard guard(&mutex);
                --activeTransfers;
                condition.Broadcast();
            }
            if (callback)
                callback(ResultOf(status), static_cast<std::int32_t>(done));
        });
    } catch (...) {
        --activeTransfers;
        throw;
    }
}

void EndpointHandler::SubmitEvent(void* buffer, std::size_t size, const Callback& callback)
{
    endpoint->SubmitEvent(buffer, size, [callback](std::uint32_t status, std::uint32_t done) {
        if (callback)
            callback(ResultOf(status), static_cast<std::int32_t>(done));
    });
}

void EndpointHandler::AbortEvents() { endpoint->AbortEvents(); }

void EndpointHandler::CheckRunning() const
{
    if (!endpoint->IsRunning())
        throw System::Exception("Endpoint not running anymore.");
}

void EndpointHandler::AbortTransfers() { CheckRunning(); }

void EndpointHandler::ClearPipe() { CheckRunning(); }

bool EndpointHandler::HasTransferSlot() const
{
    MutexGuard guard(&mutex);
    return activeTransfers < static_cast<std::int32_t>(maxTransferCount);
}

bool EndpointHandler::GetDriverVersion(std::string& version) { return endpoint->GetWrapper()->GetDriverVersion(version); }
bool EndpointHandler::GetLibraryVersion(std::string& version)
{
    return endpoint->GetWrapper()->GetLibraryVersion(version);
}
bool EndpointHandler::GetApiVersion(std::string& version) { return endpoint->GetWrapper()->GetApiVersion(version); }

bool EndpointHandler::GetCSIConfig(std::uint8_t& laneCount, std::uint32_t& clockFrequency)
{
    return endpoint->GetWrapper()->GetCSIConfig(laneCount, clockFrequency);
}

bool EndpointHandler::SetCSIConfig(std::uint8_t laneCount, std::uint32_t clockFrequency)
{
    return endpoint->GetWrapper()->SetCSIConfig(laneCount, clockFrequency);
}

std::set<std::uint8_t> EndpointHandler::GetSupportedLaneCounts()
{
    return endpoint->GetWrapper()->GetSupportedLaneCounts();
}

std::map<std::uint8_t, std::pair<std::uint32_t, std::uint32_t>> EndpointHandler::GetClockRanges()
{
    return endpoint->GetWrapper()->GetClockRanges();
}

std::set<std::uint32_t> EndpointHandler::GetSupportedDataIdentifiers()
{
    return endpoint->GetWrapper()->GetSupportedDataIdentifiers();
}

bool EndpointHandler::GetIPURestrictions(std::uint32_t& xMin, std::uint32_t& xMax, std::uint32_t& xInc,
                                         std::uint32_t& yMin, std::uint32_t& yMax, std::uint32_t& yInc,
                                         std::uint32_t& alignment)
{
    return endpoint->GetWrapper()->GetIPURestrictions(xMin, xMax, xInc, yMin, yMax, yInc, alignment);
}

std::int32_t EndpointHandler::ResetDevice()
{
    CheckRunning();
    return endpoint->GetWrapper()->ResetDevice();
}

std::uint32_t EndpointHandler::GetMinAnnouncedFrames() { return endpoint->GetWrapper()->GetMinAnnouncedFrames(); }
std::uint32_t EndpointHandler::GetLinkSpeed() { return endpoint->GetWrapper()->GetCCILinkSpeed(); }
std::uint64_t EndpointHandler::GetDeliveredFrames() { return endpoint->GetWrapper()->GetDeliveredFrames(); }
std::uint64_t EndpointHandler::GetCRCErrorFrames() { return endpoint->GetWrapper()->GetCRCErrorFrames(); }
std::uint64_t EndpointHandler::GetUnderrunCount() { return endpoint->GetWrapper()->GetUnderrunCount(); }
std::uint64_t EndpointHandler::GetIncompleteFrames() { return endpoint->GetWrapper()->GetIncompleteFrames(); }
double EndpointHandler::GetFrameRate() { return endpoint->GetWrapper()->GetFrameRate(); }
void EndpointHandler::ResetStatistics() { endpoint->GetWrapper()->ResetStatistics(); }

std::shared_ptr<CSIInfo> EndpointHandler::GetInfo()
{
    std::shared_ptr<CSIInfo> info;
    if (!endpoint->GetWrapper()->GetDeviceInfo(endpoint->GetDevice()->GetKey(), info) || !info)
        throw System::Exception("Not device info received.");
    return info;
}

std::string EndpointHandler::GetDeviceGuid() { return GetInfo()->GetDeviceGuid(); }
std::string EndpointHandler::GetManufacturerName() { return GetInfo()->GetManufacturerName(); }
std::string EndpointHandler::GetModelName() { return GetInfo()->GetModelName(); }
std::string EndpointHandler::GetSerialNumber() { return GetInfo()->GetSerialNumber(); }
std::string EndpointHandler::GetPortID() { return GetInfo()->GetPortID(); }

} }

namespace QEL { namespace LibCSI {

std::int32_t EndpointHandler::StartStreaming(std::uint8_t dataIdentifier)
{
    CheckRunning();
    return endpoint->StartStreaming(dataIdentifier);
}

std::int32_t EndpointHandler::StopStreaming()
{
    CheckRunning();
    return endpoint->StopStreaming();
}

void* EndpointHandler::AllocateBuffer(std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                      std::uint32_t leaderSize, std::uint32_t trailerSize,
                                      StreamFrames::FrameHandler callback)
{
    CheckRunning();
    return endpoint->Frames().AllocateBuffer(ipuX, ipuY, size, leaderSize, trailerSize, std::move(callback));
}

frame_handle_t* EndpointHandler::AnnounceBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY,
                                                std::size_t size, std::uint32_t leaderSize,
                                                std::uint32_t trailerSize, StreamFrames::FrameHandler callback)
{
    CheckRunning();
    return endpoint->Frames().AnnounceBuffer(payload, ipuX, ipuY, size, leaderSize, trailerSize, std::move(callback));
}

std::int32_t EndpointHandler::QueueBuffer(void* payload, std::uint32_t ipuX, std::uint32_t ipuY, std::size_t size,
                                          std::uint32_t leaderSize, std::uint32_t trailerSize,
                                          StreamFrames::FrameHandler callback)
{
    CheckRunning();
    return endpoint->Frames().QueueBuffer(payload, ipuX, ipuY, size, leaderSize, trailerSize, std::move(callback));
}

std::int32_t EndpointHandler::FlushBuffers()
{
    CheckRunning();
    return endpoint->Frames().FlushBuffers();
}

std::int32_t EndpointHandler::RevokeBuffer(const void* payload) { return endpoint->Frames().RevokeBuffer(payload); }

void EndpointHandler::RevokeBuffers()
{
    CheckRunning();
    endpoint->Frames().RevokeBuffers();
}

void EndpointHandler::SetEmulateLeaderTrailer(bool emulate)
{
    CheckRunning();
    endpoint->Frames().SetEmulateLeaderTrailer(emulate);
}

void EndpointHandler::SetLeaderTrailerParam(const LeaderTrailerParameters& parameters)
{
    CheckRunning();
    endpoint->Frames().SetLeaderTrailerParam(parameters);
}

} }
