// Acquisition through the built producer in each of libcsi's memory modes,
// with chunk data, and with faults that the virtual camera's control file
// injects from outside while a consumer acquires: broken frames, a camera
// pulled out and put back, bad GenCP answers, and a library closed under a
// waiting consumer.
#include "tests/consumer/AcquisitionFixture.h"
#include "tests/sim/CameraControl.h"

#include <algorithm>
#include <chrono>
#include <functional>

namespace {

using Clock = std::chrono::steady_clock;

// Libcsi's user-pointer modes: the consumer's own buffers are given to the
// driver (USERPTR_EXT; a camera without leader and trailer, so that a buffer
// is the whole frame), and allocated buffers come from libcsi (USERPTR_INT).
class UserPointerAcquisition : public Acquisition {
protected:
    explicit UserPointerAcquisition(const std::string& camera = DefaultCamera)
        : Acquisition(Setup{camera, "", "enable_userptr=1\n"})
    {
    }
};

class OwnUserPointerAcquisition : public UserPointerAcquisition {
protected:
    OwnUserPointerAcquisition() : UserPointerAcquisition(DefaultCamera + "leader_trailer = 0\n") {}
};

TEST_F(OwnUserPointerAcquisition, EveryPixelOfThreeHundredFramesInTheConsumersOwnMemory)
{
    StreamVerified(4, 0, 300);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    RevokeAll();
}

TEST_F(UserPointerAcquisition, EveryPixelOfThreeHundredFramesInAllocatedMemory)
{
    // With leader and trailer a consumer's buffer holds only the payload, which
    // the driver cannot fill in place: refused, nothing announced.
    std::vector<std::uint8_t> own(payloadSize + Alignment);
    auto* aligned = own.data() + (Alignment - reinterpret_cast<std::uintptr_t>(own.data()) % Alignment) % Alignment;
    BUFFER_HANDLE refused = nullptr;
    EXPECT_EQ(GC_ERR_ERROR, LORUN_FN(DSAnnounceBuffer)(stream, aligned, payloadSize, nullptr, &refused));
    EXPECT_EQ(0u, StreamInfo<size_t>(STREAM_INFO_NUM_ANNOUNCED));

    StreamVerified(0, 4, 300);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    RevokeAll();
}

class ChunkAcquisition : public Acquisition {
protected:
    ChunkAcquisition() : Acquisition(Setup{DefaultCamera + "chunk_data = 1\n"}) {}
};

TEST_F(ChunkAcquisition, EachFrameCarriesItsImageAndBlockIDAsChunks)
{
    StreamVerified(3, 1, 300); // checks the chunks of every frame
}

// A camera whose faults are armed from outside, through its control file.
class ControlledAcquisition : public Acquisition {
protected:
    explicit ControlledAcquisition(const std::string& camera = DefaultCamera)
        : Acquisition(Setup{camera, "control = control.txt\n"})
    {
    }

    void Command(const std::string& lines) { ASSERT_TRUE(CameraControl(producer.File("control.txt")).Command(lines)); }

    struct Frame {
        GC_ERROR result = GC_ERR_ERROR;
        std::uint64_t id = 0;
        bool incomplete = false;
    };

    // One frame, its buffer queued again at once.
    Frame Next(std::uint64_t timeoutMs = 5000)
    {
        Frame frame;
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        frame.result = LORUN_FN(EventGetData)(newBuffer, &data, &size, timeoutMs);
        if (frame.result != GC_ERR_SUCCESS)
            return frame;
        frame.incomplete = BufferInfo<bool8_t>(data.BufferHandle, BUFFER_INFO_IS_INCOMPLETE) != 0;
        if (!frame.incomplete)
            frame.id = BufferInfo<std::uint64_t>(data.BufferHandle, BUFFER_INFO_FRAMEID);
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, data.BufferHandle));
        return frame;
    }

    std::size_t AccessStatus()
    {
        bool8_t changed = 0;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(IFUpdateDeviceList)(interface, &changed, 100));
        std::int32_t status = 0;
        INFO_DATATYPE type = 0;
        size_t size = sizeof status;
        if (LORUN_FN(IFGetDeviceInfo)(interface, "DEV_CAM-1", DEVICE_INFO_ACCESS_STATUS, &type, &status, &size) !=
            GC_ERR_SUCCESS)
            return 0;
        return static_cast<std::size_t>(status);
    }

    // Takes frames until `expected` frame IDs have been skipped (or five
    // seconds passed) and returns the number skipped; every frame delivered is whole.
    std::uint64_t MissingFrames(std::uint64_t expected)
    {
        std::uint64_t missing = 0;
        // Commands take effect within the control file's polling interval; frames come faster.
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        while (missing < expected && Clock::now() < deadline) {
            const Frame frame = Next();
            EXPECT_EQ(GC_ERR_SUCCESS, frame.result) << producer.LastError().second;
            if (frame.result != GC_ERR_SUCCESS)
                break;
            EXPECT_FALSE(frame.incomplete);
            EXPECT_GT(frame.id, lastFrameId);
            missing += frame.id - lastFrameId - 1;
            lastFrameId = frame.id;
        }
        return missing;
    }

    void Start()
    {
        AnnounceAndQueue(4, 0);
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
            << producer.LastError().second;
    }
};

// A sensor that runs at its own rate, whether or not a buffer waits.
class FreeRunningAcquisition : public ControlledAcquisition {
protected:
    FreeRunningAcquisition() : ControlledAcquisition("width = 64\nheight = 16\npixel_format = Mono8\nframe_rate = 500\n") {}
};

// The data stream's statistics are the driver's, each from its own cause:
// frames sent, packets with a bad CRC, frames flagged incomplete, and frames
// the sensor lost while the consumer withheld every buffer.
TEST_F(FreeRunningAcquisition, StreamStatisticsAreTheDriversFieldByField)
{
    constexpr std::uint64_t Delivered = 0x10E0000, CRCError = 0x10F0000, Incomplete = 0x1100000,
                            Underrun = 0x1110000, Rate = 0x1120000;
    CameraControl control(producer.File("control.txt"));
    Start();
    Grab(10);
    double rate = 0;
    size_t size = sizeof rate;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCReadPort)(stream, Rate, &rate, &size));
    EXPECT_GT(rate, 0.0) << "StatFrameRate while frames flow";
    // One at a time, as each frame takes every fault armed: at most four
    // frames were under way when a fault came, so ten later ones show it was sent.
    Command("fault camera0 IncompleteFrame 2");
    Grab(10);
    Command("fault camera0 PacketCRCError 1");
    Grab(10);

    std::vector<BUFFER_HANDLE> withheld;
    for (std::size_t i = 0; i < buffers.size(); ++i) {
        ASSERT_NO_FATAL_FAILURE(withheld.push_back(TakeChecked(i)));
    }
    const std::uint64_t lostBefore = control.Report("camera0")["frames_lost"];
    ASSERT_TRUE(Eventually([&] { return control.Report("camera0")["frames_lost"] >= lostBefore + 20; }));
    for (BUFFER_HANDLE buffer : withheld)
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, buffer));
    Grab(10);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));

    auto camera = control.Report("camera0");
    EXPECT_EQ(camera["frames_lost"], StreamInfo<std::uint64_t>(STREAM_INFO_NUM_UNDERRUN));
    EXPECT_EQ(camera["frames_lost"], Read64(stream, Underrun)) << "StatFrameUnderrun";
    EXPECT_EQ(camera["frames_sent"], Read64(stream, Delivered)) << "StatFrameDelivered";
    EXPECT_EQ(1u, Read64(stream, CRCError)) << "StatFrameCRCError";
    EXPECT_EQ(3u, Read64(stream, Incomplete)) << "StatFrameIncomplete: two flagged, one with a bad packet";
    EXPECT_EQ(0, wrongPixels);
}

TEST_F(ControlledAcquisition, BrokenFramesAreLostToTheConsumerAndTheStreamGoesOn)
{
    Start();
    Grab(10);
    // A frame the driver or the camera marks bad never reaches the consumer:
    // its buffer is queued again, and the frame IDs show what was lost.
    const std::uint64_t incompleteBefore = Read64(stream, 0x1100000);
    Command("fault camera0 IncompleteFrame 3");
    EXPECT_EQ(3u, MissingFrames(3));
    EXPECT_EQ(3u, Read64(stream, 0x1100000) - incompleteBefore) << "StatFrameIncomplete";
    Command("fault camera0 BlockIDGap 1 5");
    EXPECT_EQ(5u, MissingFrames(5)) << "frames the camera lost";
    Command("fault camera0 BadLeaderKey 2");
    EXPECT_EQ(2u, MissingFrames(2)) << "a wrong leader key";
    Command("fault camera0 BadTrailerKey 2");
    EXPECT_EQ(2u, MissingFrames(2)) << "a wrong trailer key";
    Grab(30);
    EXPECT_EQ(0, wrongPixels) << "good frames after the faults";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

// A driver that refuses a buffer while frames flow will not fill the stream
// again: the stream aborts, and the consumer hears why on the data stream's
// error event instead of waiting for frames in vain. The stop works from
// there, every buffer is the consumer's again, and the next start streams.
TEST_F(ControlledAcquisition, ADriverThatRefusesABufferAbortsTheStream)
{
    EVENT_HANDLE errors = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCRegisterEvent)(stream, EVENT_ERROR, &errors));
    Start();
    Grab(10);
    Command("ioctl camera0 VIDIOC_QBUF 5 1");
    // The buffers are all with libcsi: the first one queued again is the refused one.
    BUFFER_HANDLE refused = nullptr;
    ASSERT_NO_FATAL_FAILURE(refused = TakeChecked(10));
    EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, refused)) << "the queue took it; the driver did not";

    std::vector<char> error(1024);
    size_t size = error.size();
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(EventGetData)(errors, error.data(), &size, 5000)) << "the abort was reported";
    INFO_DATATYPE type = 0;
    std::int64_t code = 0;
    size_t infoSize = sizeof code;
    ASSERT_EQ(GC_ERR_SUCCESS,
              LORUN_FN(EventGetDataInfo)(errors, error.data(), size, EVENT_DATA_NUMID, &type, &code, &infoSize));
    EXPECT_EQ(GC_ERR_IO, code);
    char text[512] = {};
    infoSize = sizeof text;
    ASSERT_EQ(GC_ERR_SUCCESS,
              LORUN_FN(EventGetDataInfo)(errors, error.data(), size, EVENT_DATA_VALUE, &type, text, &infoSize));
    EXPECT_STREQ("Could not queue buffer (Reason: -16). (Error code: -1010)", text);

    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT)) << producer.LastError().second;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_TO_INPUT));
    EXPECT_EQ(buffers.size(), StreamInfo<size_t>(STREAM_INFO_NUM_QUEUED)) << "every buffer came back";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    Grab(30);
    EXPECT_EQ(0, wrongPixels);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    EXPECT_EQ(GC_ERR_TIMEOUT, LORUN_FN(EventGetData)(errors, error.data(), &size, 0)) << "one abort, one error";
    EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCUnregisterEvent)(stream, EVENT_ERROR));
}

TEST_F(ControlledAcquisition, ACameraPulledOutMidStreamAndPutBack)
{
    Start();
    Grab(10);
    std::atomic<int> frames{0};
    GC_ERROR last = GC_ERR_SUCCESS;
    std::thread consumer([&] {
        for (;;) {
            const Frame frame = Next(GENTL_INFINITE);
            if (frame.result != GC_ERR_SUCCESS) {
                last = frame.result;
                return;
            }
            ++frames;
        }
    });
    ASSERT_TRUE(Eventually([&] { return frames > 20; }));
    Command("unplug camera0");
    EXPECT_TRUE(Eventually([&] { return AccessStatus() == DEVICE_ACCESS_STATUS_NOACCESS; }))
        << "the interface reports the camera gone";
    const int before = frames;
    // An observation window: the camera is gone (proven above), no frame may come.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LE(frames - before, 4) << "no frames from a camera that is gone (a few may have been under way)";

    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &remote));
    std::uint32_t width = 0;
    size_t size = sizeof width;
    EXPECT_NE(GC_ERR_SUCCESS, LORUN_FN(GCReadPort)(remote, 0x10200010, &width, &size)) << "its registers fail";

    // The waiting consumer is woken, and everything closes without a hang.
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(EventKill)(newBuffer));
    consumer.join();
    EXPECT_EQ(GC_ERR_ABORT, last);
    LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_KILL);
    EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));

    Command("replug camera0");
    ASSERT_TRUE(Eventually([&] { return AccessStatus() == DEVICE_ACCESS_STATUS_READWRITE; }));
    OpenCamera();
    Start();
    Grab(50);
    EXPECT_EQ(0, wrongPixels) << "the camera put back streams as before";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

TEST_F(ControlledAcquisition, BadGenCPAnswersDuringAcquisitionFailOneReadAndPass)
{
    Start();
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &remote));
    std::atomic<bool> done{false};
    std::atomic<int> good{0}, bad{0};
    std::thread reader([&] {
        auto readPort = LORUN_FN(GCReadPort);
        while (!done) {
            std::uint32_t width = 0;
            size_t size = sizeof width;
            if (readPort(remote, 0x10200010, &width, &size) == GC_ERR_SUCCESS && width == 64)
                ++good;
            else
                ++bad;
        }
    });
    // Eight bad checksums in a row exhaust the attempts of a read or two, stale
    // answers are flushed, and reads then pass again while frames flow.
    Grab(20);
    Command("fault camera0 BadAckCRC 8");
    Command("fault camera0 StaleRequestID 2");
    EXPECT_TRUE(Eventually([&] { return bad > 0; })) << "the fault arrived";
    const int goodBefore = good;
    EXPECT_TRUE(Eventually([&] { return good > goodBefore + 5; })) << "reads recover";
    Grab(50);
    done = true;
    reader.join();
    EXPECT_EQ(0, wrongPixels) << "frames flowed throughout";
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

// Faults of the control bus and of the driver while frames flow. A failed
// exchange with the camera ends the register access with "Could not submit
// transfer" at once; frames go on; once the fault is over, or the camera
// has been plugged in again, registers answer and the camera streams again.
TEST_F(ControlledAcquisition, BusAndDriverFaultsFailTheirCallAndTheCameraStreamsAgain)
{
    Start();
    Grab(10);
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &remote));
    auto readPort = LORUN_FN(GCReadPort);
    std::pair<GC_ERROR, std::string> failure;
    auto readWidth = [&] {
        std::uint32_t width = 0;
        size_t size = sizeof width;
        const GC_ERROR result = readPort(remote, 0x10200010, &width, &size);
        if (result != GC_ERR_SUCCESS)
            failure = producer.LastError();
        return result == GC_ERR_SUCCESS && width == 64;
    };
    const std::pair<GC_ERROR, std::string> notSubmitted{GC_ERR_ERROR,
                                                        "Could not submit transfer (Reason: -536870897)."};
    struct Case {
        const char* fault;
        const char* after; // what ends it: nothing, or a command
    } cases[] = {
        {"fault camera0 I2CReadFailure 1000000", "clear camera0"}, // the bus fails until it is mended
        {"fault camera0 I2CWriteFailure 40", nullptr},            // a burst of failed writes
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fault);
        failure = {};
        // Nothing talks to the camera until the fault is in force (Command
        // waits for it): an exchange that it caught between taking the
        // handshake and giving it back would leave the handshake taken, as the
        // stuck handshake below does, and every later exchange would fail
        // until the camera restarts.
        Command(c.fault);
        EXPECT_TRUE(Eventually([&] { return !readWidth(); })) << "the fault arrived";
        EXPECT_EQ(notSubmitted, failure);
        if (c.after)
            Command(c.after);
        EXPECT_TRUE(Eventually([&] { return readWidth(); }, std::chrono::seconds(20))) << "reads pass once it is over";
        Grab(10);
    }

    // A camera that takes a packet after the host stopped waiting (1.5 s), or
    // never: the host never sets the handshake idle again, so every later
    // exchange fails until the camera restarts (plugged in again here).
    // Frames go on meanwhile; opened again, it streams.
    for (const char* fault : {"fault camera0 HandshakeStuck 1 1500", "fault camera0 HandshakeStuck 1 0"}) {
        SCOPED_TRACE(fault);
        failure = {};
        Command(fault);
        EXPECT_TRUE(Eventually([&] { return !readWidth(); }));
        EXPECT_EQ(notSubmitted, failure);
        // Deliberately past the camera's late take, 1.5 s after the packet was sent.
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        EXPECT_FALSE(readWidth()) << "the handshake is left taken";
        Grab(10);
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
        Command("unplug camera0");
        ASSERT_TRUE(Eventually([&] { return AccessStatus() == DEVICE_ACCESS_STATUS_NOACCESS; }));
        Command("replug camera0");
        ASSERT_TRUE(Eventually([&] { return AccessStatus() == DEVICE_ACCESS_STATUS_READWRITE; }));
        OpenCamera();
        ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &remote));
        Start();
        Grab(10);
        EXPECT_TRUE(readWidth()) << failure.second;
    }

    // A stream that will not stop: the stop gives up waiting for the driver
    // after 200 ms and succeeds, and the camera can still be closed, opened
    // again and stream. The lost frame shows that the commands,
    // applied in order, have arrived.
    Command("fault camera0 StreamOffHangs 1\nfault camera0 IncompleteFrame 1");
    EXPECT_EQ(1u, MissingFrames(1));
    const auto stopping = Clock::now();
    EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT))
        << producer.LastError().second;
    EXPECT_GE(Clock::now() - stopping, std::chrono::milliseconds(190)) << "the stop waited for the driver in vain";
    EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevClose)(device));
    OpenCamera();
    Start();
    Grab(30);
    EXPECT_EQ(0, wrongPixels);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

TEST_F(Acquisition, CloseLibWithBuffersQueuedWhileAConsumerWaits)
{
    AnnounceAndQueue(3, 2);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    Grab(10);
    std::atomic<GC_ERROR> last{GC_ERR_SUCCESS};
    std::atomic<int> taken{0};
    ThreadId waiter{0};
    std::thread waiting([&] {
        MarkThisThread(waiter);
        auto getData = LORUN_FN(EventGetData);
        EVENT_NEW_BUFFER_DATA data{};
        for (;;) {
            size_t size = sizeof data;
            last = getData(newBuffer, &data, &size, GENTL_INFINITE);
            if (last != GC_ERR_SUCCESS)
                return; // the buffers are not queued again, so the wait is endless unless closing ends it
            ++taken;
        }
    });
    // Every buffer taken, the waiter asleep: it waits in its last EventGetData.
    EXPECT_TRUE(Eventually([&] { return taken == 5 && Asleep(waiter); }));
    EXPECT_EQ(GC_ERR_SUCCESS, producer.GCCloseLib());
    waiting.join();
    EXPECT_NE(GC_ERR_SUCCESS, last.load());
}

}

namespace {

// A board whose user pointers align to 16 bytes: the stream payload size
// alignment is 16.
class PayloadSizeModes : public Acquisition {
protected:
    PayloadSizeModes() : Acquisition(Setup{DefaultCamera, "usrptr_alignment = 16\n"}) {}

    std::uint32_t Read32(std::uint64_t address)
    {
        std::uint32_t value = 0;
        size_t size = sizeof value;
        EXPECT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCReadPort)(stream, address, &value, &size)) << producer.LastError().second;
        return value;
    }
    GC_ERROR Write(std::uint64_t address, std::uint64_t value, size_t size)
    {
        return LORUN_FN(GCWritePort)(stream, address, &value, &size);
    }

    static constexpr std::uint64_t Mode = 0x1090000, Alignment16 = 0x10A0000, ManualSize = 0x10B0000;
};

TEST_F(PayloadSizeModes, ManualSizeRulesAndAStreamOfALargerPayload)
{
    ASSERT_EQ(16u, Read64(stream, Alignment16));
    const std::uint64_t alignedUp = (payloadSize + 15) / 16 * 16;
    ASSERT_NE(alignedUp, payloadSize) << "the camera's payload is no multiple of 16 here";
    EXPECT_EQ(0u, Read32(Mode)) << "Auto";
    std::uint64_t manual = 0;
    size_t size = sizeof manual;
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, LORUN_FN(GCReadPort)(stream, ManualSize, &manual, &size))
        << "out of the reachable space outside Manual";
    EXPECT_EQ("Register not accessible.", producer.LastError().second);
    EXPECT_EQ(GC_ERR_INVALID_VALUE, Write(Mode, 3, 4));
    EXPECT_EQ(0u, Read32(Mode)) << "a refused mode leaves the register as it was";

    // With buffers announced, Manual starts from the smallest of them rounded
    // down to the alignment when that is more than the payload rounded up.
    const std::size_t bufferSize = alignedUp + 100;
    AnnounceAndQueue(3, 0, bufferSize);
    ASSERT_EQ(GC_ERR_SUCCESS, Write(Mode, 2, 4)) << producer.LastError().second;
    EXPECT_EQ(bufferSize / 16 * 16, Read64(stream, ManualSize)) << "not " << alignedUp;
    // A value the register refuses reaches the consumer as an invalid value.
    EXPECT_EQ(GC_ERR_INVALID_VALUE, Write(ManualSize, alignedUp + 8, 8)) << "not a multiple of 16";
    EXPECT_EQ("Value cannot be written to port.", producer.LastError().second);
    EXPECT_EQ(GC_ERR_INVALID_VALUE, Write(ManualSize, alignedUp - 16, 8)) << "below the payload size";
    ASSERT_EQ(GC_ERR_SUCCESS, Write(ManualSize, alignedUp, 8)) << producer.LastError().second;
    EXPECT_EQ(alignedUp, Read64(stream, ManualSize));

    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    EXPECT_EQ(GC_ERR_NOT_AVAILABLE, Write(ManualSize, alignedUp + 16, 8)) << "locked while streaming";
    Grab(50);
    EXPECT_EQ(0, wrongPixels);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));

    // Back in Auto, a buffer smaller than the payload stops the start.
    ASSERT_EQ(GC_ERR_SUCCESS, Write(Mode, 0, 4));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    RevokeAll();
    AnnounceAndQueue(2, 0, payloadSize - 4);
    EXPECT_EQ(GC_ERR_BUFFER_TOO_SMALL,
              LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    EXPECT_EQ("One or more buffers are too small for current stream payload size.", producer.LastError().second);
}

}

namespace {

// A revoked buffer's frame leaves libcsi with it: the same memory announced
// again after the camera's image grew streams at the new size.
TEST_F(Acquisition, TheSameMemoryRevokedAndAnnouncedAgainAfterTheImageChanged)
{
    constexpr std::size_t Slot = 65536;
    std::vector<std::uint8_t> arena(3 * Slot + Alignment);
    auto* first = arena.data() + (Alignment - reinterpret_cast<std::uintptr_t>(arena.data()) % Alignment) % Alignment;
    auto announce = [&] {
        for (std::size_t i = 0; i < 3; ++i) {
            BUFFER_HANDLE buffer = nullptr;
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSAnnounceBuffer)(stream, first + i * Slot, payloadSize,
                                                                 reinterpret_cast<void*>(i), &buffer))
                << producer.LastError().second;
            buffers.push_back(buffer);
            ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSQueueBuffer)(stream, buffer));
        }
    };
    announce();
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE));
    Grab(20);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSFlushQueue)(stream, ACQ_QUEUE_ALL_DISCARD));
    RevokeAll();

    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DevGetPort)(device, &remote));
    std::uint32_t taller = 400; // more IPU lines than the old frames had
    size_t size = sizeof taller;
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(GCWritePort)(remote, 0x10200014, &taller, &size)) << producer.LastError().second;
    height = taller;
    const size_t oldPayload = payloadSize;
    payloadSize = StreamInfo<size_t>(STREAM_INFO_PAYLOAD_SIZE);
    ASSERT_GT(payloadSize, oldPayload);
    ASSERT_LE(payloadSize, Slot);
    announce();
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStartAcquisition)(stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE))
        << producer.LastError().second;
    lastFrameId = 0;
    Grab(50);
    EXPECT_EQ(0, wrongPixels);
    ASSERT_EQ(GC_ERR_SUCCESS, LORUN_FN(DSStopAcquisition)(stream, ACQ_STOP_FLAGS_DEFAULT));
}

}
