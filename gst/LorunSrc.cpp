#include "gst/LorunSrc.h"

#include "client/ProducerPath.h"
#include "gst/Camera.h"
#include "gst/Caps.h"
#include "gst/DefaultProducer.h"
#include "gst/FeatureObject.h"
#include "gst/HandOver.h"
#include "gst/TimestampMap.h"

#include <gst/video/video.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>


GST_DEBUG_CATEGORY_STATIC(lorun_src_debug);
#define GST_CAT_DEFAULT lorun_src_debug

using LorunGst::Camera;
using LorunGst::CameraError;
using LorunGst::CameraErrorKind;

namespace {

constexpr guint DefaultBuffers = 8;
constexpr guint DefaultTimeoutMs = 0;
constexpr gint64 MaxFrameAgeNs = 1000 * GST_MSECOND; // a stamp further back is a device clock jump
// How long one wait for a buffer lasts before the element looks whether the
// camera is still there: a camera pulled out is noticed well within a second.
constexpr std::uint64_t WaitSliceMs = 200;

enum Property {
    PROP_0,
    PROP_PRODUCER,
    PROP_DEVICE_ID,
    PROP_SERIAL,
    PROP_INDEX,
    PROP_CAPTURE_BUFFERS,
    PROP_TIMEOUT,
    PROP_CAPTURE_ERROR,
    PROP_FEATURES,
    PROP_OFFSET_X,
    PROP_OFFSET_Y,
    PROP_STATS,
    PROP_RECONNECT,
    PROP_CHILD_PROPERTIES,
};

// Settings, written by the application's thread, read when the camera opens.
struct Settings {
    std::string producer;
    LorunGst::CameraChoice choice;
    guint buffers = DefaultBuffers;
    guint timeoutMs = DefaultTimeoutMs;
    LorunCaptureError captureError = LORUN_CAPTURE_ERROR_SKIP;
    std::string features;
    gint offsetX = -1, offsetY = -1; // -1: as the camera has them
    bool reconnect = false;
};

// What the streaming thread counts.
struct Counts {
    guint64 pushed = 0, dropped = 0, incomplete = 0, copied = 0;
    bool haveFrameId = false;
    guint64 lastFrameId = 0;
};

// A frame on its way downstream: what gives it back to the camera.
struct OutgoingFrame {
    std::shared_ptr<Camera> camera;
    BUFFER_HANDLE handle;
    std::uint64_t generation;
    const std::uint8_t* base;
    std::shared_ptr<const void> memory; // the frame's bytes, even after the camera closed
};

void GiveBack(gpointer data)
{
    std::unique_ptr<OutgoingFrame> frame(static_cast<OutgoingFrame*>(data));
    LorunGst::TakeOver(frame->base); // from the last reader downstream
    frame->camera->Release(frame->handle, frame->generation);
}

}

// A feature written through a child property: kept, in order, and written
// again at every start.
struct ChildSetting {
    LorunGst::Module module;
    std::string name, value;
};

constexpr const char* ChildNames[] = {"cam", "device", "stream"};
constexpr LorunGst::Module ChildModules[] = {LorunGst::Module::Remote, LorunGst::Module::Device,
                                             LorunGst::Module::Stream};

struct LorunSrcState;
// What a child's properties reach; the element ends it when it goes.
struct ChildAccess {
    GstElement* element;
    LorunSrcState* state;
};

struct LorunSrcState {
    std::mutex lock; // settings, camera, modes, negotiated; never held while waiting for a frame
    Settings settings;
    std::shared_ptr<Camera> camera;
    // The camera last opened (by a start, or for the children), alive while
    // frames of it are still downstream or `idle` holds it: a start with the
    // same choice takes it up again instead of finding it busy.
    std::weak_ptr<Camera> previous;
    std::string previousKey; // the producer and choice it was opened with
    // Opened in NULL or READY to show the camera's features as child
    // properties (a pipeline sets them before it starts), through `previous`.
    std::shared_ptr<Camera> idle;
    std::vector<ChildSetting> childSettings;
    std::mutex childLock; // making the children; taken before `lock`
    GObject* children[3] = {};
    std::shared_ptr<ChildAccess> access;
    LorunGst::CameraModes modes;
    LorunGst::CapsChoice negotiated;
    GstVideoFormat videoFormat = GST_VIDEO_FORMAT_UNKNOWN; // of video/x-raw caps, whose buffers carry a GstVideoMeta
    GstClockTime period = GST_CLOCK_TIME_NONE;
    std::atomic<bool> flushing{false};
    std::condition_variable wake; // with `lock`: the wait for a camera to come back ends at an unlock
    LorunGst::TimestampMap timestamps{MaxFrameAgeNs};
    Counts counts;
    bool discont = true;
};

struct _LorunSrc {
    GstPushSrc parent;
    LorunSrcState* state;
};

namespace {
void ChildProxyInit(gpointer interface, gpointer);
}

G_DEFINE_TYPE_WITH_CODE(LorunSrc, lorun_src, GST_TYPE_PUSH_SRC,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_CHILD_PROXY, ChildProxyInit))

GType lorun_capture_error_get_type(void)
{
    static GType type = 0;
    static const GEnumValue values[] = {
        {LORUN_CAPTURE_ERROR_KEEP, "Push it, flagged corrupted", "keep"},
        {LORUN_CAPTURE_ERROR_SKIP, "Give it back and count it", "skip"},
        {LORUN_CAPTURE_ERROR_ABORT, "End the stream with an error", "abort"},
        {0, nullptr, nullptr},
    };
    if (g_once_init_enter(&type))
        g_once_init_leave(&type, g_enum_register_static("LorunCaptureError", values));
    return type;
}

namespace {

LorunSrcState& StateOf(gpointer object) { return *LORUN_SRC(object)->state; }

std::shared_ptr<Camera> CameraOf(LorunSrcState& state)
{
    const std::lock_guard<std::mutex> lock(state.lock);
    return state.camera;
}

// An exception as an element error: the GenTL code and the producer's text travel with it.
void PostError(GstElement* element, const std::exception& failure)
{
    const auto* camera = dynamic_cast<const CameraError*>(&failure);
    const auto* producer = dynamic_cast<const LorunClient::ProducerError*>(&failure);
    const GC_ERROR code = producer ? producer->code : GC_ERR_ERROR;
    GstResourceError kind = GST_RESOURCE_ERROR_FAILED;
    switch (camera ? camera->kind : CameraErrorKind::Failed) {
    case CameraErrorKind::NotFound: kind = GST_RESOURCE_ERROR_NOT_FOUND; break;
    case CameraErrorKind::Busy: kind = GST_RESOURCE_ERROR_BUSY; break;
    case CameraErrorKind::Lost:
    case CameraErrorKind::Timeout: kind = GST_RESOURCE_ERROR_READ; break;
    case CameraErrorKind::Failed: break;
    }
    // GST_ELEMENT_ERROR with the code as a value rather than a name.
    gst_element_message_full(element, GST_MESSAGE_ERROR, GST_RESOURCE_ERROR, kind, g_strdup(failure.what()),
                             g_strdup_printf("GenTL error %d", code), __FILE__, GST_FUNCTION, __LINE__);
}

std::string ProducerPathOf(const Settings& settings)
{
    if (!settings.producer.empty())
        return settings.producer;
    return LorunGst::DefaultProducer();
}

std::string KeyOf(const std::string& path, const LorunGst::CameraChoice& choice)
{
    return path + "\n" + choice.deviceId + "\n" + choice.serial + "\n" + std::to_string(choice.index);
}

// ---- properties ----

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* property)
{
    LorunSrcState& state = StateOf(object);
    std::unique_lock<std::mutex> lock(state.lock);
    Settings& settings = state.settings;
    auto text = [value] { const gchar* s = g_value_get_string(value); return std::string(s ? s : ""); };
    switch (id) {
    case PROP_PRODUCER: settings.producer = text(); break;
    case PROP_DEVICE_ID: settings.choice.deviceId = text(); break;
    case PROP_SERIAL: settings.choice.serial = text(); break;
    case PROP_INDEX: settings.choice.index = g_value_get_int(value); break;
    case PROP_CAPTURE_BUFFERS: settings.buffers = g_value_get_uint(value); break;
    case PROP_TIMEOUT: settings.timeoutMs = g_value_get_uint(value); break;
    case PROP_CAPTURE_ERROR: settings.captureError = static_cast<LorunCaptureError>(g_value_get_enum(value)); break;
    case PROP_OFFSET_X: settings.offsetX = g_value_get_int(value); break;
    case PROP_OFFSET_Y: settings.offsetY = g_value_get_int(value); break;
    case PROP_RECONNECT: settings.reconnect = g_value_get_boolean(value); break;
    case PROP_FEATURES: {
        settings.features = text();
        std::shared_ptr<Camera> camera = state.camera;
        const std::string features = settings.features;
        lock.unlock();
        // While streaming, at once; otherwise when streaming starts.
        if (camera)
            try {
                camera->ApplyFeatures(features);
            } catch (const std::exception& e) {
                GST_ELEMENT_WARNING(object, RESOURCE, SETTINGS, ("%s", e.what()), (nullptr));
            }
        break;
    }
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
}

GstStructure* StatsOf(LorunSrcState& state)
{
    std::shared_ptr<Camera> camera;
    Counts counts;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        camera = state.camera;
        counts = state.counts;
    }
    GstStructure* stats = gst_structure_new("lorun-stats", "pushed", G_TYPE_UINT64, counts.pushed, "dropped",
                                            G_TYPE_UINT64, counts.dropped, "incomplete", G_TYPE_UINT64,
                                            counts.incomplete, "copied", G_TYPE_UINT64, counts.copied, nullptr);
    if (camera)
        for (const auto& [name, value] : camera->Statistics())
            gst_structure_set(stats, name.c_str(), G_TYPE_UINT64, static_cast<guint64>(value), nullptr);
    return stats;
}

GstStructure* ChildPropertiesOf(LorunSrc* self);

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* property)
{
    LorunSrcState& state = StateOf(object);
    if (id == PROP_STATS) {
        g_value_take_boxed(value, StatsOf(state));
        return;
    }
    if (id == PROP_CHILD_PROPERTIES) {
        g_value_take_boxed(value, ChildPropertiesOf(LORUN_SRC(object)));
        return;
    }
    const std::lock_guard<std::mutex> lock(state.lock);
    const Settings& settings = state.settings;
    switch (id) {
    case PROP_PRODUCER: g_value_set_string(value, settings.producer.c_str()); break;
    case PROP_DEVICE_ID: g_value_set_string(value, settings.choice.deviceId.c_str()); break;
    case PROP_SERIAL: g_value_set_string(value, settings.choice.serial.c_str()); break;
    case PROP_INDEX: g_value_set_int(value, settings.choice.index); break;
    case PROP_CAPTURE_BUFFERS: g_value_set_uint(value, settings.buffers); break;
    case PROP_TIMEOUT: g_value_set_uint(value, settings.timeoutMs); break;
    case PROP_CAPTURE_ERROR: g_value_set_enum(value, settings.captureError); break;
    case PROP_FEATURES: g_value_set_string(value, settings.features.c_str()); break;
    case PROP_OFFSET_X: g_value_set_int(value, settings.offsetX); break;
    case PROP_OFFSET_Y: g_value_set_int(value, settings.offsetY); break;
    case PROP_RECONNECT: g_value_set_boolean(value, settings.reconnect); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
}

// ---- opening and closing ----

gboolean Start(GstBaseSrc* source)
{
    LorunSrcState& state = StateOf(source);
    Settings settings;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        settings = state.settings;
    }
    const std::string path = ProducerPathOf(settings);
    if (path.empty()) {
        GST_ELEMENT_ERROR(source, RESOURCE, NOT_FOUND,
                          ("No GenTL producer: set the property producer or %s", LorunClient::GenTLPathVariable),
                          (nullptr));
        return FALSE;
    }
    const std::string key = KeyOf(path, settings.choice);
    try {
        std::shared_ptr<Camera> camera;
        {
            const std::lock_guard<std::mutex> lock(state.lock);
            if (state.previousKey == key)
                camera = state.previous.lock();
            state.idle.reset();
            if (camera && camera->Closed())
                camera.reset();
        }
        if (!camera)
            camera = Camera::Open(path, settings.choice);
        camera->ApplyFeatures(settings.features);
        std::vector<ChildSetting> childSettings;
        {
            const std::lock_guard<std::mutex> lock(state.lock);
            childSettings = state.childSettings;
        }
        for (const ChildSetting& setting : childSettings)
            camera->WithFeatures(setting.module, [&](LorunClient::FeatureTree& features) {
                features.Set(setting.name, setting.value);
                return 0;
            });
        LorunGst::CameraModes modes = camera->WithFeatures(LorunGst::ReadModes);
        const std::lock_guard<std::mutex> lock(state.lock);
        state.previous = camera;
        state.previousKey = key;
        state.camera = std::move(camera);
        state.modes = std::move(modes);
        state.negotiated = {};
        state.counts = {};
        state.timestamps.Reset();
        state.discont = true;
        state.period = GST_CLOCK_TIME_NONE;
    } catch (const std::exception& e) {
        PostError(GST_ELEMENT(source), e);
        return FALSE;
    }
    return TRUE;
}

gboolean Stop(GstBaseSrc* source)
{
    LorunSrcState& state = StateOf(source);
    std::shared_ptr<Camera> camera;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        camera = std::move(state.camera);
        state.camera.reset();
    }
    // Frames still downstream keep the camera open until they come back.
    if (camera)
        camera->Stop();
    return TRUE;
}

// ---- caps ----

GstCaps* GetCaps(GstBaseSrc* source, GstCaps* filter)
{
    LorunSrcState& state = StateOf(source);
    GstCaps* caps = nullptr;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        if (state.camera)
            caps = LorunGst::CapsOfModes(state.modes);
    }
    if (!caps)
        caps = gst_pad_get_pad_template_caps(GST_BASE_SRC_PAD(source));
    if (filter) {
        GstCaps* both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(caps);
        caps = both;
    }
    return caps;
}

GstCaps* Fixate(GstBaseSrc* source, GstCaps* caps)
{
    LorunSrcState& state = StateOf(source);
    LorunGst::CameraModes modes;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        modes = state.modes;
    }
    return LorunGst::FixateToCurrent(caps, modes);
}

GstClockTime PeriodOf(const LorunGst::CapsChoice& choice)
{
    if (choice.rateNumerator <= 0 || choice.rateDenominator <= 0)
        return GST_CLOCK_TIME_NONE;
    return gst_util_uint64_scale_int(GST_SECOND, choice.rateDenominator, choice.rateNumerator);
}

// Writes the format, the size, the offsets and the frame rate with
// acquisition stopped, then starts it with fresh buffers.
void Configure(Camera& camera, const LorunGst::CapsChoice& choice, const Settings& settings)
{
    camera.Stop();
    camera.WithFeatures([&](LorunClient::FeatureTree& features) {
        features.Set("PixelFormat", choice.format->genicamName);
        // Offsets first to zero, so that any size fits while it changes.
        if (features.Writable("OffsetX"))
            features.Set("OffsetX", "0");
        if (features.Writable("OffsetY"))
            features.Set("OffsetY", "0");
        features.Set("Width", std::to_string(choice.width));
        features.Set("Height", std::to_string(choice.height));
        if (settings.offsetX >= 0)
            features.Set("OffsetX", std::to_string(settings.offsetX));
        if (settings.offsetY >= 0)
            features.Set("OffsetY", std::to_string(settings.offsetY));
        if (choice.rateNumerator > 0 && features.Writable("AcquisitionFrameRate"))
            features.Set("AcquisitionFrameRate",
                         std::to_string(static_cast<double>(choice.rateNumerator) / choice.rateDenominator));
        return 0;
    });
    // With reconnect, frames live in the element's memory, so that a camera
    // pulled out closes at once, whatever downstream still holds.
    camera.Start(settings.buffers,
                 settings.reconnect ? LorunGst::BufferMemory::Element : LorunGst::BufferMemory::Producer);
}

gboolean SetCaps(GstBaseSrc* source, GstCaps* caps)
{
    LorunSrcState& state = StateOf(source);
    std::shared_ptr<Camera> camera;
    LorunGst::CameraModes modes;
    Settings settings;
    GstClockTime oldPeriod;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        camera = state.camera;
        modes = state.modes;
        settings = state.settings;
        oldPeriod = state.period;
    }
    LorunGst::CapsChoice choice;
    if (!camera || !LorunGst::ChoiceOfCaps(caps, modes, choice)) {
        GST_ELEMENT_ERROR(source, CORE, NEGOTIATION, ("The camera offers nothing like %" GST_PTR_FORMAT, caps),
                          (nullptr));
        return FALSE;
    }
    GstVideoInfo video;
    gst_video_info_init(&video);
    const bool isVideo = std::string(choice.format->mediaType) == "video/x-raw";
    if (isVideo && !gst_video_info_from_caps(&video, caps)) {
        GST_ELEMENT_ERROR(source, CORE, NEGOTIATION, ("Unusable caps %" GST_PTR_FORMAT, caps), (nullptr));
        return FALSE;
    }
    try {
        Configure(*camera, choice, settings);
    } catch (const std::exception& e) {
        PostError(GST_ELEMENT(source), e);
        return FALSE;
    }
    const GstClockTime period = PeriodOf(choice);
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        state.negotiated = choice;
        state.videoFormat = isVideo ? GST_VIDEO_INFO_FORMAT(&video) : GST_VIDEO_FORMAT_UNKNOWN;
        state.period = period;
        state.timestamps.Reset();
        state.discont = true;
    }
    if (period != oldPeriod)
        gst_element_post_message(GST_ELEMENT(source), gst_message_new_latency(GST_OBJECT(source)));
    return TRUE;
}

// ---- queries ----

gboolean Query(GstBaseSrc* source, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY)
        return GST_BASE_SRC_CLASS(lorun_src_parent_class)->query(source, query);
    LorunSrcState& state = StateOf(source);
    GstClockTime period;
    guint buffers;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        if (!state.camera || !state.negotiated.format)
            return FALSE;
        period = state.period;
        buffers = state.settings.buffers;
    }
    // A frame is ready one period after its exposure began; the camera can
    // hold as many frames as it has buffers before it must drop.
    if (GST_CLOCK_TIME_IS_VALID(period))
        gst_query_set_latency(query, TRUE, period, period * buffers);
    else
        gst_query_set_latency(query, TRUE, 0, GST_CLOCK_TIME_NONE);
    return TRUE;
}

// ---- unlocking ----

gboolean Unlock(GstBaseSrc* source)
{
    LorunSrcState& state = StateOf(source);
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        state.flushing = true;
    }
    state.wake.notify_all();
    if (std::shared_ptr<Camera> camera = CameraOf(state))
        camera->Interrupt();
    return TRUE;
}

gboolean UnlockStop(GstBaseSrc* source)
{
    StateOf(source).flushing = false;
    return TRUE;
}

// ---- the streaming thread: wait, account, wrap, stamp ----

// Frame-ID gaps: counted, and told as QoS and as an element message.
void AccountForGaps(GstElement* element, LorunSrcState& state, const LorunGst::Frame& frame, GstClockTime stamp)
{
    guint64 gap = 0, total = 0, pushed = 0;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        Counts& counts = state.counts;
        if (frame.hasFrameId && counts.haveFrameId && frame.frameId > counts.lastFrameId + 1)
            gap = frame.frameId - counts.lastFrameId - 1;
        if (frame.hasFrameId) {
            counts.lastFrameId = frame.frameId;
            counts.haveFrameId = true;
        }
        counts.dropped += gap;
        total = counts.dropped;
        pushed = counts.pushed;
        if (gap)
            state.discont = true;
    }
    if (!gap)
        return;
    GST_WARNING_OBJECT(element, "%" G_GUINT64_FORMAT " frames lost before frame %" G_GUINT64_FORMAT, gap,
                       frame.frameId);
    GstMessage* qos = gst_message_new_qos(GST_OBJECT(element), TRUE, stamp, GST_CLOCK_TIME_NONE, stamp,
                                          GST_CLOCK_TIME_NONE);
    gst_message_set_qos_stats(qos, GST_FORMAT_BUFFERS, pushed, total);
    gst_element_post_message(element, qos);
    GstStructure* info = gst_structure_new("lorun-dropped-frames", "dropped", G_TYPE_UINT64, gap, "total-dropped",
                                           G_TYPE_UINT64, total, "frame-id", G_TYPE_UINT64, frame.frameId, nullptr);
    gst_element_post_message(element, gst_message_new_element(GST_OBJECT(element), info));
}

// Waits for the next filled buffer without holding a lock, in slices, so that
// a camera pulled out and the timeout are noticed.
GstFlowReturn WaitForFrame(GstElement* element, LorunSrcState& state, Camera& camera, guint timeoutMs,
                           LorunGst::Frame& frame)
{
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        if (state.flushing)
            return GST_FLOW_FLUSHING;
        switch (camera.Wait(frame, WaitSliceMs)) {
        case LorunGst::WaitResult::Frame:
            return GST_FLOW_OK;
        case LorunGst::WaitResult::Interrupted:
            continue; // flushing, or a kill left from an earlier unlock
        case LorunGst::WaitResult::Quiet:
            break;
        }
        if (state.flushing)
            return GST_FLOW_FLUSHING;
        if (!camera.Present())
            throw CameraError(CameraErrorKind::Lost, GC_ERR_NOT_AVAILABLE,
                              "The camera " + camera.Id() + " was pulled out.");
        const auto waited = std::chrono::steady_clock::now() - start;
        if (timeoutMs && waited >= std::chrono::milliseconds(timeoutMs))
            throw CameraError(CameraErrorKind::Timeout, GC_ERR_TIMEOUT,
                              "No frame from the camera " + camera.Id() + " within " + std::to_string(timeoutMs) +
                                  " ms (waiting for EventGetData of a new buffer).");
    }
}

// The frame as a GstBuffer: its memory when the format goes as it is, else unpacked into a new one.
GstBuffer* BufferOf(LorunSrcState& state, const std::shared_ptr<Camera>& camera, const LorunGst::Frame& frame,
                    const LorunGst::PixelFormat& format, GstVideoFormat videoFormat)
{
    const std::size_t lineBytes = LorunGst::PackedLineBytes(format, frame.width);
    const std::size_t stride = lineBytes + frame.paddingX;
    GstBuffer* buffer = nullptr;
    std::size_t outStride = stride;
    if (format.unpacking == LorunGst::Unpacking::None) {
        const std::size_t imageBytes = stride * (frame.height - 1) + lineBytes;
        if (imageBytes > frame.size)
            return nullptr;
        auto* outgoing = new OutgoingFrame{camera, frame.handle, frame.generation, frame.base, frame.memory};
        LorunGst::HandOver(frame.base);
        buffer = gst_buffer_new();
        gst_buffer_append_memory(buffer, gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, frame.base, frame.size, 0,
                                                                imageBytes, outgoing, GiveBack));
    } else {
        outStride = static_cast<std::size_t>(frame.width) * format.bytesPerPixelOut;
        buffer = gst_buffer_new_allocate(nullptr, outStride * frame.height, nullptr);
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_WRITE);
        const bool unpacked = LorunGst::Unpack(format, frame.base, frame.filled, stride, frame.width, frame.height,
                                               map.data);
        LorunGst::HandOver(map.data);
        gst_buffer_unmap(buffer, &map);
        camera->Release(frame.handle, frame.generation);
        if (!unpacked) {
            gst_buffer_unref(buffer);
            return nullptr;
        }
        const std::lock_guard<std::mutex> lock(state.lock);
        ++state.counts.copied;
    }
    if (videoFormat != GST_VIDEO_FORMAT_UNKNOWN) {
        gsize offsets[GST_VIDEO_MAX_PLANES] = {0};
        gint strides[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(outStride)};
        gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, videoFormat, frame.width, frame.height, 1,
                                       offsets, strides);
    }
    return buffer;
}

GstCaps* DeviceClockCaps()
{
    static GstCaps* caps = gst_caps_new_empty_simple("timestamp/x-gentl-device");
    return caps;
}

void PostCameraMessage(GstElement* element, const char* name, const std::string& id)
{
    GstStructure* info = gst_structure_new(name, "camera", G_TYPE_STRING, id.c_str(), nullptr);
    gst_element_post_message(element, gst_message_new_element(GST_OBJECT(element), info));
}

// The camera is gone: say so, close it (with reconnect, frames still
// downstream are in the element's memory and keep it), wait until it is back, open it again with the same caps and
// features, say so, and mark the next buffer DISCONT.
GstFlowReturn Reconnect(GstElement* element, LorunSrcState& state, std::shared_ptr<Camera>& camera)
{
    const std::string id = camera->Id();
    GST_WARNING_OBJECT(element, "camera %s lost, waiting for it", id.c_str());
    Settings settings;
    LorunGst::CapsChoice negotiated;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        settings = state.settings;
        negotiated = state.negotiated;
        state.camera.reset();
    }
    camera->Close();
    camera.reset();
    // Told once the old device is closed: a camera put back before that
    // would meet the old device's last words.
    PostCameraMessage(element, "lorun-camera-lost", id);
    const std::string path = ProducerPathOf(settings);
    const LorunGst::CameraChoice same{id, "", -1}; // whatever chose it first
    for (;;) {
        try {
            std::shared_ptr<Camera> reopened = Camera::Open(path, same);
            reopened->ApplyFeatures(settings.features);
            Configure(*reopened, negotiated, settings);
            {
                const std::lock_guard<std::mutex> lock(state.lock);
                state.camera = reopened;
                state.previous = reopened;
                state.timestamps.Reset();
                state.discont = true;
            }
            camera = std::move(reopened);
            PostCameraMessage(element, "lorun-camera-restored", id);
            return GST_FLOW_OK;
        } catch (const std::exception& e) {
            // Not there yet, or not ready after power-on.
            GST_DEBUG_OBJECT(element, "camera %s not back yet: %s", id.c_str(), e.what());
        }
        std::unique_lock<std::mutex> lock(state.lock);
        if (state.wake.wait_for(lock, std::chrono::milliseconds(WaitSliceMs), [&] { return state.flushing.load(); }))
            return GST_FLOW_FLUSHING;
    }
}

GstFlowReturn Create(GstPushSrc* pushSource, GstBuffer** out)
{
    GstElement* element = GST_ELEMENT(pushSource);
    LorunSrcState& state = StateOf(pushSource);
    std::shared_ptr<Camera> camera;
    guint timeoutMs;
    LorunCaptureError captureError;
    bool reconnect;
    LorunGst::CapsChoice negotiated;
    GstVideoFormat videoFormat;
    GstClockTime period;
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        camera = state.camera;
        timeoutMs = state.settings.timeoutMs;
        captureError = state.settings.captureError;
        reconnect = state.settings.reconnect;
        negotiated = state.negotiated;
        videoFormat = state.videoFormat;
        period = state.period;
    }
    if (!camera || !negotiated.format)
        return GST_FLOW_NOT_NEGOTIATED;
    try {
        for (;;) {
            LorunGst::Frame frame;
            GstFlowReturn waited = GST_FLOW_OK;
            try {
                waited = WaitForFrame(element, state, *camera, timeoutMs, frame);
            } catch (const CameraError& e) {
                if (e.kind != CameraErrorKind::Lost || !reconnect)
                    throw;
                waited = Reconnect(element, state, camera);
                if (waited != GST_FLOW_OK)
                    return waited;
                continue;
            }
            if (waited != GST_FLOW_OK)
                return waited;
            // Stamped at arrival: the pipeline clock now, minus the frame's age on the device clock.
            GstClockTime arrival = GST_CLOCK_TIME_NONE;
            if (GstClock* clock = gst_element_get_clock(element)) {
                arrival = gst_clock_get_time(clock) - gst_element_get_base_time(element);
                gst_object_unref(clock);
            }
            GstClockTime stamp = GST_CLOCK_TIME_NONE;
            if (GST_CLOCK_TIME_IS_VALID(arrival)) {
                const std::lock_guard<std::mutex> lock(state.lock);
                stamp = std::max<gint64>(0, state.timestamps.Map(frame.timestampNs, static_cast<gint64>(arrival)));
            }
            AccountForGaps(element, state, frame, stamp);
            if (frame.incomplete) {
                {
                    const std::lock_guard<std::mutex> lock(state.lock);
                    ++state.counts.incomplete;
                }
                if (captureError != LORUN_CAPTURE_ERROR_KEEP) {
                    camera->Release(frame.handle, frame.generation);
                    if (captureError == LORUN_CAPTURE_ERROR_ABORT) {
                        GST_ELEMENT_ERROR(element, STREAM, DECODE,
                                          ("The camera %s delivered an incomplete frame (frame %" G_GUINT64_FORMAT ")",
                                           camera->Id().c_str(), frame.frameId),
                                          ("capture-error=abort"));
                        return GST_FLOW_ERROR;
                    }
                    continue;
                }
            }
            const LorunGst::PixelFormat* format = LorunGst::PixelFormatByCode(frame.pixelFormat);
            if (format != negotiated.format || frame.width != static_cast<std::uint32_t>(negotiated.width) ||
                frame.height != static_cast<std::uint32_t>(negotiated.height)) {
                camera->Release(frame.handle, frame.generation);
                GST_ELEMENT_ERROR(element, STREAM, FORMAT,
                                  ("The camera %s sends %ux%u frames of pixel format 0x%" G_GINT64_MODIFIER
                                   "x, not the negotiated %dx%d %s",
                                   camera->Id().c_str(), frame.width, frame.height, frame.pixelFormat,
                                   negotiated.width, negotiated.height, negotiated.format->genicamName),
                                  (nullptr));
                return GST_FLOW_NOT_NEGOTIATED;
            }
            GstBuffer* buffer = BufferOf(state, camera, frame, *format, videoFormat);
            if (!buffer) {
                camera->Release(frame.handle, frame.generation);
                GST_ELEMENT_ERROR(element, STREAM, FORMAT,
                                  ("The camera %s delivered a frame smaller than its size says", camera->Id().c_str()),
                                  (nullptr));
                return GST_FLOW_ERROR;
            }
            GST_BUFFER_PTS(buffer) = stamp;
            GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
            GST_BUFFER_DURATION(buffer) = period;
            if (frame.hasFrameId) {
                GST_BUFFER_OFFSET(buffer) = frame.frameId;
                GST_BUFFER_OFFSET_END(buffer) = frame.frameId + 1;
            }
            gst_buffer_add_reference_timestamp_meta(buffer, DeviceClockCaps(), frame.timestampNs,
                                                    GST_CLOCK_TIME_NONE);
            if (frame.incomplete)
                GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_CORRUPTED);
            {
                const std::lock_guard<std::mutex> lock(state.lock);
                if (state.discont)
                    GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
                state.discont = false;
                ++state.counts.pushed;
            }
            LorunGst::HandOver(buffer); // its fields and metas, as its bytes
            *out = buffer;
            return GST_FLOW_OK;
        }
    } catch (const std::exception& e) {
        PostError(element, e);
        return GST_FLOW_ERROR;
    }
}

// ---- child properties: the features of the camera's modules ----

// The camera that child properties reach now: the streaming one, else one
// opened for them.
std::shared_ptr<Camera> ChildCamera(LorunSrcState& state)
{
    const std::lock_guard<std::mutex> lock(state.lock);
    return state.camera ? state.camera : state.idle;
}

LorunGst::FeatureAccess AccessTo(const std::shared_ptr<ChildAccess>& access, LorunGst::Module module)
{
    const std::weak_ptr<ChildAccess> weak = access;
    auto withTree = [weak, module](auto call) {
        const std::shared_ptr<ChildAccess> alive = weak.lock();
        std::shared_ptr<Camera> camera = alive ? ChildCamera(*alive->state) : nullptr;
        if (!camera)
            throw CameraError(CameraErrorKind::NotFound, GC_ERR_NOT_AVAILABLE, "The camera is not open.");
        return camera->WithFeatures(module, call);
    };
    LorunGst::FeatureAccess features;
    features.get = [withTree](const std::string& name) {
        return withTree([&](LorunClient::FeatureTree& tree) { return tree.Get(name); });
    };
    features.set = [weak, module, withTree](const std::string& name, const std::string& value) {
        const std::shared_ptr<ChildAccess> alive = weak.lock();
        if (!alive)
            return;
        {
            const std::lock_guard<std::mutex> lock(alive->state->lock);
            alive->state->childSettings.push_back({module, name, value});
        }
        try {
            withTree([&](LorunClient::FeatureTree& tree) {
                tree.Set(name, value);
                return 0;
            });
        } catch (const std::exception& e) {
            GST_ELEMENT_WARNING(alive->element, RESOURCE, SETTINGS, ("%s", e.what()), (nullptr));
        }
    };
    features.execute = [weak, withTree](const std::string& name) {
        try {
            withTree([&](LorunClient::FeatureTree& tree) {
                tree.Execute(name);
                return 0;
            });
        } catch (const std::exception& e) {
            if (const std::shared_ptr<ChildAccess> alive = weak.lock())
                GST_ELEMENT_WARNING(alive->element, RESOURCE, SETTINGS, ("%s", e.what()), (nullptr));
        }
    };
    return features;
}

// Makes the three children once, opening the camera if it is not open: their
// properties are the features of its documents.
bool EnsureChildren(LorunSrc* self)
{
    LorunSrcState& state = *self->state;
    const std::lock_guard<std::mutex> childLock(state.childLock);
    if (state.children[0])
        return true;
    std::shared_ptr<Camera> camera = ChildCamera(state);
    if (!camera) {
        Settings settings;
        {
            const std::lock_guard<std::mutex> lock(state.lock);
            settings = state.settings;
        }
        const std::string path = ProducerPathOf(settings);
        try {
            camera = Camera::Open(path, settings.choice);
        } catch (const std::exception& e) {
            GST_WARNING_OBJECT(self, "no camera to show the features of: %s", e.what());
            return false;
        }
        const std::lock_guard<std::mutex> lock(state.lock);
        state.idle = camera;
        state.previous = camera;
        state.previousKey = KeyOf(path, settings.choice);
    }
    for (std::size_t i = 0; i < 3; ++i) {
        std::vector<LorunClient::FeatureTree::Feature> features;
        try {
            features = camera->WithFeatures(ChildModules[i],
                                            [](LorunClient::FeatureTree& tree) { return tree.Features(); });
        } catch (const std::exception& e) {
            GST_WARNING_OBJECT(self, "the %s module's features: %s", ChildNames[i], e.what());
        }
        state.children[i] = LorunGst::NewFeatureObject(ChildNames[i], features, AccessTo(state.access, ChildModules[i]));
    }
    return true;
}

// The children's properties by their full names ("cam::ExposureTime") with
// their values and types: what a property browser or gst-inspect-1.0 can
// show of them, since they exist only with a camera.
GstStructure* ChildPropertiesOf(LorunSrc* self)
{
    GstStructure* list = gst_structure_new_empty("lorun-child-properties");
    if (!EnsureChildren(self))
        return list;
    for (std::size_t i = 0; i < 3; ++i) {
        GObject* child = self->state->children[i];
        guint count = 0;
        GParamSpec** properties = g_object_class_list_properties(G_OBJECT_GET_CLASS(child), &count);
        for (guint p = 0; p < count; ++p) {
            GParamSpec* property = properties[p];
            GValue value = G_VALUE_INIT;
            g_value_init(&value, property->value_type);
            if (property->flags & G_PARAM_READABLE)
                g_object_get_property(child, g_param_spec_get_name(property), &value);
            else
                g_param_value_set_default(property, &value);
            const std::string name = std::string(ChildNames[i]) + "::" + g_param_spec_get_name(property);
            gst_structure_take_value(list, name.c_str(), &value);
        }
        g_free(static_cast<gpointer>(properties));
    }
    return list;
}

GObject* ChildByName(GstChildProxy* proxy, const gchar* name)
{
    LorunSrc* self = LORUN_SRC(proxy);
    for (std::size_t i = 0; i < 3; ++i)
        if (g_strcmp0(name, ChildNames[i]) == 0)
            return EnsureChildren(self) ? G_OBJECT(g_object_ref(self->state->children[i])) : nullptr;
    return nullptr;
}

GObject* ChildByIndex(GstChildProxy* proxy, guint index)
{
    LorunSrc* self = LORUN_SRC(proxy);
    if (index >= 3 || !EnsureChildren(self))
        return nullptr;
    return G_OBJECT(g_object_ref(self->state->children[index]));
}

guint ChildrenCount(GstChildProxy*) { return 3; }

void ChildProxyInit(gpointer interface, gpointer)
{
    auto* proxy = static_cast<GstChildProxyInterface*>(interface);
    proxy->get_child_by_name = ChildByName;
    proxy->get_child_by_index = ChildByIndex;
    proxy->get_children_count = ChildrenCount;
}

// ---- the class ----

void Finalize(GObject* object)
{
    LorunSrc* self = LORUN_SRC(object);
    self->state->access.reset();
    for (GObject*& child : self->state->children)
        if (child)
            g_object_unref(child);
    delete self->state;
    self->state = nullptr;
    G_OBJECT_CLASS(lorun_src_parent_class)->finalize(object);
}

}

static void lorun_src_class_init(LorunSrcClass* klass)
{
    GObjectClass* objectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseSrcClass* baseClass = GST_BASE_SRC_CLASS(klass);
    GstPushSrcClass* pushClass = GST_PUSH_SRC_CLASS(klass);
    GST_DEBUG_CATEGORY_INIT(lorun_src_debug, "lorunsrc", 0, "GenTL camera source");

    objectClass->set_property = SetProperty;
    objectClass->get_property = GetProperty;
    objectClass->finalize = Finalize;
    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    const auto playingFlags = static_cast<GParamFlags>(flags | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(
        objectClass, PROP_PRODUCER,
        g_param_spec_string("producer", "Producer",
                            "The GenTL producer (.cti); empty: the first on the GenTL path, else the one installed",
                            "", flags));
    g_object_class_install_property(
        objectClass, PROP_DEVICE_ID,
        g_param_spec_string("device-id", "Device ID", "The camera's GenTL device ID; empty: any", "", flags));
    g_object_class_install_property(
        objectClass, PROP_SERIAL,
        g_param_spec_string("serial", "Serial number", "The camera's serial number; empty: any", "", flags));
    g_object_class_install_property(
        objectClass, PROP_INDEX,
        g_param_spec_int("index", "Index", "The camera's place among those the other choices leave; -1: not given", -1,
                         G_MAXINT, -1, flags));
    g_object_class_install_property(
        objectClass, PROP_CAPTURE_BUFFERS,
        g_param_spec_uint("capture-buffers", "Capture buffers", "GenTL buffers announced to the camera", 2, 256,
                          DefaultBuffers, flags));
    g_object_class_install_property(
        objectClass, PROP_TIMEOUT,
        g_param_spec_uint("timeout", "Timeout", "Milliseconds to wait for a frame before an error; 0: for ever", 0,
                          G_MAXUINT, DefaultTimeoutMs, flags));
    g_object_class_install_property(
        objectClass, PROP_CAPTURE_ERROR,
        g_param_spec_enum("capture-error", "Capture error", "What an incomplete frame does", LORUN_TYPE_CAPTURE_ERROR,
                          LORUN_CAPTURE_ERROR_SKIP, flags));
    g_object_class_install_property(
        objectClass, PROP_FEATURES,
        g_param_spec_string("features", "Features",
                            "Name=Value Name=Value ... written to the camera in order when streaming starts, and at "
                            "once when set while streaming",
                            "", playingFlags));
    g_object_class_install_property(
        objectClass, PROP_OFFSET_X,
        g_param_spec_int("offset-x", "Offset X", "OffsetX of the region of interest; -1: the camera's", -1, G_MAXINT,
                         -1, flags));
    g_object_class_install_property(
        objectClass, PROP_OFFSET_Y,
        g_param_spec_int("offset-y", "Offset Y", "OffsetY of the region of interest; -1: the camera's", -1, G_MAXINT,
                         -1, flags));
    g_object_class_install_property(
        objectClass, PROP_RECONNECT,
        g_param_spec_boolean("reconnect", "Reconnect",
                             "When the camera is pulled out, wait for it and go on (element messages "
                             "lorun-camera-lost and lorun-camera-restored) instead of an error",
                             FALSE, flags));
    g_object_class_install_property(
        objectClass, PROP_STATS,
        g_param_spec_boxed("stats", "Statistics", "The stream's counters and the element's", GST_TYPE_STRUCTURE,
                           static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
    g_object_class_install_property(
        objectClass, PROP_CHILD_PROPERTIES,
        g_param_spec_boxed("child-properties", "Child properties",
                           "Every cam::, device:: and stream:: property of the camera with its value "
                           "(reading it opens the chosen camera when none is open)",
                           GST_TYPE_STRUCTURE, static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

    gst_element_class_set_static_metadata(elementClass, "GenTL camera source", "Source/Video/Hardware",
                                          "Streams a GenTL camera, its buffers passed on without copying",
                                          "Lorun developers");
    GstCaps* caps = LorunGst::TemplateCaps();
    gst_element_class_add_pad_template(elementClass, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);

    baseClass->start = Start;
    baseClass->stop = Stop;
    baseClass->get_caps = GetCaps;
    baseClass->fixate = Fixate;
    baseClass->set_caps = SetCaps;
    baseClass->query = Query;
    baseClass->unlock = Unlock;
    baseClass->unlock_stop = UnlockStop;
    pushClass->create = Create;
    gst_type_mark_as_plugin_api(LORUN_TYPE_CAPTURE_ERROR, static_cast<GstPluginAPIFlags>(0));
}

static void lorun_src_init(LorunSrc* self)
{
    self->state = new LorunSrcState();
    self->state->access = std::make_shared<ChildAccess>(ChildAccess{GST_ELEMENT(self), self->state});
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
    gst_base_src_set_do_timestamp(GST_BASE_SRC(self), FALSE);
}
