#pragma once

#include "support/Mutex.h"
#include "base/Object.h"
#include "transport/CSIInfo.h"
#include "transport/ChannelTransfer.h"

#include "support/Signal.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace QEL { namespace LibCSI {

// Channels of an open camera, as the endpoints number them.
enum Channel : std::int32_t {
    CONTROL_CHANNEL = 0,
    CONTROL_CHANNEL_IN = 1,
    ENDPOINT_MODE_SI = 2,
    EVENT_CHANNEL = 3,
    DEBUG_CHANNEL = 4,
    DEBUG_CHANNEL_2 = 5,
};

// The one class that calls libcsi. It turns libcsi's results and any exception
// out of it into log lines, return values or Base::Exceptions, and gives the
// discovery callback a C++ signal. One instance stands behind the library
// model for discovery, one behind each camera for the calls on it.
class LibCSIWrapper_Impl : public virtual System::Object, public std::enable_shared_from_this<LibCSIWrapper_Impl> {
public:
    using DiscoverySignal = Tools::Signal<void(const char*, unsigned char)>;
    using InfoTable = std::map<std::int32_t, std::shared_ptr<CSIInfo>>;

    LibCSIWrapper_Impl();
    ~LibCSIWrapper_Impl() override;

    // Library lifetime; the instance that ran Init runs Deinit when it dies.
    std::int32_t Init();
    std::int32_t Deinit();
    DiscoverySignal& GetDiscoverySignal() { return discoverySignal; }

    // Discovery.
    void GetDeviceList(InfoTable& out);
    bool GetDeviceInfo(const std::string& guid, std::shared_ptr<CSIInfo>& info);
    // libcsi_get_info for CSIInfo; `callName` names the call when libcsi throws.
    std::int32_t GetInfo(std::uint32_t index, std::int32_t id, std::int32_t* type, void* data, std::uint64_t* size,
                         const std::string& callName);

    // Opening and channels.
    std::int32_t OpenDevice(std::int32_t index, const std::string& guid);
    std::int32_t StartChannel(const std::string& guid, std::int32_t channel, lib_channel_transfer* transfer);
    void StopChannel(std::int32_t channel);
    void CloseDevice();
    void SetResetOnClose(const std::string& guid, bool reset);
    // Restarts the camera now; afterwards the open camera can only be closed.
    std::int32_t ResetDevice();
    bool IsOpen() const;

    // Control traffic.
    void SendControlCommand(ControlTransfer& transfer);
    void ReadControlAnswer(ControlTransfer& transfer);

    // Queries of the open camera; false or 0 when libcsi refused, outputs left alone.
    bool GetGenCPBufferSizes(std::uint32_t& in, std::uint32_t& out);
    std::uint32_t GetMaximumPacketSize();
    std::uint32_t GetMinAnnouncedFrames();
    bool GetIPURestrictions(std::uint32_t& xMin, std::uint32_t& xMax, std::uint32_t& xInc, std::uint32_t& yMin,
                            std::uint32_t& yMax, std::uint32_t& yInc, std::uint32_t& alignment);
    bool GetCSIConfig(std::uint8_t& laneCount, std::uint32_t& clockFrequency);
    bool SetCSIConfig(std::uint8_t& laneCount, std::uint32_t& clockFrequency);
    std::set<std::uint8_t> GetSupportedLaneCounts();
    std::set<std::uint32_t> GetSupportedDataIdentifiers();
    std::map<std::uint8_t, std::pair<std::uint32_t, std::uint32_t>> GetClockRanges();
    std::set<std::uint64_t> GetStatisticsCapability();
    std::uint32_t GetCCILinkSpeed();
    std::uint64_t GetDeliveredFrames();
    std::uint64_t GetCRCErrorFrames();
    std::uint64_t GetUnderrunCount();
    std::uint64_t GetIncompleteFrames();
    double GetFrameRate();
    void ResetStatistics();
    bool GetDriverVersion(std::string& version);
    bool GetLibraryVersion(std::string& version);
    bool GetApiVersion(std::string& version);
    std::int32_t SetLinkSpeed(std::uint32_t speed);

    // Frames; the record is the context libcsi gives back with the frame.
    frame_handle_t* AllocAndAnnounceFrame(std::uint32_t ipuX, std::uint32_t ipuY, FrameRecord* record);
    frame_handle_t* AnnounceFrame(std::uint32_t ipuX, std::uint32_t ipuY, FrameRecord* record);
    std::int32_t QueueFrame(FrameRecord* record);
    std::int32_t FlushFrames();
    std::int32_t RevokeFrame(frame_handle_t* frame);
    std::int32_t StartStream(std::uint8_t parameters, lib_channel_transfer* transfer);
    std::int32_t StopStream();

private:
    device_handle_t* RequireDevice(const char* message);
    libcsi_stream_statistics_t ReadStatistics();
    bool ExtVersion(std::int32_t id, std::string& version);

    static void OnDiscovery(void* context, const char* portID, bool available);
    static void OnReport(void* context, const char* message);
    static void OnFrame(void* context, frame_handle_t* frame, lib_frame_transfer* transfer, std::uint64_t userValue,
                        std::uint32_t status);

    std::shared_ptr<System::Mutex> deviceMutex;
    std::shared_ptr<System::Mutex> listMutex;
    std::int32_t deviceNumber = -1;
    bool controlChannelStarted = false;
    bool streamStarted = false;
    // Written under deviceMutex; read without it by calls that must not wait for a close.
    std::atomic<device_handle_t*> device{nullptr};
    std::string deviceGuid;
    DiscoverySignal discoverySignal;
    bool initialised = false;
    lib_channel_transfer* streamTransfer = nullptr;
};

} }
