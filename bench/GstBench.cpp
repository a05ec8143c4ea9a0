// What lorunsrc adds to the GenTL loop on the same camera: CPU per frame,
// copies per frame, and the time from a frame's capture to where downstream
// has it. Both paths load the built producer with dlopen, as consumers do, on
// a virtual camera that costs next to nothing per frame (prepared frames), so
// that what differs is the element and GStreamer.
#include "bench/BenchSupport.h"
#include "client/InfoOf.h"
#include "client/Session.h"
#include "gst/LorunSrc.h"

#include <gst/gst.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#ifndef LORUN_CTI_PATH
#define LORUN_CTI_PATH ""
#endif

namespace {

using namespace QEL;

struct Row {
    double fps = 0, cpuUs = 0, copies = 0;
    // Between the first and the last frame downstream: not the opening of the camera.
    int handoffs = 0;
    double firstCpu = 0, firstWall = 0, lastCpu = 0, lastWall = 0;
    std::vector<double> latencyUs; // capture (the device clock is the host's steady clock here) to the consumer
};

constexpr std::uint32_t Buffers = 8;

Row GenTLLoop(int frames, std::size_t camera)
{
    LorunClient::GenTLProducer producer(LORUN_CTI_PATH);
    Row row;
    {
        LorunClient::Session session(producer);
        session.OpenDevice(session.Cameras().at(camera).id);
        session.OpenStream();
        DS_HANDLE stream = session.Stream();
        size_t payload = 0;
        LorunClient::StreamInfo(producer, stream, STREAM_INFO_PAYLOAD_SIZE, payload);
        std::vector<BUFFER_HANDLE> buffers(Buffers);
        for (BUFFER_HANDLE& buffer : buffers) {
            producer.Check(producer.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer), "announce");
            producer.Check(producer.DSQueueBuffer(stream, buffer), "queue");
        }
        EVENT_HANDLE event = nullptr;
        producer.Check(producer.GCRegisterEvent(stream, EVENT_NEW_BUFFER, &event), "register");
        producer.Check(producer.DSStartAcquisition(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), "start");
        const double wall = Bench::WallSeconds(), cpu = Bench::CpuSeconds();
        for (int i = 0; i < frames; ++i) {
            EVENT_NEW_BUFFER_DATA data{};
            size_t size = sizeof data;
            producer.Check(producer.EventGetData(event, &data, &size, 5000), "wait");
            std::uint64_t stamp = 0;
            LorunClient::BufferInfo(producer, stream, data.BufferHandle, BUFFER_INFO_TIMESTAMP, stamp);
            row.latencyUs.push_back(static_cast<double>(Bench::SteadyNanoseconds() - stamp) / 1000.0);
            producer.Check(producer.DSQueueBuffer(stream, data.BufferHandle), "queue");
        }
        row.cpuUs = (Bench::CpuSeconds() - cpu) / frames * 1e6;
        row.fps = frames / (Bench::WallSeconds() - wall);
        producer.DSStopAcquisition(stream, ACQ_STOP_FLAGS_KILL);
        producer.DSFlushQueue(stream, ACQ_QUEUE_ALL_DISCARD);
        for (BUFFER_HANDLE buffer : buffers)
            producer.DSRevokeBuffer(stream, buffer, nullptr, nullptr);
        producer.GCUnregisterEvent(stream, EVENT_NEW_BUFFER);
    }
    return row;
}

void OnHandoff(GstElement*, GstBuffer* buffer, GstPad*, gpointer data)
{
    auto* row = static_cast<Row*>(data);
    row->lastCpu = Bench::CpuSeconds();
    row->lastWall = Bench::WallSeconds();
    if (row->handoffs++ == 0) {
        row->firstCpu = row->lastCpu;
        row->firstWall = row->lastWall;
    }
    if (GstReferenceTimestampMeta* meta = gst_buffer_get_reference_timestamp_meta(buffer, nullptr))
        row->latencyUs.push_back(static_cast<double>(Bench::SteadyNanoseconds() - meta->timestamp) / 1000.0);
}

Row Pipeline(int frames, std::size_t camera)
{
    Row row;
    const std::string description = "lorunsrc name=src index=" + std::to_string(camera) +
                                    " capture-buffers=" + std::to_string(Buffers) +
                                    " num-buffers=" + std::to_string(frames) + " producer=" + LORUN_CTI_PATH +
                                    " ! fakesink name=sink sync=false signal-handoffs=true enable-last-sample=false";
    GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    g_signal_connect(sink, "handoff", G_CALLBACK(OnHandoff), &row);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* end = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND,
                                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    if (row.handoffs > 1) {
        row.cpuUs = (row.lastCpu - row.firstCpu) / (row.handoffs - 1) * 1e6;
        row.fps = (row.handoffs - 1) / (row.lastWall - row.firstWall);
    }
    GstStructure* stats = nullptr;
    GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline), "src");
    g_object_get(source, "stats", &stats, nullptr);
    gst_object_unref(source);
    guint64 copied = 0, pushed = 0;
    if (stats) {
        gst_structure_get_uint64(stats, "copied", &copied);
        gst_structure_get_uint64(stats, "pushed", &pushed);
        gst_structure_free(stats);
    }
    row.copies = pushed ? static_cast<double>(copied) / static_cast<double>(pushed) : -1;
    if (!end || GST_MESSAGE_TYPE(end) == GST_MESSAGE_ERROR)
        std::fprintf(stderr, "the pipeline did not end well\n");
    if (end)
        gst_message_unref(end);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    return row;
}

}

int main(int argc, char** argv)
{
    gst_init(&argc, &argv);
    gst_element_register(nullptr, "lorunsrc", GST_RANK_NONE, LORUN_TYPE_SRC);
    // Camera 0 runs as fast as it can from prepared frames (CPU); camera 1 at
    // 500 fps, as the wake-up latency table of the producer's benchmark.
    const std::string description = "/tmp/lorun-gst-bench-" + std::to_string(::getpid()) + ".ini";
    std::ofstream(description) << "[system]\nstate = none\n[camera0]\nwidth = 640\nheight = 480\n"
                                  "frame_rate = 0\nbus_timing = 0\nprepared_frames = 1\n"
                                  "[camera1]\nnode = video1\nbus = 3\nwidth = 640\nheight = 480\n"
                                  "frame_rate = 500\nbus_timing = 0\nprepared_frames = 1\n";
    ::setenv("LORUN_VIRTUAL_CAMERA", description.c_str(), 1);
    const int frames = Bench::Tiny() ? 50 : 3000;
    const int rounds = Bench::Tiny() ? 1 : 5;
    const int latencyFrames = Bench::Tiny() ? 50 : 5000;
    std::vector<double> loopCpu, loopFps, pipeCpu, pipeFps, added, copies;
    for (int round = 0; round < rounds; ++round) {
        const Row loop = GenTLLoop(frames, 0);
        const Row pipe = Pipeline(frames, 0);
        loopCpu.push_back(loop.cpuUs);
        loopFps.push_back(loop.fps);
        pipeCpu.push_back(pipe.cpuUs);
        pipeFps.push_back(pipe.fps);
        added.push_back(pipe.cpuUs - loop.cpuUs);
        copies.push_back(pipe.copies);
    }
    const Row loopAt500 = GenTLLoop(latencyFrames, 1);
    const Row pipeAt500 = Pipeline(latencyFrames, 1);
    std::remove(description.c_str());
    std::printf("### lorunsrc against the GenTL loop\n\n640x480 Mono8, %u buffers, %d frames each, medians of %d "
                "interleaved rounds, a virtual camera with prepared frames; fakesink keeps no last sample, so that "
                "all buffers go round as in the loop. Goals: lorunsrc adds <= 10 us of CPU per frame and copies "
                "nothing.\n\n",
                Buffers, frames, rounds);
    Bench::PrintTable({"path", "fps", "CPU us/frame", "CPU us added", "copies/frame"},
                      {{"GenTL loop (EventGetData, DSQueueBuffer)", Bench::Format("%.1f", Bench::Median(loopFps)),
                        Bench::Format("%.1f", Bench::Median(loopCpu)), "+0.0", "0"},
                       {"lorunsrc ! fakesink", Bench::Format("%.1f", Bench::Median(pipeFps)),
                        Bench::Format("%.1f", Bench::Median(pipeCpu)), Bench::Format("%+.1f", Bench::Median(added)),
                        Bench::Format("%.2f", Bench::Median(copies))}});
    std::printf("\n### Wake-up latency through lorunsrc\n\nThe wake-up latency table above, with the element: from "
                "the driver filling a frame (its device time, the host's steady clock on the virtual camera) to "
                "EventGetData returning in a consumer that waits, or to fakesink's hand-off behind lorunsrc, whose "
                "streaming thread is that waiting consumer. %d frames of 640x480 Mono8 at 500 fps, %u buffers "
                "each. Goal as there: p99 <= 100 us on an idle machine.\n\n",
                latencyFrames, Buffers);
    auto row = [](const char* name, const std::vector<double>& values) {
        return std::vector<std::string>{name, "3", Bench::Format("%.1f", Bench::Median(values)),
                                        Bench::Format("%.1f", Bench::Percentile(values, 0.99)),
                                        Bench::Format("%.1f", Bench::Percentile(values, 1.0)),
                                        Bench::Format("%.2f", Bench::Percentile(values, 0.99) / 100.0)};
    };
    Bench::PrintTable({"stage", "thread wake-ups", "p50 us", "p99 us", "max us", "p99 vs goal (100 us)"},
                      {row("driver -> EventGetData returns (GenTL loop)", loopAt500.latencyUs),
                       row("driver -> fakesink's hand-off (lorunsrc)", pipeAt500.latencyUs)});
    std::printf("\nlorunsrc adds %+.1f us at p50 and %+.1f us at p99.\n",
                Bench::Median(pipeAt500.latencyUs) - Bench::Median(loopAt500.latencyUs),
                Bench::Percentile(pipeAt500.latencyUs, 0.99) - Bench::Percentile(loopAt500.latencyUs, 0.99));
    std::printf("\n");
    return 0;
}
