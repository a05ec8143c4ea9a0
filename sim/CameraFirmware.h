#pragma once

#include "sim/CameraDescription.h"
#include "sim/Faults.h"
#include "sim/MemoryMap.h"
#include "sim/PixelFormats.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <vector>

namespace QEL { namespace Sim {

// The firmware of one virtual camera: the CCI registers on its control bus,
// the GenCP target behind the handshake registers, its memory (bootstrap
// registers, manifest, GenApi document, features) and the frames it sends.
class CameraFirmware {
public:
    using Clock = std::chrono::steady_clock;

    CameraFirmware(const CameraDescription& description, FaultPlan& faults);

    // One I2C transfer at a 16-bit register address; returns 0 or an errno value.
    int ReadCCI(std::uint16_t address, std::uint8_t* data, std::size_t size);
    int WriteCCI(std::uint16_t address, const std::uint8_t* data, std::size_t size);

    // The image the camera would send now.
    struct FrameGeometry {
        std::uint32_t width, height, offsetX, offsetY;
        const PixelFormat* format;
        std::uint32_t pattern;
        std::uint64_t imageBytes;   // the image
        std::uint64_t validBytes;   // valid payload: the image, or the image and its chunks
        std::uint64_t payloadSize;  // valid payload padded to the IPU geometry
        std::uint32_t ipuX, ipuY;
    };
    FrameGeometry Geometry();

    // True while the camera is acquiring (AcquisitionStart, or the stream enabled in its SIRM).
    bool IsAcquiring();
    double FrameRate();

    // Writes leader, payload and trailer into `buffer` of `size` bytes; false
    // when the frame did not fit (the buffer then holds what did).
    bool RenderFrame(std::uint8_t* buffer, std::size_t size, std::uint64_t blockID, std::uint64_t timestamp);
    // With prepared frames: buffers may have been given other memory; their images are drawn anew.
    void ForgetPreparedBuffers();
    // What the camera sends round each payload: 52 and 32 bytes, or nothing.
    std::uint64_t LeaderSize() const;
    std::uint64_t TrailerSize() const;

    // Direct access for tests and for the driver's bookkeeping.
    std::uint64_t ReadValue(std::uint64_t address);
    void WriteValue(std::uint64_t address, std::uint64_t value);
    std::uint8_t GetDeviceMode();
    const std::string& GetXML() const { return xml; }
    const CameraDescription& GetDescription() const { return description; }
    void StartAcquisition();
    void StopAcquisition();
    // As after power-on: mode, GenCP handshakes and answers, acquisition, and
    // the settings back at the description's values.
    void PowerCycle();

    // The settings registers a powered camera keeps (image format, offsets,
    // pixel format, exposure, gain, frame rate, test pattern, acquisition
    // mode, user name): address and bytes of those that differ from the
    // description's values.
    using KeptValues = std::map<std::uint64_t, std::vector<std::uint8_t>>;
    // The description's values, then `values` written back as a host's writes
    // would be checked, in whatever order lets each pass (an offset may need
    // its width first): the settings as another process left them. Returns the
    // addresses refused, which keep the description's values. The keeper is
    // not told.
    std::vector<std::uint64_t> ReplaceKeptValues(const KeptValues& values);
    // The settings back at the description's values, as after a reset.
    void RestoreDescription();
    // Told the kept values, outside the camera's lock, whenever a host's write
    // or a reset changed them; one call at a time, in the order of the changes.
    void SetKeeper(std::function<void(const KeptValues&)> keeper);
    // Counts of GenCP commands served, for tests.
    std::uint64_t GetCommandCount();
    // Bytes that went over the control bus, addresses and data.
    std::uint64_t GetBusBytes() const { return busBytes.load(); }
    // Bytes of the manifest's documents that GenCP reads answered.
    std::uint64_t GetDocumentBytesRead() const { return documentBytesRead.load(); }

private:
    struct PendingAnswer {
        std::vector<std::uint8_t> packet;
        Clock::time_point readyAt;
    };

    FrameGeometry ComputeGeometry();
    int ServeCCIRead(std::uint16_t address, std::uint8_t* data, std::size_t size);
    int ServeCCIWrite(std::uint16_t address, const std::uint8_t* data, std::size_t size);
    KeptValues KeptValuesLocked();
    void ResetKeptLocked();
    std::vector<std::uint64_t> RestoreKeptLocked(const KeptValues& values);
    // Tells the keeper of kept values that changed; takes the locks itself.
    void PassKeptOn();
    // True when `frame` already holds the image of geometry `g`; remembers it otherwise.
    bool ImagePrepared(const std::uint8_t* frame, const FrameGeometry& g);
    void BuildMemory();
    void ResetState();
    // Brings time-driven state up to date: mode switches, taken packets, answers.
    void Advance();
    void TakeOutPacket();
    std::vector<std::uint8_t> Serve(const std::vector<std::uint8_t>& command, std::uint16_t& requestId);
    std::vector<std::uint8_t> Answer(std::uint16_t status, std::uint16_t commandId, std::uint16_t requestId,
                                     const std::vector<std::uint8_t>& payload);
    void BusDelay(std::size_t bytes);
    // Counts the document bytes in a read's answer; DocumentCorrupt changes a document's first byte.
    void ReadOfDocuments(std::uint64_t address, std::vector<std::uint8_t>& answer);
    std::uint32_t CciValue(std::uint16_t address, std::size_t size);
    void SetCciValue(std::uint16_t address, std::size_t size, std::uint32_t value);

    const CameraDescription description;
    FaultPlan& faults;
    std::mutex mutex;
    std::vector<std::uint8_t> cci;
    MemoryMap memory;
    std::string xml;

    std::uint8_t mode = 0;
    std::uint8_t targetMode = 0;
    Clock::time_point modeReadyAt{};
    Clock::time_point packetTakenAt{};
    bool packetWaiting = false;
    bool handshakeStuck = false;
    std::deque<PendingAnswer> answers;
    bool acquiring = false;
    std::uint64_t commands = 0;
    std::map<std::uint32_t, std::uint32_t> asic;
    std::atomic<std::uint64_t> busBytes{0};
    struct DocumentRange {
        std::uint64_t address, size;
    };
    std::vector<DocumentRange> documents;
    std::atomic<std::uint64_t> documentBytesRead{0};
    KeptValues described;                   // the kept registers as the description sets them
    std::atomic<bool> keptChanged{false};
    std::mutex keeperMutex;                 // taken before `mutex`: keeps the keeper's calls in order
    std::function<void(const KeptValues&)> keeper;
    // Bus time the transfers have taken but not yet slept (negative: slept too long).
    std::mutex busMutex;
    std::chrono::nanoseconds busTimeOwed{0};
    // Prepared frames: the buffers that hold the image of `preparedGeometry`.
    std::mutex preparedMutex;
    std::set<const std::uint8_t*> preparedBuffers;
    std::uint64_t preparedGeometry = 0;
};

std::uint32_t GenCPCrc32(const std::uint8_t* data, std::size_t size);

} }
