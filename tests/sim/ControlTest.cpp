// Control of the virtual camera from outside the process (the control file and
// its commands), and what a description can ask of a camera: chunk frames,
// several manifest entries, a document of the user's own.
#include "SimHarness.h"
#include "tests/TestSupport.h"

#include "sim/ControlFile.h"
#include "sim/PixelFormats.h"
#include "support/Sha1.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include <fstream>
#include <set>

using namespace SimTest;
using namespace QEL::Sim::CameraMap;

namespace {

class TempFolder {
public:
    TempFolder()
        : path(boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("lorun-sim-%%%%-%%%%"))
    {
        boost::filesystem::create_directories(path);
    }
    ~TempFolder()
    {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(path, ignored);
    }
    std::string File(const std::string& name) const { return (path / name).string(); }

private:
    boost::filesystem::path path;
};

void Append(const std::string& file, const std::string& text)
{
    std::ofstream(file, std::ios::app) << text;
}

TEST(ControlCommands, UnplugReplugFaultsAndTheirRefusals)
{
    Harness h;
    const std::string availability = "/sys/class/video4linux/video1/availability";
    h.system->ApplyCommand("unplug camera1   # the right one");
    EXPECT_EQ("0\n", h.ReadAttribute(availability));
    EXPECT_EQ("1\n", h.ReadAttribute("/sys/class/video4linux/video0/availability"));
    h.system->ApplyCommand("replug camera1");
    EXPECT_EQ("1\n", h.ReadAttribute(availability));
    h.system->ApplyCommand("identity camera0 serial_number OTHER-1");
    EXPECT_EQ("OTHER-1\n", h.ReadAttribute("/sys/class/i2c-dev/i2c-2/device/2-003c/serial_number"));

    // A fault armed by command hits the next I2C transfer and then disarms itself.
    h.system->ApplyCommand("fault camera0 I2CReadFailure 1");
    const int fd = h.OpenNode();
    std::uint8_t value[4] = {};
    qel_i2c_access transfer{CciLayoutVersion, reinterpret_cast<std::uintptr_t>(value), 2, 4};
    EXPECT_EQ(-1, h.system->Ioctl(fd, VIDIOC_R_I2C, &transfer));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_R_I2C, &transfer));
    h.system->ApplyCommand("ioctl camera0 VIDIOC_R_I2C 5 2");
    h.system->ApplyCommand("clear camera0");
    EXPECT_EQ(0, h.system->Ioctl(fd, VIDIOC_R_I2C, &transfer)) << "clear disarms the failing ioctl";

    h.system->ApplyCommand("");
    h.system->ApplyCommand("   # nothing but a comment");
    for (const char* bad : {"unplug", "unplug camera7", "unplug camera0 now", "explode camera0",
                            "fault camera0 NoSuchFault", "fault camera0 BadCRC 1", "fault camera0 BadAckCRC -1",
                            "fault camera0 BadAckCRC 0x100000000", "fault camera0 BadAckCRC 2x",
                            "ioctl camera0 VIDIOC_NOPE 5 1", "ioctl camera0 VIDIOC_DQBUF 0 1",
                            "identity camera0 colour red", "report", "report camera0"})
        EXPECT_THROW(h.system->ApplyCommand(bad), std::invalid_argument) << bad;
    EXPECT_EQ("1\n", h.ReadAttribute("/sys/class/video4linux/video0/availability")) << "bad lines change nothing";
    // "report camera0" is refused above: without a control file there is no place for the report.
}

TEST(ControlFile, AppliesLinesAppendedFromOutsideInOrder)
{
    TempFolder folder;
    const std::string path = folder.File("control");
    Append(path, "old command from an earlier run\n");
    std::vector<std::pair<std::string, std::uint64_t>> seen;
    // An hour between looks: this test polls by hand.
    QEL::Sim::ControlFile control(path, [&](const std::string& line, std::uint64_t number) {
        seen.emplace_back(line, number);
    }, std::chrono::hours(1));
    control.Poll();
    EXPECT_TRUE(seen.empty()) << "lines written before watching began are skipped";

    const std::string applied = path + ".applied";
    EXPECT_EQ("1\n", ReadFile(applied)) << "the line read is acknowledged, though skipped";

    // A link planted where the acknowledgement goes is replaced, not followed.
    Append(folder.File("elsewhere"), "untouched\n");
    ::unlink(applied.c_str());
    ASSERT_EQ(0, ::symlink(folder.File("elsewhere").c_str(), applied.c_str()));
    Append(path, "first\nsecond\nthi");
    control.Poll();
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ("second", seen[1].first);
    EXPECT_EQ(3u, seen[1].second) << "numbers count the file's lines";
    EXPECT_EQ("3\n", ReadFile(applied)) << "acknowledged once both were applied";
    EXPECT_EQ("untouched\n", ReadFile(folder.File("elsewhere")));
    Append(path, "rd\n" + std::string(5000, 'x') + "\nafter\n");
    control.Poll();
    ASSERT_EQ(4u, seen.size()) << "a line longer than the limit is dropped";
    EXPECT_EQ("third", seen[2].first);
    EXPECT_EQ("after", seen[3].first);

    // A file written anew is read from its start.
    std::ofstream(path, std::ios::trunc) << "fresh\n";
    control.Poll();
    ASSERT_EQ(5u, seen.size());
    EXPECT_EQ("fresh", seen[4].first);
    EXPECT_EQ(1u, seen[4].second);
}

TEST(ControlFile, AFifoOrAMissingFileNeverBlocks)
{
    TempFolder folder;
    const std::string path = folder.File("control");
    int lines = 0;
    QEL::Sim::ControlFile control(path, [&](const std::string&, std::uint64_t) { ++lines; }, std::chrono::hours(1));
    control.Poll();
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    control.Poll(); // would hang on a blocking open or read
    ::unlink(path.c_str());
    Append(path, "created later\n");
    control.Poll();
    EXPECT_EQ(1, lines) << "a file that appears later is read from its start";
}

// A process appends a command and waits for its acknowledgement, not for a
// guessed delay: once FILE.applied holds the line's number, it is in force.
TEST(ControlFile, TheVirtualCameraFollowsItsControlFile)
{
    TempFolder folder;
    std::ofstream(folder.File("cameras.ini")) << "[system]\ncontrol = control.txt\n[camera0]\nnode = video0\n";
    auto system = VirtualSystem::FromFile(folder.File("cameras.ini"));
    EXPECT_EQ(folder.File("control.txt"), system->GetDescription().control) << "beside the description";
    Append(folder.File("control.txt"), "no such command\nunplug camera0\n");
    Harness h("[camera0]\nnode = video0\n");
    h.system = system;
    ASSERT_TRUE(Eventually([&] { return ReadFile(folder.File("control.txt.applied")) == "2\n"; }));
    EXPECT_EQ("0\n", h.ReadAttribute("/sys/class/video4linux/video0/availability"))
        << "applied, after the bad line before it was reported and skipped";

    // The camera's counters, in a file beside the control file, written before the acknowledgement.
    h.system->GetFirmware(0).ReadValue(0); // not over the bus: counts nothing
    Append(folder.File("control.txt"), "report camera0\n");
    ASSERT_TRUE(Eventually([&] { return ReadFile(folder.File("control.txt.applied")) == "3\n"; }));
    EXPECT_EQ("frames_sent = 0\nframes_lost = 0\nbus_bytes = 0\ndocument_bytes_read = 0\n",
              ReadFile(folder.File("control.txt.report")));
}

TEST(Description, FilesThatAreNotRegularOrTooLargeAreRefusedByName)
{
    TempFolder folder;
    for (const char* path : {"/dev/zero", "/tmp"}) {
        try {
            SystemDescription::FromFile(path);
            ADD_FAILURE() << path << " was accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string::npos, std::string(e.what()).find(path)) << e.what();
        }
    }
    ASSERT_EQ(0, ::mkfifo(folder.File("fifo").c_str(), 0600));
    EXPECT_THROW(SystemDescription::FromFile(folder.File("fifo")), std::invalid_argument);
    std::ofstream(folder.File("cameras.ini")) << "[camera0]\ndocument = /dev/zero\n";
    EXPECT_THROW(SystemDescription::FromFile(folder.File("cameras.ini")), std::invalid_argument);
    std::ofstream(folder.File("big.ini")) << std::string((1u << 20) + 1, ';');
    EXPECT_THROW(SystemDescription::FromFile(folder.File("big.ini")), std::invalid_argument);
    EXPECT_THROW(SystemDescription::FromText("[camera0]\nmanifest_entries = 0\n"), std::invalid_argument);
    EXPECT_THROW(SystemDescription::FromText("[camera0]\nmanifest_entries = 9\n"), std::invalid_argument);
}

std::vector<std::uint8_t> ReadWhole(Harness& h, int fd, std::uint64_t address, std::uint64_t size)
{
    std::vector<std::uint8_t> bytes;
    while (bytes.size() < size) {
        auto block = h.ReadMemory(fd, address + bytes.size(),
                                  static_cast<std::uint16_t>(std::min<std::uint64_t>(1000, size - bytes.size())));
        if (block.empty())
            break;
        bytes.insert(bytes.end(), block.begin(), block.end());
    }
    return bytes;
}

TEST(Manifest, SeveralEntriesAndADocumentOfTheUsersOwn)
{
    TempFolder folder;
    const std::string own = "<?xml version=\"1.0\"?><RegisterDescription/>\n";
    std::ofstream(folder.File("own.xml")) << own;
    std::ofstream(folder.File("cameras.ini")) << "[camera0]\nnode = video0\nbus_timing = 0\nmode_switch_delay_ms = 0\n"
                                                 "manifest_entries = 3\ndocument = own.xml\n";
    Harness h("[camera0]\nnode = video0\n");
    h.system = VirtualSystem::FromFile(folder.File("cameras.ini"));
    const int fd = h.OpenNode();
    h.EnterGenCPMode(fd);
    auto value = [&](std::uint64_t address) {
        auto bytes = h.ReadMemory(fd, address, 8);
        std::uint64_t v = 0;
        std::memcpy(&v, bytes.data(), std::min<std::size_t>(8, bytes.size()));
        return v;
    };
    const std::uint64_t manifest = value(0x01D0);
    ASSERT_EQ(3u, value(manifest));
    std::set<std::vector<std::uint8_t>> hashes;
    for (std::uint32_t i = 0; i < 3; ++i) {
        auto entry = h.ReadMemory(fd, manifest + 8 + 64 * i, 64);
        ASSERT_EQ(64u, entry.size());
        std::uint64_t address, size;
        std::memcpy(&address, &entry[8], 8);
        std::memcpy(&size, &entry[16], 8);
        EXPECT_EQ(i, entry[0]) << "file version 1.0." << i;
        const auto document = ReadWhole(h, fd, address, size);
        const std::string text(document.begin(), document.end());
        EXPECT_EQ(0u, text.find(own)) << "entry " << i << " is the user's document";
        const auto digest = QEL::Tools::Sha1Digest(document.data(), document.size());
        EXPECT_TRUE(std::equal(digest.begin(), digest.end(), entry.begin() + 24)) << "entry " << i;
        hashes.insert(std::vector<std::uint8_t>(entry.begin() + 24, entry.begin() + 44));
    }
    EXPECT_EQ(3u, hashes.size()) << "the entries are told apart";

    // Every document byte a read answered is counted, and the fault spoils one
    // read of a document's first byte.
    std::uint64_t sizes = 0;
    for (std::uint32_t i = 0; i < 3; ++i) {
        auto entry = h.ReadMemory(fd, manifest + 8 + 64 * i, 64);
        std::uint64_t size;
        std::memcpy(&size, &entry[16], 8);
        sizes += size;
    }
    EXPECT_EQ(sizes, h.system->GetFirmware(0).GetDocumentBytesRead());
    auto entry = h.ReadMemory(fd, manifest + 8, 64);
    std::uint64_t address, size;
    std::memcpy(&address, &entry[8], 8);
    std::memcpy(&size, &entry[16], 8);
    const auto beside = h.ReadMemory(fd, address + 1, 8); // not the first byte: the fault waits
    h.system->InjectFault(0, Fault::DocumentCorrupt, 1);
    EXPECT_EQ(beside, h.ReadMemory(fd, address + 1, 8));
    const auto changed = ReadWhole(h, fd, address, size);
    const auto whole = ReadWhole(h, fd, address, size);
    ASSERT_EQ(size, changed.size());
    EXPECT_EQ(std::uint8_t(whole[0] ^ 0xFF), changed[0]);
    EXPECT_TRUE(std::equal(whole.begin() + 1, whole.end(), changed.begin() + 1)) << "only the first byte";
    EXPECT_EQ(sizes + 16 + 2 * size, h.system->GetFirmware(0).GetDocumentBytesRead());
}

TEST(ChunkFrames, TheImageAndTheBlockIDAsChunksBehindATrailerWithTheLayoutID)
{
    CameraDescription description;
    description.width = 24; // an image of 24 x 5 x 10 bits = 150 bytes, with the padding in its chunk
    description.height = 5;
    description.pixelFormat = "Mono10p";
    description.chunkData = true;
    FaultPlan faults;
    CameraFirmware camera(description, faults);
    EXPECT_EQ(ChunkPayloadType, camera.ReadValue(Sirm + 112));
    EXPECT_EQ(ChunkLayoutID, camera.ReadValue(Sirm + 124));
    EXPECT_EQ(36u, camera.ReadValue(Sirm + 16) & 0xFFFFFFFF) << "the trailer carries the layout ID";
    const auto g = camera.Geometry();
    EXPECT_EQ(150u, g.imageBytes);
    EXPECT_EQ(g.payloadSize, g.validBytes) << "chunks fill the payload";
    EXPECT_EQ(g.validBytes, camera.ReadValue(Sirm + 116));
    const std::uint64_t imageChunk = g.payloadSize - 24;
    EXPECT_GE(imageChunk, 150u);

    std::vector<std::uint8_t> frame(MaxLeaderSize + g.payloadSize + 36);
    ASSERT_TRUE(camera.RenderFrame(frame.data(), frame.size(), 77, 1000));
    qel_frame_leader leader;
    std::memcpy(&leader, frame.data(), sizeof leader);
    EXPECT_EQ(ChunkPayloadType, +leader.payload_type);
    const std::uint8_t* payload = frame.data() + MaxLeaderSize;
    auto word = [&](std::uint64_t at) {
        std::uint32_t v;
        std::memcpy(&v, payload + at, 4);
        return v;
    };
    EXPECT_EQ(FrameIDChunkID, word(g.validBytes - 8));
    EXPECT_EQ(8u, word(g.validBytes - 4));
    std::uint64_t block = 0;
    std::memcpy(&block, payload + g.validBytes - 16, 8);
    EXPECT_EQ(77u, block);
    EXPECT_EQ(ImageChunkID, word(imageChunk));
    EXPECT_EQ(imageChunk, word(imageChunk + 4));
    EXPECT_EQ(PatternSample(23, 4, 0, 77, *g.format, 0), ReadSample(payload, 24, 23, 4, 0, *g.format));
    qel_frame_trailer trailer;
    std::memcpy(&trailer, payload + g.payloadSize, sizeof trailer);
    EXPECT_EQ(g.validBytes, +trailer.valid_payload_size);
    std::uint32_t layout = 0;
    std::memcpy(&layout, payload + g.payloadSize + 32, 4);
    EXPECT_EQ(ChunkLayoutID, layout);
}

}

namespace {

// Each refused description names the file, the line and the key.
TEST(Description, BadValuesAndClashesAreRefusedWithTheirPlace)
{
    TempFolder folder;
    const std::string path = folder.File("cameras.ini");
    struct Case {
        const char* text;
        const char* line;
        const char* key;
    } cases[] = {
        {"[camera0]\nwidth = -1\n", "line 2", "key 'width'"},
        {"[camera0]\n; a comment\nwidth = 0x100000280\n", "line 3", "key 'width'"},
        {"[camera0]\nport = -1\n", "line 2", "key 'port'"},
        {"[camera0]\nbus = 99999999999999999999\n", "line 2", "key 'bus'"},
        {"[camera0]\nguid = A\n[camera1]\nnode = video1\nport = 3\nguid = A\n", "line 6", "key 'guid'"},
        {"[camera0]\nwidth = 64\n[camera1]\nport = 3\n", "", "key 'node'"},
        {"[camera0]\nwidth = 64\n[camera1]\nnode = video1\n", "", "key 'address'"},
        {"[camera0]\nwidth = 64\n[camera1]\nnode = video1\nport = 3\n", "", "key 'address'"},
        {"[camera0]\nnode = ../video0\n", "line 2", "key 'node'"},
        {"[system]\nboard = pi\n", "line 2", "key 'board'"},
        {"[camera0]\ncolour = red\n", "line 2", "key 'colour'"},
    };
    for (const Case& c : cases) {
        std::ofstream(path) << c.text;
        try {
            SystemDescription::FromFile(path);
            ADD_FAILURE() << "accepted: " << c.text;
        } catch (const std::invalid_argument& e) {
            const std::string what = e.what();
            EXPECT_NE(std::string::npos, what.find(path)) << what;
            EXPECT_NE(std::string::npos, what.find(c.line)) << what;
            EXPECT_NE(std::string::npos, what.find(c.key)) << what;
        }
    }
    std::ofstream(path) << "[camera0]\nwidth = 64\n[camera1]\nnode = video1\nport = 3\nbus = 3\n";
    const auto two = SystemDescription::FromFile(path);
    ASSERT_EQ(2u, two.cameras.size());
    EXPECT_EQ("VIRTUAL-CAMERA-0001", two.cameras[0].guid);
    EXPECT_EQ("VIRTUAL-CAMERA-0002", two.cameras[1].guid) << "cameras without a GUID of their own differ";
}

}
