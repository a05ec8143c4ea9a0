#include "transport/StreamChannel.h"

#include "base/BaseException.h"
#include "gencp/AckException.h"
#include "support/Helper.h"
#include "support/Logger.h"
#include "support/MutexGuard.h"
#include "transport/CCIControlChannel.h"
#include "transport/EndpointHandler.h"
#include "support/Allocation.h"

#include <boost/format.hpp>

#include <atomic>
#include <limits>
#include <new>
#include <numeric>

namespace QEL { namespace TransportLayer {

using Base::Exception;
using System::SharedMutexGuard;

namespace {

void Log(const boost::format& text) { Tools::Logger::Log(text.str()); }

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t alignment) { return StreamChannel::AlignSize(value, alignment, true); }

// Bits per pixel are bits 16 to 23 of a PFNC code.
std::uint64_t ImageBytes(std::uint32_t width, std::uint32_t height, std::uint32_t pixelFormat)
{
    const std::uint64_t bits = std::uint64_t{width} * height * ((pixelFormat >> 16) & 0xFF);
    return (bits + 7) / 8;
}

const Base::SupportedBufferInfos kSupportedInfos = {
    BUFFER_INFO_TIMESTAMP,   BUFFER_INFO_SIZE_FILLED, BUFFER_INFO_WIDTH,         BUFFER_INFO_HEIGHT,
    BUFFER_INFO_XOFFSET,     BUFFER_INFO_YOFFSET,     BUFFER_INFO_XPADDING,      BUFFER_INFO_YPADDING,
    BUFFER_INFO_FRAMEID,     BUFFER_INFO_IMAGEOFFSET, BUFFER_INFO_PAYLOADTYPE,   BUFFER_INFO_PIXELFORMAT,
    BUFFER_INFO_PIXELFORMAT_NAMESPACE, BUFFER_INFO_DELIVERED_IMAGEHEIGHT, BUFFER_INFO_DELIVERED_CHUNKPAYLOADSIZE,
    BUFFER_INFO_CHUNKLAYOUTID, BUFFER_INFO_CONTAINS_CHUNKDATA, 1000, 1002};

}

std::uint64_t StreamChannel::AlignSize(std::uint64_t value, std::uint64_t alignment, bool up)
{
    const std::uint64_t remainder = alignment == 0 ? value : value % alignment;
    if (remainder == 0)
        return value;
    const std::uint64_t down = value - remainder;
    if (!up)
        return down;
    if (down > std::numeric_limits<std::uint64_t>::max() - alignment)
        throw Exception("Rounding up with the given alignment would lead to an overflow.", GC_ERR_ERROR);
    return down + alignment;
}

std::uint8_t StreamChannel::ChooseDataIdentifier(const std::set<std::uint32_t>& host,
                                                 const std::set<std::uint32_t>& device)
{
    if (host.count(0x31) && device.count(0x31))
        return 0x31;
    for (std::uint32_t identifier = 0; identifier < 256; ++identifier)
        if (host.count(identifier) && device.count(identifier))
            return static_cast<std::uint8_t>(identifier);
    throw Exception("No common CSI data identifier found for host and device.", GC_ERR_ERROR);
}

std::shared_ptr<StreamChannel> StreamChannel::Create(const std::shared_ptr<ControlChannel>& control,
                                                     const std::shared_ptr<LibCSI::EndpointHandler>& handler,
                                                     std::int32_t recordFrameStartFrameID,
                                                     std::int32_t recordFrameStopFrameID)
{
    return Tools::MakeShared<StreamChannel>("Could not allocate stream channel.", control, handler,
                                            recordFrameStartFrameID, recordFrameStopFrameID);
}

StreamChannel::StreamChannel(const std::shared_ptr<ControlChannel>& controlChannel,
                             const std::shared_ptr<LibCSI::EndpointHandler>& endpointHandler,
                             std::int32_t recordStart, std::int32_t recordStop)
    : frameGate(std::make_shared<Tools::CallGate>()), control(controlChannel), handler(endpointHandler),
      recordFrameStartFrameID(recordStart),
      recordFrameStopFrameID(recordStop)
{
    if (!control)
        throw Exception("No control channel passed.", GC_ERR_INVALID_PARAMETER);
    if (!handler)
        throw Exception("No endpoint handler passed.", GC_ERR_INVALID_PARAMETER);
    if (handler->GetDirection() != 0)
        throw Exception("Endpoint has an invalid transfer direction.", GC_ERR_INVALID_PARAMETER);
    if (handler->GetMaxTransferCount() == 0)
        throw Exception("Invalid transfer count found.", GC_ERR_INVALID_PARAMETER);
    m_nMaxLeaderSize = control->GetMaxLeaderSize(streamIndex);
    Log(boost::format("m_nMaxLeaderSize=%1%") % m_nMaxLeaderSize);
    m_nMaxTrailerSize = control->GetMaxTrailerSize(streamIndex);
    Log(boost::format("m_nMaxTrailerSize=%1%") % m_nMaxTrailerSize);
    minimumBuffers = handler->GetMinAnnouncedFrames();
    // The camera shapes its frames to what the host's IPU can take.
    std::uint32_t r[6] = {}, alignment = 0;
    if (handler->GetIPURestrictions(r[0], r[1], r[2], r[3], r[4], r[5], alignment))
        control->SetIPURestrictions(streamIndex, r);
}

StreamChannel::~StreamChannel()
{
    try {
        StopStreaming(System::Clock::now());
    } catch (...) {
    }
    frameGate->Close();
}

// Frames come on libcsi's callback thread through the gate, which the
// destructor closes: that thread never owns the channel.
// Made once per block and stream round: the endpoint keeps it for every
// queueing, so queueing a buffer allocates nothing for it.
const LibCSI::StreamFrames::FrameHandler& StreamChannel::FrameHandler(const std::shared_ptr<StreamDataBlock>& block)
{
    if (!block->handler || block->handlerRound != round) {
        std::weak_ptr<StreamDataBlock> weakBlock = block;
        block->handler = std::make_shared<const LibCSI::StreamFrames::FrameCallback>(
            [gate = frameGate, this, weakBlock, made = round](const LibCSI::frame_info& frame) {
                gate->Run([&] { OnFrameFinished(weakBlock, made, frame); });
            });
        block->handlerRound = round;
    }
    return block->handler;
}

bool StreamChannel::IsStreaming() const
{
    SharedMutexGuard guard(GetMutex());
    return state == Streaming || state == Stopping || state == Finishing || state == Aborted;
}

StreamChannel::State StreamChannel::GetState() const
{
    SharedMutexGuard guard(GetMutex());
    return state;
}

std::uint64_t StreamChannel::GetStreamPayloadSize() const
{
    SharedMutexGuard guard(GetMutex());
    if (state == Idle)
        throw Exception("Stream payload size not available at the moment.", GC_ERR_NOT_AVAILABLE);
    return streamPayloadSize;
}

std::uint64_t StreamChannel::GetPayloadSize()
{
    SharedMutexGuard guard(GetMutex());
    const std::uint64_t size = control->GetPayloadSize(streamIndex);
    if (size == 0)
        throw Exception("Invalid payload size found.", GC_ERR_ERROR);
    return size;
}

std::uint64_t StreamChannel::GetPayloadSizeAlignment()
{
    SharedMutexGuard guard(GetMutex());
    const std::uint32_t exponent = control->GetMinimumAlignment();
    if (exponent >= 64)
        throw Exception("Invalid alignment found.", GC_ERR_ERROR);
    return std::uint64_t{1} << exponent;
}

const Base::SupportedBufferInfos& StreamChannel::GetSupportedBufferInfos() const { return kSupportedInfos; }

std::vector<StreamChannel::PlanEntry> StreamChannel::GetTransferPlan() const
{
    SharedMutexGuard guard(GetMutex());
    return plan;
}

std::uint64_t StreamChannel::GetDeliveredFrames()
{
    SharedMutexGuard guard(GetMutex());
    return handler->GetDeliveredFrames();
}

std::uint64_t StreamChannel::GetCRCErrorFrames()
{
    SharedMutexGuard guard(GetMutex());
    return handler->GetCRCErrorFrames();
}

std::uint64_t StreamChannel::GetUnderrunCount()
{
    SharedMutexGuard guard(GetMutex());
    return handler->GetUnderrunCount();
}

std::uint64_t StreamChannel::GetIncompleteFrames()
{
    SharedMutexGuard guard(GetMutex());
    return handler->GetIncompleteFrames();
}

double StreamChannel::GetFrameRate()
{
    SharedMutexGuard guard(GetMutex());
    return handler->GetFrameRate();
}

std::uint32_t StreamChannel::GetMaxTransferSize() const
{
    SharedMutexGuard guard(GetMutex());
    return handler->GetMaxTransferSize();
}

std::uint32_t StreamChannel::GetMaxTransferCount() const
{
    SharedMutexGuard guard(GetMutex());
    return handler->GetMaxTransferCount();
}

// ---- Starting ----

std::uint64_t StreamChannel::DeterminePayloadSize(std::uint32_t mode, std::uint64_t manual)
{
    const std::uint64_t payload = GetPayloadSize();
    const std::uint64_t alignment = GetPayloadSizeAlignment();
    const std::uint64_t smallest = bufferQueue->GetSmallestBufferSize();
    const char* tooSmall = "One or more buffers are too small for current stream payload size.";
    std::uint64_t size = 0;
    switch (mode) {
    case Auto:
        if (payload > smallest)
            throw Exception(tooSmall, GC_ERR_BUFFER_TOO_SMALL);
        size = smallest;
        break;
    case PayloadSize:
        size = payload;
        break;
    case Manual:
        if (manual < payload)
            throw Exception("Manual payload size too small for current payload size.", GC_ERR_BUFFER_TOO_SMALL);
        if (alignment && manual % alignment)
            throw Exception("Manual payload size not aligned.", GC_ERR_INVALID_PARAMETER);
        size = manual;
        break;
    default:
        throw Exception("Invalid stream payload size mode passed.", GC_ERR_INVALID_PARAMETER);
    }
    if (size == 0)
        throw Exception("Invalid stream payload size determined.", GC_ERR_ERROR);
    if (size > smallest)
        throw Exception(tooSmall, GC_ERR_BUFFER_TOO_SMALL);
    return size;
}

std::vector<StreamChannel::PlanEntry> StreamChannel::PlanTransfers(std::uint64_t size, bool singleFinalTransfer)
{
    const std::uint64_t packet = handler->GetMaxPacketSize();
    if (packet == 0)
        throw Exception("Invalid maximum packet size retrieved.", GC_ERR_ERROR);
    const std::uint64_t maxTransfer = handler->GetMaxTransferSize();
    if (maxTransfer == 0)
        throw Exception("Invalid maximum transfer size retrieved.", GC_ERR_ERROR);
    const std::uint64_t alignment = GetPayloadSizeAlignment();
    if (alignment > maxTransfer)
        throw Exception("Cannot align maximum packet size to endpoint packet size.", GC_ERR_ERROR);
    const std::uint64_t common = std::lcm(packet, alignment);
    const std::uint64_t transfer = maxTransfer - maxTransfer % common;
    auto recordSize = [&](std::uint64_t value) { return RoundUp(RoundUp(value ? value : alignment, alignment), packet); };
    auto finalSize = [&](std::uint64_t value) { return value ? RoundUp(RoundUp(value, alignment), packet) : 0; };

    const std::uint64_t count = (transfer == 0 || size < transfer) ? 0 : size / transfer;
    const std::uint64_t rest = size - count * transfer;
    std::uint64_t first = 0, second = 0;
    if (singleFinalTransfer) {
        first = finalSize(rest);
    } else {
        first = rest - rest % common;
        second = finalSize(rest - first);
    }
    if (std::max(first, second) > maxTransfer)
        throw Exception("Impossible to split the required payload size into stream transfers.", GC_ERR_ERROR);

    std::vector<PlanEntry> entries;
    entries.push_back({PlanEntry::Leader, 0, recordSize(m_nMaxLeaderSize)});
    for (std::uint64_t i = 0; i < count; ++i)
        entries.push_back({PlanEntry::Payload, i * transfer, transfer});
    if (first)
        entries.push_back({PlanEntry::FirstFinal, count * transfer, first});
    if (second)
        entries.push_back({PlanEntry::SecondFinal, count * transfer + first, second});
    entries.push_back({PlanEntry::Trailer, 0, recordSize(m_nMaxTrailerSize)});
    for (const PlanEntry& entry : entries)
        if (entry.size == 0)
            throw Exception("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    return entries;
}

void StreamChannel::SetUpEmulation()
{
    // Capability bit 1: the camera sends leader and trailer itself.
    if (control->GetSBRMCapability() & 0x2) {
        handler->SetEmulateLeaderTrailer(false);
        Tools::Logger::Log("Leader/Trailer emulation OFF");
        return;
    }
    LibCSI::LeaderTrailerParameters p;
    p.sizeX = control->GetImageSizeX(streamIndex);
    p.sizeY = control->GetImageSizeY(streamIndex);
    p.offsetX = control->GetImageOffsetX(streamIndex);
    p.offsetY = control->GetImageOffsetY(streamIndex);
    p.paddingX = control->GetImagePaddingX(streamIndex);
    p.pixelFormat = control->GetImagePixelFormat(streamIndex);
    p.payloadType = control->GetImagePayloadType(streamIndex);
    p.validPayloadSize = static_cast<std::uint32_t>(control->GetValidPayloadSize(streamIndex));
    p.chunkLayoutId = control->GetChunkLayoutID(streamIndex);
    handler->SetLeaderTrailerParam(p);
    handler->SetEmulateLeaderTrailer(true);
    Tools::Logger::Log("Leader/Trailer emulation ON");
}

void StreamChannel::StartStreaming(std::uint32_t driverBuffers, std::uint64_t images,
                                   const std::shared_ptr<BufferQueue>& queue,
                                   const std::shared_ptr<ErrorQueue>& errors, std::uint32_t payloadSizeMode,
                                   std::uint64_t manualPayloadSize, bool singleFinalTransfer)
{
    if (driverBuffers < minimumBuffers || driverBuffers > 4096)
        throw Exception("Invalid driver buffers count passed.", GC_ERR_INVALID_PARAMETER);
    if (images == 0)
        throw Exception("No images to acquire.", GC_ERR_INVALID_PARAMETER);
    if (!queue)
        throw Exception("No buffer queue passed.", GC_ERR_INVALID_PARAMETER);
    if (!errors)
        throw Exception("No error queue passed.", GC_ERR_INVALID_PARAMETER);
    SharedMutexGuard queueGuard(queue->GetMutex());
    SharedMutexGuard guard(GetMutex());
    if (state != Idle)
        throw Exception("Streaming already running.", GC_ERR_RESOURCE_IN_USE);
    SharedMutexGuard controlGuard(control->GetMutex());

    std::atomic_store(&bufferQueue, queue);
    std::uint64_t size = 0;
    std::vector<PlanEntry> newPlan;
    try {
        size = DeterminePayloadSize(payloadSizeMode, manualPayloadSize);
        newPlan = PlanTransfers(size, singleFinalTransfer);
        if (control->IsStreamEnabled(streamIndex)) {
            handler->AbortTransfers();
            handler->ClearPipe();
            control->EnableStream(streamIndex, false);
        } else if (handler->IsStalled()) {
            handler->ClearPipe();
        }
    } catch (...) {
        std::atomic_store(&bufferQueue, std::shared_ptr<BufferQueue>());
        throw;
    }

    try {
        ++round;
        SetState(Streaming);
        imagesToAcquire = images;
        streamPayloadSize = size;
        plan = std::move(newPlan);
        errorQueue = errors;
        std::weak_ptr<StreamChannel> weak = GetShared<StreamChannel>();
        inputConnection = queue->GetInputSignal().Connect([weak] {
            if (auto self = weak.lock())
                self->OnNewBuffer();
        });

        std::set<std::uint32_t> host, device;
        control->GetCSIDataIdentifiers(streamIndex, host, device);
        const std::uint8_t identifier = ChooseDataIdentifier(host, device);
        control->SetDataIdentifier(streamIndex, identifier);
        SetUpEmulation();
        RefreshIPU();
        SubmitBuffers();
        Tools::Logger::Log("StreamChannel::StartStreaming(..) Starting endpoint streaming");
        const std::int32_t result = handler->StartStreaming(identifier);
        if (result != 0)
            throw Exception((boost::format("Could not start streaming (Reason: %1%).") % result).str(), GC_ERR_ERROR);
        control->EnableStream(streamIndex, true);
    } catch (...) {
        SetState(Finishing);
        // Frames queued before the failure go back, in libcsi and to the consumer's input queue.
        try {
            handler->StopStreaming();
            handler->FlushBuffers();
        } catch (...) {
        }
        ReturnUnfilledBuffers();
        DisconnectInput();
        controlGuard.Release();
        SetState(Idle);
        std::atomic_store(&bufferQueue, std::shared_ptr<BufferQueue>());
        throw;
    }
}

// ---- Buffers ----

void StreamChannel::RefreshIPU()
{
    if (!ipuDirty)
        return;
    ipuX = control->GetIPUX(streamIndex);
    ipuY = control->GetIPUY(streamIndex);
    cameraPayloadSize = control->GetPayloadSize(streamIndex);
    ipuDirty = false;
}

// libcsi takes frames whose leader, payload and trailer fill the IPU geometry
// exactly: a larger buffer is announced with the camera's payload size, on
// purpose (at its own size it would leave libcsi refusing the stream's start).
std::uint32_t StreamChannel::FrameSizeFor(const Base::BasicBuffer& buffer) const
{
    const std::uint64_t size = buffer.GetSize();
    return static_cast<std::uint32_t>(cameraPayloadSize && size >= cameraPayloadSize ? cameraPayloadSize : size);
}

std::shared_ptr<StreamDataBlock> StreamChannel::BlockOf(const std::shared_ptr<Base::BasicBuffer>& buffer)
{
    auto& block = blocks[buffer->GetBase()];
    if (!block)
        block = std::make_shared<StreamDataBlock>();
    block->buffer = buffer;
    return block;
}

void StreamChannel::AnnounceBuffer(const std::shared_ptr<Base::Buffer>& buffer)
{
    SharedMutexGuard guard(GetMutex());
    if (state != Idle && state != Streaming && state != Stopping)
        return;
    RefreshIPU();
    auto basic = std::dynamic_pointer_cast<Base::BasicBuffer>(buffer);
    if (!basic)
        throw Exception("Could not retrieve info.", GC_ERR_ERROR);
    std::shared_ptr<StreamDataBlock> block = BlockOf(basic);
    frame_handle_t* handle = handler->AnnounceBuffer(basic->GetBase(), ipuX, ipuY, FrameSizeFor(*basic),
                                                     m_nMaxLeaderSize, m_nMaxTrailerSize, FrameHandler(block));
    if (!handle)
        throw Exception("AnnounceTransfers returned invalid handle. IPU/transfersize mismatch?.", GC_ERR_ERROR);
    block->transferHandle = handle;
}

bool StreamChannel::RevokeBuffer(const void* base)
{
    SharedMutexGuard guard(GetMutex());
    const auto found = blocks.find(base);
    const bool producerMemory = found != blocks.end() && found->second->producerMemory;
    if (found != blocks.end())
        blocks.erase(found);
    const std::int32_t result = handler->RevokeBuffer(base);
    if (result != 0)
        Tools::Logger::Log((boost::format("StreamChannel::RevokeBuffer: libcsi kept the frame (Reason: %1%).") % result)
                               .str());
    return producerMemory;
}

void StreamChannel::RevokeBuffers()
{
    SharedMutexGuard guard(GetMutex());
    while (!blocks.empty())
        RevokeBuffer(blocks.begin()->first);
}

bool StreamChannel::AllocateBuffer(void** base, std::size_t size, const std::shared_ptr<StreamDataBlock>& block)
{
    if (!block)
        throw Exception("Data Buffer not allocate.", GC_ERR_ERROR);
    if (!base)
        throw Exception("No base passed.", GC_ERR_INVALID_PARAMETER);
    SharedMutexGuard guard(GetMutex());
    RefreshIPU();
    void* payload = handler->AllocateBuffer(ipuX, ipuY, size, m_nMaxLeaderSize, m_nMaxTrailerSize,
                                            FrameHandler(block));
    if (!payload)
        return false;
    block->producerMemory = true;
    blocks[payload] = block;
    *base = payload;
    return true;
}

void StreamChannel::SubmitBuffers()
{
    while (state == Streaming || state == Stopping) {
        BufferQueue::BufferPtr buffer = bufferQueue->TakeFromInputQueue();
        if (!buffer)
            return;
        std::shared_ptr<StreamDataBlock> block = BlockOf(buffer);
        std::int32_t result = 0;
        try {
            result = handler->QueueBuffer(buffer->GetBase(), ipuX, ipuY, FrameSizeFor(*buffer), m_nMaxLeaderSize,
                                          m_nMaxTrailerSize, FrameHandler(block));
        } catch (...) {
            bufferQueue->ReturnToInputQueue(buffer); // not lost to the consumer: flushable and revocable
            throw;
        }
        if (result != 0) {
            bufferQueue->ReturnToInputQueue(buffer);
            // A driver that refuses a buffer will not fill this stream again:
            // the consumer hears of it instead of waiting for frames in vain.
            if (result == LIBCSI_DRIVER_CALL_FAILED)
                throw Exception((boost::format("Could not queue buffer (Reason: %1%).") % result).str(), GC_ERR_IO);
            // The endpoint takes no more for now.
            return;
        }
        block->acquiring = true;
    }
}

void StreamChannel::OnNewBuffer()
{
    auto queue = std::atomic_load(&bufferQueue);
    if (!queue)
        return;
    SharedMutexGuard queueGuard(queue->GetMutex());
    SharedMutexGuard guard(GetMutex());
    if (queue != bufferQueue)
        return;
    SubmitOrAbort();
}

void StreamChannel::OnFrameFinished(const std::weak_ptr<StreamDataBlock>& weakBlock, std::uint64_t madeInRound,
                                    const LibCSI::frame_info& frame)
{
    auto queue = std::atomic_load(&bufferQueue);
    std::shared_ptr<StreamDataBlock> block = weakBlock.lock();
    if (!queue || !block)
        return;
    SharedMutexGuard queueGuard(queue->GetMutex());
    SharedMutexGuard guard(GetMutex());
    // The block's buffer is set under these locks by a consumer's thread.
    if (queue != bufferQueue || !block->buffer)
        return;
    // A frame of an earlier stream that waited for the locks while this one
    // started: its buffer has gone round again and may be queued in this
    // stream, so its flag is this stream's now; only libcsi's hold is over,
    // and libcsi can take the buffers that waited for it.
    if (madeInRound != round && state != Idle && state != Stopping) {
        SubmitOrAbort();
        return;
    }
    block->acquiring = false;
    if (state == Idle || state == Stopping) {
        try {
            queue->ReturnToInputQueue(block->buffer);
        } catch (...) {
            // Revoked or flushed in the meantime: nothing to give back.
        }
        return;
    }
    // A frame libcsi gave back unfilled (RESULT_Unused) fails below like any
    // bad frame: its buffer goes back to the input queue and round again.
    try {
        FinishFrame(*block, frame);
        return;
    } catch (const System::Exception& e) {
        Tools::Logger::Log(e.GetMessage());
    }
    // The frame is lost; its buffer goes round again. A buffer that is not in
    // use any more (a frame of an earlier stream that libcsi handed over late)
    // stays where it is, but libcsi may take the waiting buffers now.
    try {
        queue->ReturnToInputQueue(block->buffer);
    } catch (...) {
    }
    SubmitOrAbort();
}

// Buffers waiting in the input queue go to libcsi; a failure aborts the stream.
void StreamChannel::SubmitOrAbort()
{
    try {
        SubmitBuffers();
    } catch (const Exception& e) {
        Abort(e.GetMessage(), e.GetCode());
    } catch (const System::Exception& e) {
        Abort(e.GetMessage(), GC_ERR_ERROR);
    } catch (...) {
        Abort("Unknown error occurred while streaming.", GC_ERR_ERROR);
    }
}

void StreamChannel::FinishFrame(StreamDataBlock& block, const LibCSI::frame_info& frame)
{
    switch (frame.result) {
    case LibCSI::RESULT_Success: break;
    case LibCSI::RESULT_Invalid: throw Exception("Frame reception state: RESULT_Invalid.", GC_ERR_ERROR);
    case LibCSI::RESULT_Incomplete: throw Exception("Frame reception state: RESULT_Incomplete.", GC_ERR_ERROR);
    case LibCSI::RESULT_InvalidIncomplete:
        throw Exception("Frame reception state: RESULT_InvalidIncomplete.", GC_ERR_ERROR);
    case LibCSI::RESULT_Unused: throw Exception("Frame reception state: RESULT_Unused.", GC_ERR_ERROR);
    default: throw Exception("Frame reception state: Unknown.", GC_ERR_ERROR);
    }
    auto infos = std::make_shared<Base::BufferInfos>();
    using CSITools::Helper;
    // 0x4001 is the extended form of a chunk image: leader and trailer say so, the payload ends in chunks.
    // Taken as chunk data on purpose, though only 1 and 4 count as images here: the endpoint reads its chunks.
    const bool chunkFrame = frame.payloadType == PAYLOAD_TYPE_CHUNK_DATA ||
                            frame.payloadType == LibCSI::PayloadTypeExtendedChunk;
    if (frame.payloadType == PAYLOAD_TYPE_CHUNK_ONLY) {
        Helper::SetInfo<Base::UInt64Info>(infos, BUFFER_INFO_FRAMEID, frame.frameId);
        Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_PAYLOADTYPE, 8);
        Helper::SetInfo<Base::UInt64Info>(infos, BUFFER_INFO_TIMESTAMP, frame.timestamp);
        Helper::SetInfo<Base::UInt64Info>(infos, BUFFER_INFO_CHUNKLAYOUTID, frame.chunkLayoutId);
        Helper::SetInfo<Base::Bool8Info>(infos, BUFFER_INFO_CONTAINS_CHUNKDATA, true);
        block.infos = infos;
        return;
    }
    if (frame.payloadType != PAYLOAD_TYPE_IMAGE && !chunkFrame)
        throw Exception("Unsupported payload type received.", GC_ERR_ERROR);

    bufferQueue->BeginAcquisition(block.buffer);
    block.infos = infos;
    const std::uint64_t imageSize = ImageBytes(frame.width, frame.height, frame.pixelFormat);
    const std::size_t payloadType =
        (frame.chunkSize != 0 || chunkFrame) ? PAYLOAD_TYPE_CHUNK_DATA : PAYLOAD_TYPE_IMAGE;
    // 0, not a wrapped difference, when a frame holds less than its image (an incomplete last line).
    const std::uint64_t yPadding = frame.validSize > imageSize ? frame.validSize - imageSize : 0;
    Helper::SetInfo<Base::UInt64Info>(infos, BUFFER_INFO_FRAMEID, frame.frameId);
    Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_PAYLOADTYPE, payloadType);
    Helper::SetInfo<Base::UInt64Info>(infos, BUFFER_INFO_TIMESTAMP, frame.timestamp);
    Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_WIDTH, frame.width);
    Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_HEIGHT, frame.height);
    Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_XOFFSET, frame.offsetX);
    Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_YOFFSET, frame.offsetY);
    Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_XPADDING, frame.paddingX);
    Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_YPADDING, yPadding);
    Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_IMAGEOFFSET, 0);
    Helper::SetInfo<Base::UInt64Info>(infos, BUFFER_INFO_PIXELFORMAT, frame.pixelFormat);
    Helper::SetInfo<Base::UInt64Info>(infos, BUFFER_INFO_PIXELFORMAT_NAMESPACE, PIXELFORMAT_NAMESPACE_GEV);
    Helper::SetInfo<Base::Bool8Info>(infos, BUFFER_INFO_CONTAINS_CHUNKDATA, payloadType == PAYLOAD_TYPE_CHUNK_DATA);
    Helper::SetInfo<Base::SizeTInfo>(infos, 1000, imageSize);
    Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_SIZE_FILLED, frame.validSize);
    Helper::SetInfo<Base::UInt32Info>(infos, 1002, 0);
    if (chunkFrame) {
        Helper::SetInfo<Base::UInt64Info>(infos, BUFFER_INFO_CHUNKLAYOUTID, frame.chunkLayoutId);
        Helper::SetInfo<Base::SizeTInfo>(infos, BUFFER_INFO_DELIVERED_CHUNKPAYLOADSIZE, frame.chunkSize);
    }
    // Formatting nine lines costs more than the rest of a frame's handling:
    // only when somebody reads the log.
    if (Tools::Logger::IsActive()) {
        Log(boost::format("BUFFER_INFO_WIDTH: %1%") % frame.width);
        Log(boost::format("BUFFER_INFO_HEIGHT: %1%") % frame.height);
        Log(boost::format("BUFFER_INFO_XOFFSET: %1%") % frame.offsetX);
        Log(boost::format("BUFFER_INFO_YOFFSET: %1%") % frame.offsetY);
        Log(boost::format("BUFFER_INFO_XPADDING: %1%") % frame.paddingX);
        Log(boost::format("BUFFER_INFO_PIXELFORMAT: %1%") % frame.pixelFormat);
        Log(boost::format("BUFFER_INFO_IMAGESIZE: %1%") % imageSize);
        Log(boost::format("BUFFER_INFO_SIZE_FILLED: %1%") % frame.validSize);
        Log(boost::format("BUFFER_INFO_YPADDING: %1%") % yPadding);
    }
    auto basic = std::dynamic_pointer_cast<Base::BasicBuffer>(block.buffer);
    basic->SetInfos(infos, false, true);
    block.newData = true;
    block.acquiring = false;
    bufferQueue->FinishAcquisition(block.buffer);
}

// ---- Stopping ----

void StreamChannel::Abort(const std::string& text, GC_ERROR code)
{
    if (state != Streaming && state != Stopping)
        return;
    Log(boost::format("Abort streaming due to an error: %1%") % text);
    if (errorQueue)
        errorQueue->AddData(Base::ErrorData::Make(code, text));
    if (state == Stopping) {
        SetState(Finishing);
        return;
    }
    SetState(Aborted);
    inputConnection.Disconnect();
}

void StreamChannel::DisconnectInput() { inputConnection.Disconnect(); }

// libcsi drops the frames it still held at a stop without a callback: their
// buffers go back to the input queue for the next start.
void StreamChannel::ReturnUnfilledBuffers()
{
    for (auto& entry : blocks) {
        StreamDataBlock& block = *entry.second;
        if (!block.acquiring || !block.buffer || !bufferQueue)
            continue;
        block.acquiring = false;
        try {
            bufferQueue->ReturnToInputQueue(block.buffer);
        } catch (...) {
            // Revoked or flushed in the meantime.
        }
    }
}

bool StreamChannel::StopStreaming(System::TimePoint /*deadline*/)
{
    // The queue's lock comes first, as everywhere: a finished frame holds it
    // while it waits for the channel.
    auto queue = std::atomic_load(&bufferQueue);
    std::unique_ptr<SharedMutexGuard> queueGuard;
    if (queue)
        queueGuard = std::make_unique<SharedMutexGuard>(queue->GetMutex());
    SharedMutexGuard guard(GetMutex());
    bool wasRunning = false;
    while (state != Idle) {
        switch (state) {
        case Streaming:
            wasRunning = true;
            try {
                handler->StopStreaming();
            } catch (...) {
            }
            SetState(Stopping);
            ReturnUnfilledBuffers();
            DisconnectInput();
            SetState(Idle);
            break;
        case Stopping:
        case Finishing:
            condition.Wait(*GetMutex());
            break;
        case Aborted:
            wasRunning = true;
            try {
                handler->StopStreaming();
            } catch (...) {
            }
            SetState(Finishing);
            ReturnUnfilledBuffers();
            SetState(Idle);
            break;
        default:
            throw Exception("Invalid streaming state found.", GC_ERR_ERROR);
        }
    }
    // libcsi keeps the frames it did not fill queued; their buffers went back to
    // the input queue above, so libcsi lets them go too (a revoke needs that).
    if (wasRunning) {
        try {
            handler->FlushBuffers();
        } catch (...) {
        }
    }
    try {
        handler->ClearPipe();
    } catch (...) {
    }
    ipuDirty = true;
    std::atomic_store(&bufferQueue, std::shared_ptr<BufferQueue>());
    return wasRunning;
}

void StreamChannel::SetState(State newState)
{
    if (newState != Idle && newState != Streaming && newState != Stopping && newState != Finishing &&
        newState != Aborted)
        throw Exception("Invalid stream state found.", GC_ERR_ERROR);
    const bool wasActive = state == Streaming || state == Stopping;
    if (wasActive && (newState == Idle || newState == Finishing || newState == Aborted)) {
        try {
            control->EnableStream(streamIndex, false);
        } catch (const Base::GenCP::AckException&) {
            handler->StopStreaming();
        } catch (...) {
            try {
                handler->StopStreaming();
            } catch (...) {
            }
        }
    }
    if (newState == Idle || newState == Streaming) {
        imagesToAcquire = 0;
        plan.clear();
        errorQueue.reset();
    }
    state = newState;
    condition.Broadcast();
}

} }
