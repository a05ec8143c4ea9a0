#include "gst/Camera.h"

#include "base/BufferRecord.h"
#include "base/ProducerIdentity.h"
#include "client/InfoOf.h"
#include "client/Settings.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace LorunGst {

using LorunClient::BufferInfo;
using LorunClient::ProducerError;
using LorunClient::StreamInfo;
using LorunClient::Session;

namespace {

// What a frame needs of the record (the flags are always there).
constexpr QEL::Base::BufferRecord::Field NeededFields[] = {
    QEL::Base::BufferRecord::Filled,   QEL::Base::BufferRecord::Width,       QEL::Base::BufferRecord::Height,
    QEL::Base::BufferRecord::XPadding, QEL::Base::BufferRecord::PixelFormat, QEL::Base::BufferRecord::Timestamp};

std::string Describe(Session& session, const Session::Camera& camera)
{
    return camera.id + " (serial " + session.CameraInfo(camera, DEVICE_INFO_SERIAL_NUMBER) + ", " +
           session.CameraInfo(camera, DEVICE_INFO_MODEL) + ")";
}

std::string ListOf(Session& session, const std::vector<Session::Camera>& cameras)
{
    if (cameras.empty())
        return "no camera found";
    std::string list = "cameras found:";
    for (std::size_t i = 0; i < cameras.size(); ++i)
        list += " [" + std::to_string(i) + "] " + Describe(session, cameras[i]);
    return list;
}

Session::Camera Choose(Session& session, const CameraChoice& choice)
{
    const std::vector<Session::Camera> cameras = session.Cameras();
    std::vector<Session::Camera> left;
    for (const Session::Camera& camera : cameras)
        if ((choice.deviceId.empty() || camera.id == choice.deviceId) &&
            (choice.serial.empty() || session.CameraInfo(camera, DEVICE_INFO_SERIAL_NUMBER) == choice.serial))
            left.push_back(camera);
    const bool narrowed = !choice.deviceId.empty() || !choice.serial.empty();
    if (choice.index >= 0) {
        if (static_cast<std::size_t>(choice.index) >= left.size())
            throw CameraError(CameraErrorKind::NotFound, GC_ERR_NOT_AVAILABLE,
                              "No camera at index " + std::to_string(choice.index) + "; " + ListOf(session, cameras));
        return left[static_cast<std::size_t>(choice.index)];
    }
    if (cameras.empty())
        throw CameraError(CameraErrorKind::NotFound, GC_ERR_NOT_AVAILABLE, "No camera found.");
    if (left.empty())
        throw CameraError(CameraErrorKind::NotFound, GC_ERR_NOT_AVAILABLE,
                          "No camera matches the choice; " + ListOf(session, cameras));
    if (left.size() > 1 && narrowed)
        throw CameraError(CameraErrorKind::NotFound, GC_ERR_INVALID_PARAMETER,
                          "The choice matches " + std::to_string(left.size()) + " cameras; " + ListOf(session, left));
    return left.front();
}

}

std::shared_ptr<Camera> Camera::Open(const std::string& producerPath, const CameraChoice& choice)
{
    std::shared_ptr<Session> session = LorunClient::SharedSession(producerPath);
    const Session::Camera chosen = Choose(*session, choice);
    // Listed but pulled out: the interface still names it until it is back.
    if (session->CameraAccess(chosen) == DEVICE_ACCESS_STATUS_NOACCESS)
        throw CameraError(CameraErrorKind::NotFound, GC_ERR_NOT_AVAILABLE,
                          "The camera " + chosen.id + " is not available (pulled out?)");
    LorunClient::GenTLProducer& producer = session->Producer();
    DEV_HANDLE device = nullptr;
    const GC_ERROR rc = producer.IFOpenDevice(chosen.interface, chosen.id.c_str(), DEVICE_ACCESS_CONTROL, &device);
    if (rc != GC_ERR_SUCCESS) {
        const std::string text = producer.LastError();
        const std::int32_t access = session->CameraAccess(chosen);
        if (rc == GC_ERR_RESOURCE_IN_USE || rc == GC_ERR_BUSY || access == DEVICE_ACCESS_STATUS_BUSY ||
            access == DEVICE_ACCESS_STATUS_OPEN_READWRITE || access == DEVICE_ACCESS_STATUS_OPEN_READONLY ||
            text.find("busy") != std::string::npos)
            throw CameraError(CameraErrorKind::Busy, rc,
                              "The camera " + chosen.id + " is busy: another element or process has it open (error " +
                                  std::to_string(rc) + ", " + text + ")");
        throw CameraError(CameraErrorKind::Failed, rc,
                          "IFOpenDevice " + chosen.id + ": error " + std::to_string(rc) + ", " + text);
    }
    return std::shared_ptr<Camera>(new Camera(std::move(session), chosen, device));
}

Camera::Camera(std::shared_ptr<LorunClient::Session> owner, const LorunClient::Session::Camera& camera,
               DEV_HANDLE opened)
    : session(std::move(owner)), producer(session->Producer()), where(camera), id(camera.id), device(opened)
{
    try {
        PORT_HANDLE remote = nullptr;
        producer.Check(producer.DevGetPort(device, &remote), "DevGetPort " + id);
        features = std::make_unique<LorunClient::FeatureTree>(producer, remote);
        const std::string streamId = LorunClient::TextOf(producer, "DevGetDataStreamID", [&](char* text, size_t* size) {
            return producer.DevGetDataStreamID(device, 0, text, size);
        });
        producer.Check(producer.DevOpenDataStream(device, streamId.c_str(), &stream), "DevOpenDataStream " + id);
        producer.Check(producer.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &newBuffer), "GCRegisterEvent " + id);
        std::uint64_t frequency = 0;
        INFO_DATATYPE type = 0;
        size_t size = sizeof frequency;
        if (producer.IFGetDeviceInfo(where.interface, id.c_str(), DEVICE_INFO_TIMESTAMP_FREQUENCY, &type, &frequency,
                                     &size) == GC_ERR_SUCCESS &&
            size == sizeof frequency)
            ticksPerSecond = frequency;
        useRecord = producer.InfoText(TL_INFO_MODEL) == QEL::Base::ProducerModel; // its buffer info 1001 is the record
    } catch (...) {
        features.reset();
        if (newBuffer)
            producer.GCUnregisterEvent(stream, EVENT_NEW_BUFFER);
        if (stream)
            producer.DSClose(stream);
        producer.DevClose(device);
        throw;
    }
}

Camera::~Camera()
{
    try {
        Close(); // nothing is out: every frame out owns us
    } catch (const std::exception&) {
    }
}

void Camera::Close()
{
    const std::lock_guard<std::mutex> lock(streamMutex);
    if (closed)
        return;
    for (const auto& [handle, announced] : memory)
        if (announced.out && !announced.block)
            throw CameraError(CameraErrorKind::Failed, GC_ERR_RESOURCE_IN_USE,
                              "Frames of " + id + " in the producer's memory are still downstream.");
    StopLocked();
    while (!memory.empty()) // the frames out too: they keep their memory
        Revoke(memory.begin()->first);
    producer.GCUnregisterEvent(stream, EVENT_NEW_BUFFER);
    producer.DSClose(stream);
    producer.DevClose(device);
    closed = true;
}

void Camera::Revoke(BUFFER_HANDLE buffer)
{
    void* base = nullptr;
    void* user = nullptr;
    producer.DSRevokeBuffer(stream, buffer, &base, &user);
    memory.erase(buffer);
}

LorunClient::FeatureTree& Camera::Tree(Module module)
{
    switch (module) {
    case Module::Device:
        if (!deviceFeatures)
            deviceFeatures = std::make_unique<LorunClient::FeatureTree>(producer, device);
        return *deviceFeatures;
    case Module::Stream:
        if (!streamFeatures)
            streamFeatures = std::make_unique<LorunClient::FeatureTree>(producer, stream);
        return *streamFeatures;
    case Module::Remote:
        break;
    }
    return *features;
}

void Camera::ApplyFeatures(const std::string& settings)
{
    const std::lock_guard<std::mutex> lock(featureMutex);
    LorunClient::Apply(*features, LorunClient::ParseSettings(settings));
}

void Camera::Start(std::uint32_t bufferCount, BufferMemory where)
{
    const std::lock_guard<std::mutex> lock(streamMutex);
    if (acquiring)
        return;
    if (closed)
        throw CameraError(CameraErrorKind::Lost, GC_ERR_NOT_AVAILABLE, "The camera " + id + " is closed.");
    layout.reset();
    size_t payload = 0;
    INFO_DATATYPE type = 0;
    size_t size = sizeof payload;
    producer.Check(producer.DSGetInfo(stream, STREAM_INFO_PAYLOAD_SIZE, &type, &payload, &size),
                   "DSGetInfo STREAM_INFO_PAYLOAD_SIZE " + id);
    size_t alignment = 0;
    StreamInfo(producer, stream, STREAM_INFO_BUF_ALIGNMENT, alignment);
    alignment = std::max<size_t>(alignment, 64);
    if (alignment & (alignment - 1))
        throw CameraError(CameraErrorKind::Failed, GC_ERR_ERROR,
                          "The stream of " + id + " asks for an alignment of " + std::to_string(alignment) + ".");
    const size_t rounded = (payload + alignment - 1) / alignment * alignment;
    try {
        for (std::uint32_t i = 0; i < bufferCount; ++i) {
            BUFFER_HANDLE buffer = nullptr;
            std::shared_ptr<void> block;
            if (where == BufferMemory::Producer) {
                producer.Check(producer.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer),
                               "DSAllocAndAnnounceBuffer " + id);
            } else {
                block.reset(std::aligned_alloc(alignment, rounded), std::free);
                if (!block)
                    throw CameraError(CameraErrorKind::Failed, GC_ERR_RESOURCE_EXHAUSTED,
                                      "Could not allocate " + std::to_string(rounded) + " bytes for a frame of " + id +
                                          ".");
                producer.Check(producer.DSAnnounceBuffer(stream, block.get(), payload, nullptr, &buffer),
                               "DSAnnounceBuffer " + id);
            }
            Announced& announced = memory[buffer];
            void* base = block.get();
            if (!block)
                BufferInfo(producer, stream, buffer, BUFFER_INFO_BASE, base);
            announced.block = std::move(block);
            announced.base = static_cast<std::uint8_t*>(base);
            announced.size = payload;
            producer.Check(producer.DSQueueBuffer(stream, buffer), "DSQueueBuffer " + id);
        }
        producer.Check(producer.DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE),
                       "DSStartAcquisition " + id);
    } catch (...) {
        RevokeIdle();
        throw;
    }
    acquiring = true;
}

void Camera::Stop()
{
    const std::lock_guard<std::mutex> lock(streamMutex);
    if (!closed)
        StopLocked();
}

void Camera::StopLocked()
{
    if (acquiring)
        producer.DSStopAcquisition(stream, ACQ_STOP_FLAGS_KILL);
    acquiring = false;
    RevokeIdle();
}

void Camera::RevokeIdle()
{
    producer.DSFlushQueue(stream, ACQ_QUEUE_ALL_DISCARD);
    // Every buffer not downstream: this set's, and those of earlier sets that
    // came back while a later one was acquiring.
    for (auto announced = memory.begin(); announced != memory.end();) {
        const auto next = std::next(announced);
        if (!announced->second.out)
            Revoke(announced->first);
        announced = next;
    }
    ++generation; // the frames still out belong to a set that is gone
}

WaitResult Camera::Wait(Frame& frame, std::uint64_t milliseconds)
{
    EVENT_NEW_BUFFER_DATA data{};
    size_t size = sizeof data;
    const GC_ERROR rc = producer.EventGetData(newBuffer, &data, &size, milliseconds);
    if (rc == GC_ERR_TIMEOUT)
        return WaitResult::Quiet;
    if (rc == GC_ERR_ABORT)
        return WaitResult::Interrupted;
    if (rc != GC_ERR_SUCCESS)
        throw CameraError(CameraErrorKind::Failed, rc,
                          "EventGetData " + id + ": error " + std::to_string(rc) + ", " + producer.LastError());
    frame = Frame{};
    frame.handle = data.BufferHandle;
    // The producer's answers first, unlocked; then the element's own books under one lock.
    if (!useRecord || !ReadRecord(frame)) {
        BufferInfo(producer, stream, frame.handle, BUFFER_INFO_SIZE_FILLED, frame.filled);
        const Layout layout = LayoutOf(frame.handle);
        frame.width = layout.width;
        frame.height = layout.height;
        frame.paddingX = layout.paddingX;
        frame.pixelFormat = layout.pixelFormat;
        frame.hasFrameId = BufferInfo(producer, stream, frame.handle, BUFFER_INFO_FRAMEID, frame.frameId);
        bool8_t incomplete = 0;
        BufferInfo(producer, stream, frame.handle, BUFFER_INFO_IS_INCOMPLETE, incomplete);
        frame.incomplete = incomplete != 0;
        frame.timestampNs = TimestampNs(frame.handle);
    }
    const std::lock_guard<std::mutex> lock(streamMutex);
    const auto announced = memory.find(frame.handle);
    if (announced == memory.end() || !announced->second.base)
        throw CameraError(CameraErrorKind::Failed, GC_ERR_ERROR,
                          "The stream of " + id + " delivered a buffer that was not announced.");
    frame.base = announced->second.base;
    frame.size = announced->second.size;
    frame.memory = announced->second.block;
    frame.generation = generation;
    announced->second.out = true;
    return WaitResult::Frame;
}

// One producer call instead of one per value. False (and never again asked)
// when the producer refuses it or leaves a needed field out.
bool Camera::ReadRecord(Frame& frame)
{
    namespace R = QEL::Base::BufferRecord;
    std::uint8_t record[R::Size];
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    size_t size = sizeof record;
    const bool read =
        producer.DSGetBufferInfo(stream, frame.handle, R::Command, &type, record, &size) == GC_ERR_SUCCESS &&
        size == R::Size;
    const bool complete = read && std::all_of(std::begin(NeededFields), std::end(NeededFields),
                                              [&](const R::Field& field) { return R::Has(record, field); });
    if (!complete) {
        useRecord = false;
        return false;
    }
    frame.filled = R::Read(record, R::Filled);
    frame.width = static_cast<std::uint32_t>(R::Read(record, R::Width));
    frame.height = static_cast<std::uint32_t>(R::Read(record, R::Height));
    frame.paddingX = static_cast<std::uint32_t>(R::Read(record, R::XPadding));
    frame.pixelFormat = R::Read(record, R::PixelFormat);
    frame.hasFrameId = R::Has(record, R::FrameId);
    if (frame.hasFrameId)
        frame.frameId = R::Read(record, R::FrameId);
    frame.incomplete = (R::Read(record, R::Flags) & R::FlagIncomplete) != 0;
    frame.timestampNs = Nanoseconds(R::Read(record, R::Timestamp));
    return true;
}

Camera::Layout Camera::LayoutOf(BUFFER_HANDLE buffer)
{
    {
        const std::lock_guard<std::mutex> lock(streamMutex);
        if (layout)
            return *layout;
    }
    size_t width = 0, height = 0, padding = 0;
    Layout asked;
    BufferInfo(producer, stream, buffer, BUFFER_INFO_WIDTH, width);
    BufferInfo(producer, stream, buffer, BUFFER_INFO_HEIGHT, height);
    BufferInfo(producer, stream, buffer, BUFFER_INFO_XPADDING, padding);
    BufferInfo(producer, stream, buffer, BUFFER_INFO_PIXELFORMAT, asked.pixelFormat);
    asked.width = static_cast<std::uint32_t>(width);
    asked.height = static_cast<std::uint32_t>(height);
    asked.paddingX = static_cast<std::uint32_t>(padding);
    const std::lock_guard<std::mutex> lock(streamMutex);
    layout = asked;
    return asked;
}

std::uint64_t Camera::TimestampNs(BUFFER_HANDLE buffer)
{
    std::uint64_t value = 0;
    // Asked once: a producer without it may say so slowly, every time.
    if (hasTimestampNs) {
        if (BufferInfo(producer, stream, buffer, BUFFER_INFO_TIMESTAMP_NS, value))
            return value;
        hasTimestampNs = false;
    }
    if (!BufferInfo(producer, stream, buffer, BUFFER_INFO_TIMESTAMP, value))
        return 0;
    return Nanoseconds(value);
}

std::uint64_t Camera::Nanoseconds(std::uint64_t ticks) const
{
    if (ticksPerSecond == 0 || ticksPerSecond == 1000000000u)
        return ticks;
    // Whole seconds and the rest apart, so that no product overflows.
    return ticks / ticksPerSecond * 1000000000u + ticks % ticksPerSecond * 1000000000u / ticksPerSecond;
}

void Camera::Interrupt()
{
    const std::lock_guard<std::mutex> lock(streamMutex);
    if (!closed)
        producer.EventKill(newBuffer);
}

void Camera::Release(BUFFER_HANDLE handle, std::uint64_t frameGeneration)
{
    const std::lock_guard<std::mutex> lock(streamMutex);
    if (closed)
        return;
    const auto announced = memory.find(handle);
    if (announced == memory.end() || !announced->second.out)
        return;
    announced->second.out = false;
    if (frameGeneration == generation) {
        // Its set is acquiring: back into the input pool. Should the queueing
        // fail, the buffer stays announced and goes with its set.
        if (acquiring)
            producer.DSQueueBuffer(stream, handle);
        return;
    }
    // Of a set that is gone. The producer refuses to revoke while acquiring:
    // then the next stop does it.
    if (!acquiring)
        Revoke(handle);
}

std::size_t Camera::FramesOut() const
{
    const std::lock_guard<std::mutex> lock(streamMutex);
    return static_cast<std::size_t>(
        std::count_if(memory.begin(), memory.end(), [](const auto& entry) { return entry.second.out; }));
}

bool Camera::Present() { return !closed && session->CameraPresent(where); }

std::map<std::string, std::uint64_t> Camera::Statistics()
{
    std::map<std::string, std::uint64_t> counts;
    {
        const std::lock_guard<std::mutex> lock(streamMutex);
        if (closed)
            return counts;
    }
    const struct {
        const char* name;
        STREAM_INFO_CMD command;
    } counters[] = {{"delivered", STREAM_INFO_NUM_DELIVERED},
                    {"underrun", STREAM_INFO_NUM_UNDERRUN},
                    {"announced", STREAM_INFO_NUM_ANNOUNCED},
                    {"queued", STREAM_INFO_NUM_QUEUED},
                    {"await-delivery", STREAM_INFO_NUM_AWAIT_DELIVERY},
                    {"started", STREAM_INFO_NUM_STARTED}};
    for (const auto& counter : counters) {
        std::uint64_t value64 = 0;
        size_t valueSize = 0;
        if (StreamInfo(producer, stream, counter.command, value64))
            counts[counter.name] = value64;
        else if (StreamInfo(producer, stream, counter.command, valueSize))
            counts[counter.name] = valueSize;
    }
    counts["out"] = FramesOut();
    return counts;
}

}
