#include "modules/CSIDataStream.h"

#include "base/BufferRecord.h"
#include "base/ProducerIdentity.h"
#include "framework/ChunkData.h"
#include "framework/GenericRegister.h"
#include "framework/InfoFeed.h"
#include "framework/InfoRegisters.h"
#include "framework/XMLDescription.h"
#include "modules/CSIDevice.h"
#include "support/Allocation.h"
#include "support/MutexGuard.h"
#include "transport/StreamChannel.h"

#include <boost/format.hpp>

#include <chrono>
#include <cstring>
#include <limits>
#include <new>

namespace QEL { namespace CSI {

using Base::Exception;
using QEL::System::SharedMutexGuard;

namespace {

constexpr std::uint64_t XmlAddress = 0x10000;
constexpr std::uint64_t StatDeliveredAddress = 0x10E0000;
constexpr std::uint64_t StatCRCErrorAddress = 0x10F0000;
constexpr std::uint64_t StatIncompleteAddress = 0x1100000;
constexpr std::uint64_t StatUnderrunAddress = 0x1110000;
constexpr std::uint64_t StatFrameRateAddress = 0x1120000;
constexpr std::uint64_t StreamIdAddress = 0x1000000;
constexpr std::uint64_t AnnouncedCountAddress = 0x1020000;
constexpr std::uint64_t AcquisitionModeAddress = 0x1030000;
constexpr std::uint64_t AnnounceMinimumAddress = 0x1040000;
constexpr std::uint64_t PayloadSizeAddress = 0x1050000;
constexpr std::uint64_t MaxDriverBuffersImplAddress = 0x10D0000;
constexpr std::uint64_t MaxDriverBuffersAddress = 0x1070000;
constexpr std::uint64_t IsStreamingAddress = 0x1080000;
constexpr std::uint64_t PayloadSizeModeAddress = 0x1090000;
constexpr std::uint64_t AlignmentAddress = 0x10A0000;
constexpr std::uint64_t ManualPayloadSizeAddress = 0x10B0000;
constexpr std::uint64_t StopTimeoutAddress = 0x10C0000;

using ULongRegister = Base::GenericRegister<std::uint64_t>; // the document's 8-byte registers, on every target
using UIntRegister = Base::GenericRegister<unsigned int>;
using IntRegister = Base::GenericRegister<int>;
using DoubleRegister = Base::GenericRegister<double>;
using StringInfoRegister = Base::VariableInfoRegister<const Base::StringInfo>;

// A size_t info as the 64-bit value that an 8-byte register mirrors; read in
// place, since a register read should not build a second info.
std::uint64_t AsUInt64(const Base::InfoPtr& info)
{
    if (!info)
        throw Exception("Unexpected info type retrieved.", GC_ERR_ERROR);
    return Base::NumericValue(*info);
}

}

std::uint64_t DataStream::AlignSize(std::uint64_t value, std::uint64_t alignment, bool up)
{
    return TransportLayer::StreamChannel::AlignSize(value, alignment, up);
}

std::shared_ptr<DataStream> DataStream::Create(const std::shared_ptr<Settings>& settings,
                                               const std::shared_ptr<TransportLayer::StreamChannel>& streamChannel,
                                               const std::string& deviceId, std::uint64_t streamIndex,
                                               const std::weak_ptr<Device>& parent)
{
    auto stream = Tools::MakeShared<DataStream>("Could not allocate data stream.", settings, streamChannel, deviceId,
                                                streamIndex, parent);
    stream->Initialize();
    return stream;
}

DataStream::DataStream(const std::shared_ptr<Settings>& settings,
                       const std::shared_ptr<TransportLayer::StreamChannel>& streamChannel, const std::string& deviceId,
                       std::uint64_t streamIndex, const std::weak_ptr<Device>& parent)
    : settings(settings), deviceId(deviceId), streamChannel(streamChannel), streamIndex(streamIndex), parent(parent)
{
    if (!settings)
        throw Exception("No settings passed.", GC_ERR_INVALID_PARAMETER);
    if (!streamChannel)
        throw Exception("No stream channel passed.", GC_ERR_INVALID_PARAMETER);
    if (parent.expired())
        throw Exception("No parent device passed.", GC_ERR_INVALID_PARAMETER);
}

DataStream::~DataStream()
{
    if (open)
        Tools::Swallow([&] { Close(); });
}

void DataStream::Initialize()
{
    Base::SupportedBufferInfos infos;
    {
        SharedMutexGuard guard(streamChannel->GetMutex());
        infos = streamChannel->GetSupportedBufferInfos();
    }
    Tools::Allocating("Could not allocate basic buffer queue.",
                      [&] { bufferQueue = std::make_shared<Base::BasicBufferQueue>("Custom", infos); });
    Tools::Allocating("Could not create error event queue.",
                      [&] { errorQueue = AddEvent<Base::ErrorData>(EVENT_ERROR, true); });
    Tools::Allocating("Could not create feature invalidate event queue.",
                      [&] { AddEvent<Base::FeatureInvalidateData>(EVENT_FEATURE_INVALIDATE, true); });
    AddEvent(EVENT_NEW_BUFFER, bufferQueue, false);
    InitializeModule();
    AddXMLDescription(Base::RegisterXMLDescription::ForModule(settings->GetDataStreamXML(), "Lorun_DataStream",
                                                              XmlAddress, "No data stream XML file available."));
    AddRegisters();
    InitializePort();
    open = true;
}

void DataStream::AddRegisters()
{
    auto self = GetShared<DataStream>();
    DataStream* raw = this;
    auto channel = streamChannel;

    auto statistic = [&](std::uint64_t address, const char* failure) {
        auto reg = Tools::MakeShared<ULongRegister>(failure, address, Base::AccessRead);
        reg->GetPreReadSignal().Connect(
            [raw](ULongRegister& r) {
                auto& stream = *raw->streamChannel;
                SharedMutexGuard guard(stream.GetMutex());
                const std::uint64_t address = r.GetAddressRange().GetAddress();
                r.SetValue(address == StatDeliveredAddress    ? stream.GetDeliveredFrames()
                           : address == StatCRCErrorAddress   ? stream.GetCRCErrorFrames()
                           : address == StatIncompleteAddress ? stream.GetIncompleteFrames()
                           : address == StatUnderrunAddress   ? stream.GetUnderrunCount()
                                                              : 0);
            },
            self);
        AddRegister(reg);
    };
    statistic(StatDeliveredAddress, "Could not allocate Stream stat frame delivered register.");
    statistic(StatCRCErrorAddress, "Could not allocate Stream stat frame CRC error register.");
    statistic(StatIncompleteAddress, "Could not allocate Stream stat frame incomplete register.");
    statistic(StatUnderrunAddress, "Could not allocate Stream stat frame underrun register.");
    auto rate =
        Tools::MakeShared<DoubleRegister>("Could not allocate register.", StatFrameRateAddress, Base::AccessRead);
    rate->GetPreReadSignal().Connect(
        [raw](DoubleRegister& r) {
            SharedMutexGuard guard(raw->streamChannel->GetMutex());
            r.SetValue(raw->streamChannel->GetFrameRate());
        },
        self);
    AddRegister(rate);

    auto id =
        Tools::MakeShared<StringInfoRegister>("Could not allocate register.", StreamIdAddress, 256, Base::AccessRead);
    Base::ConnectInfoFeed(*id, [raw] { return raw->GetInfo(STREAM_INFO_ID); }, self);
    AddRegister(id);
    auto feed64 = [&](std::uint64_t address, STREAM_INFO_CMD command, const char* failure) {
        auto reg = Tools::MakeShared<ULongRegister>(failure, address, Base::AccessRead);
        reg->GetPreReadSignal().Connect(
            [raw, command](ULongRegister& r) { r.SetValue(AsUInt64(raw->GetInfo(command))); }, self);
        AddRegister(reg);
    };
    feed64(AnnouncedCountAddress, STREAM_INFO_NUM_ANNOUNCED, "Could not allocate DataStream Announced Buffer Count register.");
    auto mode = Tools::MakeShared<IntRegister>("Could not allocate register.", AcquisitionModeAddress, 0,
                                               Base::AccessReadWrite);
    mode->GetPreWriteSignal().Connect(
        [](const int& value, IntRegister&) {
            if (value != 0)
                throw Exception("Invalid Acquisition Mode passed.", GC_ERR_INVALID_PARAMETER);
        },
        self);
    AddRegister(mode);
    feed64(AnnounceMinimumAddress, STREAM_INFO_BUF_ANNOUNCE_MIN,
           "Could not allocate Data Stream Announce Buffer Minimum register.");
    feed64(PayloadSizeAddress, STREAM_INFO_PAYLOAD_SIZE, "Could not allocate DataStream Payload Size register.");

    const std::uint32_t fixedDriverBuffers = settings->GetDriverBuffersCount();
    AddRegister(Tools::MakeShared<UIntRegister>("Could not allocate DataStream Max Driver Buffers Count Impl register.",
                                                MaxDriverBuffersImplAddress, fixedDriverBuffers == 0 ? 1u : 0u,
                                                Base::AccessRead));
    if (fixedDriverBuffers == 0) {
        auto driverBuffers =
            Tools::MakeShared<UIntRegister>("Could not allocate DataStream Max Driver Buffers Count register.",
                                            MaxDriverBuffersAddress, 16u, Base::AccessReadWrite);
        driverBuffers->GetPreWriteSignal().Connect(
            [raw](const unsigned int& value, UIntRegister&) {
                SharedMutexGuard guard(raw->streamChannel->GetMutex());
                if (raw->settings->GetDriverBuffersCount() != 0)
                    throw Exception("Max driver buffers count register is not implemented.", GC_ERR_NOT_IMPLEMENTED);
                if (raw->streamChannel->IsStreaming())
                    throw Exception("Cannot change maximum number of driver buffers while streaming.",
                                    GC_ERR_NOT_AVAILABLE);
                if (value == 0)
                    throw Exception("Invalid number of maximum driver buffers passed.", GC_ERR_INVALID_PARAMETER);
            },
            self);
        AddRegister(driverBuffers);
    }
    auto streaming = Tools::MakeShared<UIntRegister>("Could not allocate DataStream Is Streaming register.",
                                                     IsStreamingAddress, Base::AccessRead);
    streaming->GetPreReadSignal().Connect(
        [raw](UIntRegister& r) { r.SetValue(raw->streamChannel->IsStreaming() ? 1u : 0u); }, self);
    AddRegister(streaming);

    auto sizeMode = Tools::MakeShared<UIntRegister>("Could not allocate Stream Payload Size Mode register.",
                                                    PayloadSizeModeAddress, 0u, Base::AccessReadWrite);
    sizeMode->GetPreWriteSignal().Connect(
        [raw](const unsigned int& value, UIntRegister&) {
            // The queue's lock before the channel's, as a finished frame takes them.
            SharedMutexGuard queueGuard(raw->bufferQueue->GetMutex());
            SharedMutexGuard guard(raw->streamChannel->GetMutex());
            if (raw->streamChannel->IsStreaming())
                throw Exception("Cannot change stream payload size mode while streaming.", GC_ERR_NOT_AVAILABLE);
            auto manual = raw->ManualSizeRegister();
            if (value == TransportLayer::StreamChannel::Auto || value == TransportLayer::StreamChannel::PayloadSize) {
                manual->SetAccessMode(Base::AccessNone);
                manual->ResetValue();
            } else if (value == TransportLayer::StreamChannel::Manual) {
                if (!manual->HasValue()) {
                    const std::uint64_t alignment = raw->streamChannel->GetPayloadSizeAlignment();
                    std::uint64_t first = AlignSize(raw->streamChannel->GetPayloadSize(), alignment, true);
                    if (raw->bufferQueue->GetAnnouncedCount() > 0)
                        first = std::max<std::uint64_t>(
                            first, AlignSize(raw->bufferQueue->GetSmallestBufferSize(), alignment, false));
                    manual->SetValue(first);
                }
                manual->SetAccessMode(Base::AccessReadWrite);
            } else {
                throw Exception("Invalid stream payload size mode passed.", GC_ERR_INVALID_PARAMETER);
            }
        },
        self);
    AddRegister(sizeMode);
    auto alignment = Tools::MakeShared<ULongRegister>("Could not allocate Stream Payload Size Alignment register.",
                                                      AlignmentAddress, Base::AccessRead);
    alignment->GetPreReadSignal().Connect(
        [raw](ULongRegister& r) { r.SetValue(raw->streamChannel->GetPayloadSizeAlignment()); }, self);
    AddRegister(alignment);

    auto manual =
        Tools::MakeShared<ULongRegister>("Could not allocate register.", ManualPayloadSizeAddress, Base::AccessNone);
    manual->GetPreReadSignal().Connect(
        [raw](ULongRegister& r) {
            raw->RequireManualMode();
            SharedMutexGuard guard(raw->streamChannel->GetMutex());
            const std::uint64_t alignment = raw->streamChannel->GetPayloadSizeAlignment();
            const std::uint64_t minimum = raw->ManualMinimum();
            if (!r.HasValue() || minimum > r.GetValue())
                r.SetValue(minimum);
            else if (alignment && r.GetValue() % alignment)
                r.SetValue(AlignSize(r.GetValue(), alignment, false));
        },
        self);
    manual->GetPreWriteSignal().Connect(
        [raw](const std::uint64_t& value, ULongRegister&) {
            SharedMutexGuard guard(raw->streamChannel->GetMutex());
            if (raw->streamChannel->IsStreaming())
                throw Exception("Cannot change manual stream payload size while streaming.", GC_ERR_NOT_AVAILABLE);
            raw->RequireManualMode();
            raw->CheckManualSize(value);
        },
        self);
    AddRegister(manual);
    // Read by StopAcquisition for a deadline that bounds no wait: libcsi's stop always has 200 ms.
    AddRegister(Tools::MakeShared<UIntRegister>("Could not allocate Stream Stop Timeout register.", StopTimeoutAddress,
                                                200u, Base::AccessReadWrite));
}

std::uint64_t DataStream::ManualMinimum()
{
    return AlignSize(streamChannel->GetPayloadSize(), streamChannel->GetPayloadSizeAlignment(), true);
}

std::shared_ptr<Base::GenericRegister<std::uint64_t>> DataStream::ManualSizeRegister()
{
    auto manual = std::dynamic_pointer_cast<ULongRegister>(GetRegister(ManualPayloadSizeAddress));
    if (!manual)
        throw Exception("Could not get manual stream payload size register.", GC_ERR_ERROR);
    return manual;
}

void DataStream::RequireManualMode()
{
    if (GetRegisterAs<UIntRegister>(PayloadSizeModeAddress)->GetValue() != TransportLayer::StreamChannel::Manual)
        throw Exception("Cannot access manual stream payload size register while manual mode is not active.",
                        GC_ERR_NOT_AVAILABLE);
}

// An aligned size is at least the payload exactly when it is at least the
// payload rounded up to the alignment.
void DataStream::CheckManualSize(std::uint64_t value)
{
    const std::uint64_t alignment = streamChannel->GetPayloadSizeAlignment();
    if (value < ManualMinimum() || (alignment && value % alignment))
        throw Exception("Invalid manual stream payload size passed.", GC_ERR_INVALID_PARAMETER);
}

void DataStream::RequireOpen() const
{
    if (!open)
        throw Exception("Data stream not open.", GC_ERR_INVALID_HANDLE);
}

void DataStream::Close()
{
    RequireOpen();
    Tools::Swallow([&] {
        if (streamChannel && streamChannel->IsStreaming())
            streamChannel->StopStreaming(QEL::System::Clock::now());
    });
    Tools::Swallow([&] { DeinitializePort(); });
    Tools::Swallow([&] { ClearPort(); });
    Tools::Swallow([&] { DeinitializeModule(); });
    Tools::Swallow([&] { ClearEvents(); });
    // The stream channel outlives this stream (the device keeps it): libcsi's
    // frames of these buffers go too, or memory announced again at the same
    // address would find an old frame of the old size.
    Tools::Swallow([&] {
        if (!bufferQueue)
            return;
        SharedMutexGuard guard(bufferQueue->GetMutex());
        if (streamChannel)
            Tools::Swallow([&] { streamChannel->RevokeBuffers(); });
        bufferQueue->RevokeAll();
    });
    errorQueue.reset();
    streamChannel.reset();
    bufferQueue.reset();
    open = false;
}

void DataStream::CheckAnnounceDuringAcquisition(std::size_t size)
{
    SharedMutexGuard guard(streamChannel->GetMutex());
    if (!streamChannel->IsStreaming())
        return;
    if (!settings->GetDynamicBufferHandling())
        throw Exception("Cannot announce buffers during acquisition.", GC_ERR_BUSY);
    if (streamChannel->GetStreamPayloadSize() > size)
        throw Exception("Cannot announce buffers that are smaller than the stream payload size during acquisition.",
                        GC_ERR_NOT_AVAILABLE);
}

std::shared_ptr<Base::Buffer> DataStream::AnnounceBuffer(void* buffer, std::size_t size, void* userPointer)
{
    RequireOpen();
    CheckAnnounceDuringAcquisition(size);
    SharedMutexGuard guard(bufferQueue->GetMutex());
    auto announced = bufferQueue->AnnounceBuffer(buffer, size, userPointer);
    try {
        streamChannel->AnnounceBuffer(announced);
    } catch (...) {
        void *base = nullptr, *user = nullptr;
        Tools::Swallow([&] { bufferQueue->RevokeBuffer(announced, &base, &user); });
        throw;
    }
    return announced;
}

std::shared_ptr<Base::Buffer> DataStream::AllocAndAnnounceBuffer(std::size_t size, void* userPointer)
{
    RequireOpen();
    CheckAnnounceDuringAcquisition(size);
    SharedMutexGuard guard(bufferQueue->GetMutex());
    auto block = std::make_shared<TransportLayer::StreamDataBlock>();
    void* base = nullptr;
    if (!streamChannel->AllocateBuffer(&base, size, block) || !base)
        throw Exception("Could not allocate buffer.", GC_ERR_ERROR);
    auto announced = bufferQueue->AnnounceBuffer(base, size, userPointer);
    block->buffer = announced;
    return announced;
}

std::shared_ptr<Base::Buffer> DataStream::GetBufferID(std::uint32_t index)
{
    RequireOpen();
    SharedMutexGuard guard(bufferQueue->GetMutex());
    return bufferQueue->GetBufferByIndex(index);
}

void DataStream::QueueBuffer(const std::shared_ptr<Base::Buffer>& buffer)
{
    RequireOpen();
    SharedMutexGuard guard(bufferQueue->GetMutex());
    bufferQueue->QueueBuffer(buffer);
}

void DataStream::RevokeBuffer(const std::shared_ptr<Base::Buffer>& buffer, void** base, void** userPointer)
{
    RequireOpen();
    if (!settings->GetDynamicBufferHandling()) {
        SharedMutexGuard guard(streamChannel->GetMutex());
        if (streamChannel->IsStreaming())
            throw Exception("Cannot revoke buffers during acquisition.", GC_ERR_BUSY);
    }
    SharedMutexGuard guard(bufferQueue->GetMutex());
    auto basic = std::dynamic_pointer_cast<Base::BasicBuffer>(buffer);
    void* const address = basic ? basic->GetBase() : nullptr;
    bufferQueue->RevokeBuffer(buffer, base, userPointer);
    // The queue took an allocated buffer for one of the consumer's; its memory
    // goes with the frame, so no address of it is handed out (the GenTL rule
    // for producer memory, over returning the address of freed memory).
    if (address && streamChannel->RevokeBuffer(address) && base)
        *base = nullptr;
}

// The queue's lock comes before the channel's here, as on every other path
// that holds both: a finished frame takes them in that order. Chosen over
// taking the channel's first, which would invert the frames' order.
void DataStream::StartAcquisition(ACQ_START_FLAGS startFlags, std::uint64_t numToAcquire)
{
    RequireOpen();
    if (startFlags != ACQ_START_FLAGS_DEFAULT)
        throw Exception("Unsupported start flags passed.", GC_ERR_INVALID_PARAMETER);
    SharedMutexGuard queueGuard(bufferQueue->GetMutex());
    SharedMutexGuard guard(streamChannel->GetMutex());
    const unsigned int modeValue = GetRegisterAs<UIntRegister>(PayloadSizeModeAddress)->GetValue();
    std::uint64_t manualSize = 0;
    if (modeValue == TransportLayer::StreamChannel::Manual) {
        if (!settings->GetDynamicBufferHandling() && bufferQueue->GetAnnouncedCount() == 0)
            throw Exception("Not enough buffers for acquisition.", GC_ERR_NOT_AVAILABLE);
        auto manual = ManualSizeRegister();
        if (!manual->HasValue())
            throw Exception("No manual stream payload size set.", GC_ERR_ERROR);
        manualSize = manual->GetValue();
        CheckManualSize(manualSize);
    } else if (modeValue != TransportLayer::StreamChannel::Auto &&
               modeValue != TransportLayer::StreamChannel::PayloadSize) {
        throw Exception("Invalid stream payload size mode set.", GC_ERR_ERROR);
    }
    const std::uint32_t fixed = settings->GetDriverBuffersCount();
    const std::uint32_t driverBuffers =
        fixed != 0 ? fixed : GetRegisterAs<UIntRegister>(MaxDriverBuffersAddress)->GetValue();
    streamChannel->StartStreaming(driverBuffers, numToAcquire, bufferQueue, errorQueue, modeValue, manualSize,
                                  fixed != 0);
}

void DataStream::StopAcquisition(ACQ_STOP_FLAGS stopFlags)
{
    RequireOpen();
    SharedMutexGuard queueGuard(bufferQueue->GetMutex());
    SharedMutexGuard guard(streamChannel->GetMutex());
    QEL::System::TimePoint deadline = QEL::System::Clock::now();
    if (stopFlags == ACQ_STOP_FLAGS_DEFAULT) {
        auto timeout = GetRegisterAs<UIntRegister>(StopTimeoutAddress);
        deadline += std::chrono::milliseconds(timeout->HasValue() ? timeout->GetValue() : 200);
    } else if (stopFlags != ACQ_STOP_FLAGS_KILL) {
        throw Exception("Invalid stop flags passed.", GC_ERR_INVALID_PARAMETER);
    }
    if (!streamChannel->StopStreaming(deadline))
        throw Exception("Streaming not running.", GC_ERR_RESOURCE_IN_USE);
}

void DataStream::FlushQueue(ACQ_QUEUE_TYPE operation)
{
    RequireOpen();
    SharedMutexGuard guard(bufferQueue->GetMutex());
    bufferQueue->FlushQueue(operation);
}

Base::InfoPtr DataStream::GetInfo(STREAM_INFO_CMD command)
{
    RequireOpen();
    auto queueValue = [&](auto read) {
        SharedMutexGuard guard(bufferQueue->GetMutex());
        return read(*bufferQueue);
    };
    auto channelValue = [&](auto read) {
        SharedMutexGuard guard(streamChannel->GetMutex());
        return read(*streamChannel);
    };
    using Queue = Base::BasicBufferQueue;
    using Channel = TransportLayer::StreamChannel;
    Base::InfoPtr answer;
    Tools::Allocating("Could not allocate info.", [&] {
        switch (command) {
        case STREAM_INFO_ID:
            answer = std::make_shared<Base::StringInfo>(
                (boost::format("%1%_DS_0x%2$x") % deviceId % streamIndex).str());
            break;
        case STREAM_INFO_NUM_DELIVERED:
            answer = std::make_shared<Base::UInt64Info>(queueValue([](Queue& q) { return q.GetDeliveredCount(); }));
            break;
        case STREAM_INFO_NUM_UNDERRUN:
            answer = std::make_shared<Base::UInt64Info>(channelValue([](Channel& c) { return c.GetUnderrunCount(); }));
            break;
        case STREAM_INFO_NUM_ANNOUNCED:
            answer = std::make_shared<Base::SizeTInfo>(queueValue([](Queue& q) { return q.GetAnnouncedCount(); }));
            break;
        case STREAM_INFO_NUM_QUEUED:
            answer = std::make_shared<Base::SizeTInfo>(queueValue([](Queue& q) { return q.GetQueuedCount(); }));
            break;
        case STREAM_INFO_NUM_AWAIT_DELIVERY:
            answer = std::make_shared<Base::SizeTInfo>(queueValue([](Queue& q) { return q.GetAwaitDeliveryCount(); }));
            break;
        case STREAM_INFO_NUM_STARTED:
            answer = std::make_shared<Base::UInt64Info>(queueValue([](Queue& q) { return q.GetFinishedCount(); }));
            break;
        case STREAM_INFO_PAYLOAD_SIZE:
            answer = std::make_shared<Base::SizeTInfo>(channelValue([](Channel& c) { return c.GetPayloadSize(); }));
            break;
        case STREAM_INFO_IS_GRABBING:
            answer = std::make_shared<Base::Bool8Info>(channelValue([](Channel& c) { return c.IsStreaming(); }));
            break;
        case STREAM_INFO_DEFINES_PAYLOADSIZE:
            answer = std::make_shared<Base::Bool8Info>(true);
            break;
        case STREAM_INFO_TLTYPE:
            answer = std::make_shared<Base::StringInfo>("Custom");
            break;
        case STREAM_INFO_NUM_CHUNKS_MAX:
            throw Exception("Max number of chunks not available.", GC_ERR_NOT_AVAILABLE);
        case STREAM_INFO_BUF_ANNOUNCE_MIN:
            answer = std::make_shared<Base::SizeTInfo>(
                channelValue([](Channel& c) { return c.GetBufferAnnounceMinimum(); }));
            break;
        case STREAM_INFO_BUF_ALIGNMENT:
            answer = std::make_shared<Base::SizeTInfo>(
                channelValue([](Channel& c) { return c.GetPayloadSizeAlignment(); }));
            break;
        default:
            throw Exception("Unsupported info requested.", GC_ERR_NOT_IMPLEMENTED);
        }
    });
    if (!answer)
        throw Exception("Could not allocate info.", GC_ERR_ERROR);
    return answer;
}

std::size_t DataStream::GetInfoSize(STREAM_INFO_CMD command, INFO_DATATYPE* type)
{
    return SizeOf(GetInfo(command), type, "Could not get data stream info.");
}

Base::InfoPtr DataStream::GetBufferInfo(const std::shared_ptr<Base::Buffer>& buffer, BUFFER_INFO_CMD command)
{
    RequireOpen();
    SharedMutexGuard guard(bufferQueue->GetMutex());
    return bufferQueue->GetBufferInfo(buffer, command);
}

std::size_t DataStream::GetBufferInfoSize(const std::shared_ptr<Base::Buffer>& buffer, BUFFER_INFO_CMD command,
                                          INFO_DATATYPE* type)
{
    RequireOpen();
    SharedMutexGuard guard(bufferQueue->GetMutex());
    return bufferQueue->GetBufferInfoSize(buffer, command, type);
}

void DataStream::GetBufferChunkData(const std::shared_ptr<Base::Buffer>& buffer, SINGLE_CHUNK_DATA* chunkData,
                                    std::size_t* numChunks)
{
    RequireOpen();
    if (!numChunks)
        throw Exception("No number of chunks passed.", GC_ERR_INVALID_PARAMETER);
    SharedMutexGuard guard(bufferQueue->GetMutex());
    Base::InfoPtr bundle;
    try {
        bundle = bufferQueue->GetBufferInfo(buffer, Base::BufferRecord::Command);
    } catch (const Exception& e) {
        // A buffer of another stream, or a released one, fails with its own code.
        if (e.GetCode() != GC_ERR_NOT_AVAILABLE)
            throw;
    }
    if (!bundle)
        throw Exception("Buffer info bundle not available.", GC_ERR_NOT_AVAILABLE);
    if (bundle->GetSize() < Base::BufferRecord::Size)
        throw Exception("Buffer info bundle too small.", GC_ERR_ERROR);
    namespace R = Base::BufferRecord;
    std::uint8_t record[R::Size] = {};
    std::size_t size = sizeof record;
    bundle->Read(record, &size);
    if (!R::Has(record, R::PayloadType))
        throw Exception("Buffer payload type not available.", GC_ERR_NOT_AVAILABLE);
    if (R::Read(record, R::PayloadType) != PAYLOAD_TYPE_CHUNK_DATA)
        throw Exception("Buffer contains no chunk data.", GC_ERR_NOT_AVAILABLE);
    if (!R::HasFlag(record, R::FlagIncomplete))
        throw Exception("Buffer completeness not available.", GC_ERR_NOT_AVAILABLE);
    if (R::Read(record, R::Flags) & R::FlagIncomplete)
        throw Exception("Buffer is incomplete.", GC_ERR_NOT_AVAILABLE);
    if (!R::Has(record, R::BasePointer))
        throw Exception("Buffer pointer not available.", GC_ERR_NOT_AVAILABLE);
    const auto* base =
        reinterpret_cast<const std::uint8_t*>(static_cast<std::uintptr_t>(R::Read(record, R::BasePointer)));
    if (!base)
        throw Exception("Invalid buffer pointer found.", GC_ERR_ERROR);
    if (!R::Has(record, R::BufferSize))
        throw Exception("Buffer size not available.", GC_ERR_NOT_AVAILABLE);
    if (!R::Has(record, R::Filled))
        throw Exception("Buffer filled size not available.", GC_ERR_NOT_AVAILABLE);
    const std::uint64_t filled = R::Read(record, R::Filled);
    if (filled > R::Read(record, R::BufferSize))
        throw Exception("Invalid buffer filled size found.", GC_ERR_NOT_AVAILABLE);
    if (!R::Has(record, R::Status))
        throw Exception("Buffer status not available.", GC_ERR_NOT_AVAILABLE);
    if (R::Read(record, R::Status) != 0)
        throw Exception("Buffer is not valid.", GC_ERR_NOT_AVAILABLE);

    const std::vector<SINGLE_CHUNK_DATA> chunks = Base::ParseChunks(base, filled);
    if (chunkData) {
        if (chunks.size() > *numChunks)
            throw Exception("Insufficient chunk data entries passed.", GC_ERR_BUFFER_TOO_SMALL);
        std::copy(chunks.begin(), chunks.end(), chunkData);
    }
    *numChunks = chunks.size();
}

std::shared_ptr<Base::Device> DataStream::GetParent()
{
    RequireOpen();
    auto locked = parent.lock();
    if (!locked)
        throw Exception("Parent already closed", GC_ERR_ERROR);
    return locked;
}

Base::InfoPtr DataStream::GetPortInfo(PORT_INFO_CMD command) const
{
    SharedMutexGuard guard(GetMutex());
    RequireOpen();
    auto self = const_cast<DataStream*>(this);
    switch (command) {
    case PORT_INFO_ID: return self->GetInfo(STREAM_INFO_ID);
    case PORT_INFO_VENDOR: return std::make_shared<Base::StringInfo>("Tesmar Lumetric Industries");
    case PORT_INFO_MODEL:
        return std::make_shared<Base::StringInfo>(Base::ProducerModel);
    case PORT_INFO_TLTYPE: return self->GetInfo(STREAM_INFO_TLTYPE);
    case PORT_INFO_MODULE: return std::make_shared<Base::StringInfo>(GetTypeName());
    case PORT_INFO_VERSION: return std::make_shared<Base::StringInfo>(settings->GetVersion().ToString('.'));
    case PORT_INFO_PORTNAME: return std::make_shared<Base::StringInfo>(GetPortName());
    default: return DataStreamStack::GetPortInfo(command);
    }
}

} }
