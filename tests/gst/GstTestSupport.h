#pragma once

// Pipelines of lorunsrc on the virtual camera for tests: each test describes
// its cameras in a folder of its own, launches a pipeline, pulls samples and
// reads what the bus said.
#include "gst/HandOver.h"
#include "tests/TestSupport.h"
#include "tests/sim/CameraControl.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace LorunGstTest {

namespace fs = boost::filesystem;

// Reading a frame's bytes: each read takes them over from the element and
// hands them back, as GStreamer's hidden locks do (see gst/HandOver.h).
struct SampleUnref {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};

class MappedSample {
public:
    explicit MappedSample(GstSample* sample) : buffer(gst_sample_get_buffer(sample))
    {
        mapped = gst_buffer_map(buffer, &map, GST_MAP_READ);
        if (mapped)
            LorunGst::TakeOver(map.data);
    }
    ~MappedSample()
    {
        if (!mapped)
            return;
        LorunGst::HandOver(map.data);
        gst_buffer_unmap(buffer, &map);
    }
    MappedSample(const MappedSample&) = delete;
    MappedSample& operator=(const MappedSample&) = delete;
    bool Mapped() const { return mapped; }
    const std::uint8_t* Data() const { return map.data; }
    std::size_t Size() const { return map.size; }

private:
    GstBuffer* buffer;
    GstMapInfo map{};
    bool mapped = false;
};
using Sample = std::unique_ptr<GstSample, SampleUnref>;

struct CapsUnref {
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
class GstCapsHolder : public std::unique_ptr<GstCaps, CapsUnref> {
public:
    explicit GstCapsHolder(const char* text) : unique_ptr(gst_caps_from_string(text)) {}
};

inline std::string CapsText(const GstCaps* caps)
{
    gchar* text = gst_caps_to_string(caps);
    std::string copy = text ? text : "";
    g_free(text);
    return copy;
}

inline std::vector<std::uint8_t> Bytes(GstSample* sample)
{
    MappedSample map(sample);
    if (!map.Mapped())
        return {};
    return std::vector<std::uint8_t>(map.Data(), map.Data() + map.Size());
}

class Pipeline {
public:
    explicit Pipeline(GstElement* pipeline) : pipeline(pipeline), bus(gst_element_get_bus(pipeline)) {}
    ~Pipeline()
    {
        Stop();
        for (GstMessage* message : seen)
            gst_message_unref(message);
        gst_object_unref(bus);
        gst_object_unref(pipeline);
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    GstElement* get() const { return pipeline; }
    GstElement* Get(const char* name) const
    {
        GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline), name);
        if (element)
            gst_object_unref(element); // the pipeline keeps it
        return element;
    }

    // To PLAYING; false when a state change failed or an error came.
    bool Play()
    {
        if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
            return false;
        GstState state = GST_STATE_NULL;
        const GstStateChangeReturn result =
            gst_element_get_state(pipeline, &state, nullptr, 10 * GST_SECOND * static_cast<guint64>(TimeScale()));
        return result != GST_STATE_CHANGE_FAILURE && state == GST_STATE_PLAYING && Error().empty();
    }
    void Stop() { gst_element_set_state(pipeline, GST_STATE_NULL); }

    // The next sample of an appsink, or none after ten seconds.
    Sample Pull(const char* sink) const
    {
        Sample sample(gst_app_sink_try_pull_sample(GST_APP_SINK(Get(sink)), 10 * GST_SECOND * TimeScale()));
        if (sample)
            LorunGst::TakeOver(gst_sample_get_buffer(sample.get()));
        return sample;
    }

    std::map<std::string, std::uint64_t> Stats(const char* source) const
    {
        GstStructure* stats = nullptr;
        g_object_get(Get(source), "stats", &stats, nullptr);
        std::map<std::string, std::uint64_t> counts;
        for (int i = 0; stats && i < gst_structure_n_fields(stats); ++i) {
            const char* name = gst_structure_nth_field_name(stats, static_cast<guint>(i));
            guint64 value = 0;
            if (gst_structure_get_uint64(stats, name, &value))
                counts[name] = value;
        }
        if (stats)
            gst_structure_free(stats);
        return counts;
    }

    // The first error's text and detail; empty when none came.
    std::string Error()
    {
        Drain(0);
        for (GstMessage* message : seen)
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
                return TextOf(message);
        return {};
    }
    // Waits for an error up to ten seconds.
    std::string AwaitError()
    {
        Await([](GstMessage* message) { return GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR; });
        return Error();
    }
    bool ErrorIs(GQuark domain, int code)
    {
        Drain(0);
        for (GstMessage* message : seen)
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
                GError* error = nullptr;
                gst_message_parse_error(message, &error, nullptr);
                const bool is = error && error->domain == domain && error->code == code;
                g_clear_error(&error);
                return is;
            }
        return false;
    }
    // The structure of the first element message of that name, waited for.
    const GstStructure* AwaitElementMessage(const char* name)
    {
        auto matches = [name](GstMessage* message) {
            return GST_MESSAGE_TYPE(message) == GST_MESSAGE_ELEMENT &&
                   gst_structure_has_name(gst_message_get_structure(message), name);
        };
        GstMessage* found = Await(matches);
        return found ? gst_message_get_structure(found) : nullptr;
    }
    // Forgets what the bus said so far (long runs would keep it all).
    void ForgetMessages()
    {
        Drain(0);
        for (GstMessage* message : seen)
            gst_message_unref(message);
        seen.clear();
    }
    bool SawQoS() { return Saw(GST_MESSAGE_QOS); }
    bool SawLatency() { return Saw(GST_MESSAGE_LATENCY); }
    bool Saw(GstMessageType type)
    {
        Drain(0);
        for (GstMessage* message : seen)
            if (GST_MESSAGE_TYPE(message) == type)
                return true;
        return false;
    }

private:
    static std::string TextOf(GstMessage* message)
    {
        GError* error = nullptr;
        gchar* debug = nullptr;
        gst_message_parse_error(message, &error, &debug);
        std::string text = std::string(error ? error->message : "") + " | " + (debug ? debug : "");
        g_clear_error(&error);
        g_free(debug);
        return text;
    }
    void Drain(GstClockTime wait)
    {
        while (GstMessage* message = gst_bus_timed_pop(bus, wait)) {
            seen.push_back(message);
            wait = 0;
        }
    }
    template <class Match>
    GstMessage* Await(Match matches)
    {
        const gint64 deadline = g_get_monotonic_time() + 10 * G_TIME_SPAN_SECOND * TimeScale();
        for (std::size_t next = 0;;) {
            for (; next < seen.size(); ++next)
                if (matches(seen[next]))
                    return seen[next];
            const gint64 left = deadline - g_get_monotonic_time();
            if (left <= 0)
                return nullptr;
            if (GstMessage* message = gst_bus_timed_pop(bus, static_cast<GstClockTime>(left) * GST_USECOND))
                seen.push_back(message);
        }
    }

    GstElement* pipeline;
    GstBus* bus;
    std::vector<GstMessage*> seen;
};

// A folder with the test's camera description, which LORUN_VIRTUAL_CAMERA
// names before the producer first loads (once per test process).
class LorunSrcFixture : public ::testing::Test {
protected:
    LorunSrcFixture() : folder(fs::temp_directory_path() / fs::unique_path("lorun-gst-%%%%-%%%%"))
    {
        fs::create_directories(folder);
        ::setenv("LORUN_VIRTUAL_CAMERA", File("cameras.ini").c_str(), 1);
    }
    ~LorunSrcFixture() override
    {
        boost::system::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    std::string File(const std::string& name) const { return (folder / name).string(); }
    void Describe(const std::string& cameras) const
    {
        std::ofstream(File("cameras.ini")) << "[system]\ncontrol = control.txt\nstate = none\n" << cameras;
    }
    static std::string Producer() { return std::string("producer=") + LORUN_CTI_PATH; }
    static GstElement* Launch(const std::string& description)
    {
        GError* error = nullptr;
        GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
        EXPECT_EQ(nullptr, error) << description << ": " << (error ? error->message : "");
        g_clear_error(&error);
        return pipeline;
    }
    void Control(const std::string& line) const { ASSERT_TRUE(CameraControl(File("control.txt")).Command(line)); }

    fs::path folder;
};

struct Resources {
    std::size_t descriptors = 0, threads = 0, residentKiB = 0;
};

inline std::size_t Entries(const char* folder)
{
    std::size_t count = 0;
    if (DIR* dir = ::opendir(folder)) {
        while (dirent* entry = ::readdir(dir))
            count += entry->d_name[0] != '.';
        ::closedir(dir);
    }
    return count;
}

inline Resources CountResources()
{
    Resources now;
    now.descriptors = Entries("/proc/self/fd");
    now.threads = Entries("/proc/self/task");
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            now.residentKiB = std::stoul(line.substr(6));
    return now;
}

}
