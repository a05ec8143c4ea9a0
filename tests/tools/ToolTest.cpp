// lorun-gentl against the built producer on the virtual camera, each
// subcommand and its failures, run as a user runs it: a separate process.
#include "sim/PixelFormats.h"
#include "tests/TestSupport.h"
#include "tests/sim/CameraControl.h"

#include <gtest/gtest.h>

#include <png.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = boost::filesystem;

struct Result {
    int code = -1;
    std::string out, err;
};

class Tool : public ::testing::Test {
protected:
    Tool() : folder(fs::temp_directory_path() / fs::unique_path("lorun-tool-%%%%-%%%%"))
    {
        fs::create_directories(folder);
        Describe("[camera0]\nguid = CAM-1\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 0\n");
    }
    ~Tool() override
    {
        boost::system::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    std::string File(const std::string& name) const { return (folder / name).string(); }

    void Describe(const std::string& cameras)
    {
        std::ofstream(File("cameras.ini")) << "[system]\ncontrol = control.txt\n" << cameras;
    }

    // The tool's command line with the test's environment, for sh.
    std::string CommandLine(const std::string& arguments) const
    {
        // A 32-bit build looks for its producers on GENICAM_GENTL32_PATH.
        return "LORUN_VIRTUAL_CAMERA='" + File("cameras.ini") + "' GENICAM_GENTL64_PATH='" + gentlPath +
               "' GENICAM_GENTL32_PATH='" + gentlPath + "' '" +
               LORUN_TOOL_PATH + "' " + arguments;
    }

    // Runs the tool to its end; a hung tool fails the test after a minute.
    // `prefix` keeps its output apart from a tool started in the background.
    Result Run(const std::string& arguments, const std::string& prefix = "") const
    {
        Result result;
        const std::string command = "timeout 60 env " + CommandLine(arguments) + " >'" + File(prefix + "out.txt") +
                                    "' 2>'" + File(prefix + "err.txt") + "'";
        const int status = std::system(command.c_str());
        result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.out = ReadFile(File(prefix + "out.txt"));
        result.err = ReadFile(File(prefix + "err.txt"));
        return result;
    }

    // Starts the tool in the background; Wait collects it.
    pid_t Start(const std::string& arguments) const
    {
        const pid_t child = ::fork();
        if (child == 0) {
            const std::string command = "exec env " + CommandLine(arguments) + " >'" + File("out.txt") + "' 2>'" +
                                        File("err.txt") + "'";
            ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        return child;
    }
    Result Wait(pid_t child) const
    {
        Result result;
        int status = 0;
        ::waitpid(child, &status, 0);
        result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.out = ReadFile(File("out.txt"));
        result.err = ReadFile(File("err.txt"));
        return result;
    }
    // Gives the virtual camera a command, and waits until it is applied.
    void Control(const std::string& line) const { ASSERT_TRUE(CameraControl(File("control.txt")).Command(line)); }
    // Waits until the started tool has written `text` to its standard output.
    bool AwaitOutput(const std::string& text) const
    {
        return Eventually([&] { return ReadFile(File("out.txt")).find(text) != std::string::npos; },
                          std::chrono::seconds(30));
    }

    fs::path folder;
    std::string gentlPath = fs::path(LORUN_CTI_PATH).parent_path().string();
};

TEST_F(Tool, DevicesAndProducersFromTheGenTLPath)
{
    Result r = Run("devices");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("1 device(s)")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("DEV_CAM-1")) << r.out;
    r = Run("producers");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("lorun_csi2.cti")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Tesmar Lumetric Industries")) << r.out;

    Describe("[system]\n"); // a board without cameras
    std::ofstream(File("cameras.ini")) << "[system]\nboard = imx8m\n";
    r = Run("devices");
    EXPECT_EQ(0, r.code);
    EXPECT_NE(std::string::npos, r.out.find("0 device(s)")) << r.out;
    r = Run("grab -n 5");
    EXPECT_EQ(1, r.code);
    EXPECT_NE(std::string::npos, r.err.find("No camera found.")) << r.err;
}

TEST_F(Tool, FeaturesGetSetAndExecThroughAGenApiEvaluator)
{
    Result r = Run("features");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("ImageFormatControl\n")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  Width ")) << "indented under its category";
    EXPECT_NE(std::string::npos, r.out.find("RW   64")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("ExposureTime")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find(" us\n")) << "units shown";
    r = Run("features --module stream");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("StatFrameDelivered")) << r.out;
    EXPECT_EQ(std::string::npos, r.out.find("StreamPayloadSizeMode")) << "invisible";
    r = Run("features --module stream --all");
    EXPECT_NE(std::string::npos, r.out.find("StreamPayloadSizeMode")) << "--all shows invisible features too";
    r = Run("features -m system");
    EXPECT_EQ(0, r.code) << r.err;

    r = Run("get Width");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("64\n", r.out);
    r = Run("set Width=32");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("Width = 32\n", r.out);
    r = Run("exec AcquisitionStart");
    EXPECT_EQ(0, r.code) << r.err;
    r = Run("get --module device DeviceID");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("DEV_CAM-1\n", r.out);

    r = Run("set WidthMax=5");
    EXPECT_EQ(1, r.code);
    EXPECT_NE(std::string::npos, r.err.find("WidthMax is read-only.")) << r.err;
    r = Run("set Width=7"); // the camera refuses widths that are no multiple of 8
    EXPECT_EQ(1, r.code);
    EXPECT_NE(std::string::npos, r.err.find("Width")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("producer error")) << "the producer's own text: " << r.err;
    r = Run("get NoSuchFeature");
    EXPECT_EQ(2, r.code);
    EXPECT_NE(std::string::npos, r.err.find("NoSuchFeature")) << r.err;
    r = Run("exec Width");
    EXPECT_EQ(2, r.code);
}

TEST_F(Tool, BadUsageAndHelp)
{
    for (const char* arguments : {"", "frobnicate", "get", "set Width", "grab -n 0", "grab --format jpg",
                                  "grab --buffers 0", "features --module lens", "grab --nope"}) {
        const Result r = Run(arguments);
        EXPECT_EQ(2, r.code) << arguments << ": " << r.err;
    }
    for (const char* command : {"producers", "info", "devices", "features", "get", "set", "exec", "grab", "events"}) {
        const Result r = Run(std::string(command) + " --help");
        EXPECT_EQ(0, r.code) << command;
        EXPECT_NE(std::string::npos, r.out.find("Options")) << command << ": " << r.out;
    }
    Result r = Run("info /etc/hostname");
    EXPECT_EQ(1, r.code);
    EXPECT_NE(std::string::npos, r.err.find("Could not load")) << r.err;
    r = Run("devices --producer " + File("missing.cti"));
    EXPECT_EQ(1, r.code);
}

// Reads a PNG back: width, height, channels, bit depth and samples.
struct Png {
    png_uint_32 width = 0, height = 0;
    int depth = 0, channels = 0;
    std::vector<std::uint16_t> samples;
};

// libpng reports errors by longjmp: what has a destructor is made before
// setjmp and not changed after it (the image and the row live on the heap),
// so that the jump skips no destructor and leaves no object undefined.
Png ReadPng(const std::string& path)
{
    const auto png = std::make_unique<Png>();
    const auto row = std::make_unique<std::vector<png_byte>>();
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!file)
        return Png{};
    png_structp reader = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(reader);
    if (setjmp(png_jmpbuf(reader))) {
        png_destroy_read_struct(&reader, &info, nullptr);
        return Png{};
    }
    png_init_io(reader, file.get());
    png_read_info(reader, info);
    png->width = png_get_image_width(reader, info);
    png->height = png_get_image_height(reader, info);
    png->depth = png_get_bit_depth(reader, info);
    png->channels = png_get_channels(reader, info);
    row->resize(png_get_rowbytes(reader, info));
    for (png_uint_32 y = 0; y < png->height; ++y) {
        png_read_row(reader, row->data(), nullptr);
        for (std::size_t i = 0; i < png->width * static_cast<std::size_t>(png->channels); ++i)
            png->samples.push_back(png->depth == 16 ? static_cast<std::uint16_t>((*row)[2 * i] << 8 | (*row)[2 * i + 1])
                                                    : (*row)[i]);
    }
    png_destroy_read_struct(&reader, &info, nullptr);
    return std::move(*png);
}

TEST_F(Tool, GrabSavesImagesThatDecodeToTheCamerasPattern)
{
    for (const char* format : {"Mono8", "Mono12", "Mono10p", "RGB8", "BayerRG8"}) {
        SCOPED_TRACE(format);
        Describe(std::string("[camera0]\nguid = CAM-1\nbus_timing = 0\nwidth = 32\nheight = 8\nframe_rate = 0\n"
                             "pixel_format = ") + format + "\n");
        const std::string saved = File(std::string("out-") + format);
        const Result r = Run("grab -n 30 --every 10 --save " + saved);
        ASSERT_EQ(0, r.code) << r.err;
        EXPECT_NE(std::string::npos, r.out.find("Frames                       30")) << r.out;
        EXPECT_NE(std::string::npos, r.out.find("Images saved                 3")) << r.out;
        const auto& pixel = QEL::Sim::PixelFormatByName(format);
        for (std::uint64_t frame : {1, 11, 21}) {
            char name[32];
            std::snprintf(name, sizeof name, "/frame-%06llu.png", static_cast<unsigned long long>(frame));
            const Png png = ReadPng(saved + name);
            ASSERT_EQ(32u, png.width) << name;
            ASSERT_EQ(8u, png.height);
            if (std::string(format) == "BayerRG8") {
                EXPECT_EQ(3, png.channels) << "demosaiced to colour";
                // A red cell keeps its own value in the red channel.
                EXPECT_EQ(QEL::Sim::PatternSample(0, 0, 0, frame, pixel, 0), png.samples[0]);
                continue;
            }
            ASSERT_EQ(static_cast<int>(pixel.samples), png.channels);
            const int shift = png.depth == 16 ? 16 - static_cast<int>(pixel.bitDepth) : 0;
            EXPECT_EQ(pixel.bitDepth > 8 ? 16 : 8, png.depth);
            int wrong = 0;
            for (std::uint32_t y = 0; y < 8; ++y)
                for (std::uint32_t x = 0; x < 32; ++x)
                    for (std::uint32_t s = 0; s < pixel.samples; ++s)
                        wrong += static_cast<std::uint32_t>(png.samples[(y * 32 + x) * pixel.samples + s] >> shift) !=
                                 QEL::Sim::PatternSample(x, y, s, frame, pixel, 0);
            EXPECT_EQ(0, wrong) << name;
        }
    }
    const Result raw = Run("grab -n 1 --format raw --save " + File("raw"));
    ASSERT_EQ(0, raw.code) << raw.err;
    EXPECT_TRUE(fs::exists(File("raw/frame-000001.raw")));
}

// NAME=VALUE settings after a command are written in order before it runs,
// each refusal reported as `set` reports it, before anything else happens.
TEST_F(Tool, SettingsOnTheCommandLineComeFirstInOrder)
{
    Describe("[camera0]\nguid = CAM-1\nbus_timing = 0\nwidth = 64\nheight = 16\nframe_rate = 0\n"
             "width_max = 128\nheight_max = 64\n");
    // OffsetX needs the smaller width first: the order is the command line's.
    Result r = Run("grab Width=32 Height=8 OffsetX=96 PixelFormat=Mono12 -n 3 --save " + File("set"));
    ASSERT_EQ(0, r.code) << r.err;
    const Png png = ReadPng(File("set/frame-000001.png"));
    EXPECT_EQ(32u, png.width);
    EXPECT_EQ(8u, png.height);
    EXPECT_EQ(16, png.depth) << "Mono12 is saved as 16-bit grey";
    r = Run("grab OffsetX=0 Width=64 OffsetX=72 Width=32 -n 3");
    EXPECT_EQ(1, r.code) << "OffsetX does not fit beside the width of 64: " << r.out;
    EXPECT_NE(std::string::npos, r.err.find("OffsetX")) << r.err;
    EXPECT_EQ(std::string::npos, r.out.find("Summary")) << "nothing grabbed after a refused setting";

    r = Run("get Width Width=48");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("48\n", r.out) << "the value after the settings";
    r = Run("get -m stream StreamPayloadSizeMode StreamPayloadSizeMode=Manual");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("Manual\n", r.out) << "-m chooses the module the settings go to";
    r = Run("features TestPattern=GreyHorizontalRamp");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("TestPattern")) << r.out;
    r = Run("events -t 0.2 -m device NoSuchFeature=1");
    EXPECT_EQ(2, r.code) << "an unknown feature is bad usage, as for set";
    EXPECT_NE(std::string::npos, r.err.find("NoSuchFeature")) << r.err;
    r = Run("grab -n 1 Width");
    EXPECT_EQ(2, r.code);
    EXPECT_NE(std::string::npos, r.err.find("expected NAME=VALUE, got 'Width'")) << r.err;
}

// The README's sequence: what `set` wrote, the camera keeps for the next
// process, as a powered camera would, until it is power cycled or reset.
TEST_F(Tool, TheCameraKeepsItsSettingsBetweenProcesses)
{
    Describe("[camera0]\nguid = CAM-1\nbus_timing = 0\nwidth = 1024\nheight = 4\nframe_rate = 0\n");
    Result r = Run("set Width=640");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_EQ("Width = 640\n", r.out);
    r = Run("grab -n 2 --save " + File("out"));
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_EQ(640u, ReadPng(File("out/frame-000001.png")).width);

    r = Run("exec -m device DeviceReset");
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_EQ("1024\n", Run("get Width").out) << "a reset brings back the description's width";

    ASSERT_EQ(0, Run("set Width=512").code);
    const pid_t events = Start("events -m interface -t 60");
    ASSERT_TRUE(AwaitOutput("Watching")) << "a process that follows the control file";
    Control("unplug camera0");
    Control("replug camera0");
    EXPECT_EQ("1024\n", Run("get Width", "get-").out) << "a power cycle does too";
    ASSERT_EQ(0, Run("set Width=256", "set-").code);
    Control("reset camera0");
    EXPECT_EQ("1024\n", Run("get Width", "get-").out) << "and the control file's reset";
    ::kill(events, SIGINT);
    EXPECT_EQ(0, Wait(events).code);

    std::ofstream(File("cameras.ini.state")) << "lorun virtual camera state 1\nsomething else\n";
    r = Run("get Width");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("1024\n", r.out);
    EXPECT_NE(std::string::npos, r.err.find("Virtual camera state file '" + File("cameras.ini.state") + "'"))
        << "a damaged state file is named: " << r.err;
}

TEST_F(Tool, ACameraGrabbedInOneProcessIsBusyInAnother)
{
    const pid_t grab = Start("grab -t 60");
    ASSERT_TRUE(AwaitOutput("frames ")) << "grabbing";
    Result r = Run("get Width", "get-");
    EXPECT_EQ(1, r.code) << r.out;
    EXPECT_NE(std::string::npos, r.err.find("Device or resource busy")) << r.err;
    ::kill(grab, SIGINT);
    EXPECT_EQ(0, Wait(grab).code);
    r = Run("get Width");
    EXPECT_EQ(0, r.code) << "free again once the grab ended: " << r.err;
}

TEST_F(Tool, ProgressLinesInAPipeAndACameraPulledOutDuringGrab)
{
    const pid_t grab = Start("grab -t 30");
    EXPECT_TRUE(AwaitOutput("frames ")) << "a progress line";
    Control("unplug camera0");
    const Result r = Wait(grab);
    EXPECT_EQ(1, r.code) << r.out;
    EXPECT_NE(std::string::npos, r.err.find("was pulled out")) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("frames ")) << "periodic progress lines";
    EXPECT_EQ(std::string::npos, r.out.find('\r')) << "plain lines when the output is no terminal";
    EXPECT_NE(std::string::npos, r.out.find("Summary")) << "a summary all the same";
}

// Each failure of a grab ends it with exit code 1 and its reason on standard
// error: a folder that cannot take the images before the camera is opened, an
// image that cannot be saved with the buffers revoked and a summary.
TEST_F(Tool, GrabFailuresEndWithTheirReasonAndACleanTeardown)
{
    std::ofstream(File("a-file")) << "not a folder\n";
    struct Case {
        std::string arguments, camera, message;
        bool acquired;
    } cases[] = {
        {"grab -n 5 --save " + File("a-file"), "Mono8", "Cannot save images in " + File("a-file") + ": Not a directory",
         false},
        {"grab -n 5 --save " + File("missing/images"), "Mono8",
         "Cannot save images in " + File("missing/images") + ": No such file or directory", false},
        {"grab -n 5 --format pgm --save " + File("grey"), "RGB8", "PGM holds grey images only; save colour as png",
         true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments);
        Describe("[camera0]\nguid = CAM-1\nbus_timing = 0\nwidth = 32\nheight = 8\nframe_rate = 0\npixel_format = " +
                 c.camera + "\n");
        const Result r = Run(c.arguments);
        EXPECT_EQ(1, r.code) << r.out;
        EXPECT_NE(std::string::npos, r.err.find(c.message)) << r.err;
        EXPECT_EQ(std::string::npos, r.err.find("ERROR")) << "buffers revoked without complaint: " << r.err;
        EXPECT_EQ(c.acquired, r.out.find("Images saved                 0") != std::string::npos) << r.out;
    }
    EXPECT_FALSE(fs::exists(File("missing"))) << "no parents made up";
    EXPECT_TRUE(fs::is_empty(File("grey"))) << "no half-written image";
}

// Frames the camera lost show in the progress lines and the summary, and as
// a warning at the end; they are the camera's data, not a failure of the grab.
TEST_F(Tool, FramesLostInTheCameraAreReported)
{
    const pid_t grab = Start("grab -t 60");
    EXPECT_TRUE(AwaitOutput("frames ")) << "grabbing";
    Control("fault camera0 BlockIDGap 1 5");
    EXPECT_TRUE(AwaitOutput("lost 5 ")) << "the progress line counts them";
    ::kill(grab, SIGINT);
    const Result r = Wait(grab);
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Lost (frame ID gaps)         5")) << r.out;
    EXPECT_NE(std::string::npos, r.err.find("Warning: 5 frames lost (frame ID gaps).")) << r.err;
}

TEST_F(Tool, CtrlCStopsCleanlyWithASummary)
{
    const pid_t grab = Start("grab -t 60");
    EXPECT_TRUE(AwaitOutput("frames ")) << "grabbing";
    ::kill(grab, SIGINT);
    const auto before = std::chrono::steady_clock::now();
    const Result r = Wait(grab);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Summary")) << r.out;
    EXPECT_EQ(std::string::npos, r.err.find("ERROR")) << "buffers revoked without complaint: " << r.err;
}

TEST_F(Tool, EventsShowACameraThatComesAndGoes)
{
    const pid_t events = Start("events -m interface -t 6");
    EXPECT_TRUE(AwaitOutput("Watching"));
    Control("unplug camera0");
    EXPECT_TRUE(AwaitOutput("device list change")) << "the camera gone";
    Control("replug camera0");
    const Result r = Wait(events);
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_GE(std::count(r.out.begin(), r.out.end(), '\n'), 3) << "and back: " << r.out;
}

}
