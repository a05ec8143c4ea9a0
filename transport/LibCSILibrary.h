#pragma once

#include "support/Mutex.h"
#include "base/Object.h"
#include "transport/LibCSIWrapper_Impl.h"


#include <cstdint>
#include <memory>
#include <string>

namespace QEL {
namespace CSITools { class Logger; } // NOLINT(bugprone-forward-declaration-namespace): the media log
namespace LibCSI {

class Device;
class DeviceList;

// The camera bus as the driver handler sees it: a library, its device list
// and the devices on it. Everything it knows comes from libcsi through the wrapper.
class Library : public virtual System::Object, public std::enable_shared_from_this<Library> {
public:
    static std::shared_ptr<Library> Create(bool mediaLogEnabled, const std::string& mediaLogFileName);
    ~Library() override;

    LibCSIWrapper_Impl::DiscoverySignal& GetDiscoverySignal();
    std::shared_ptr<DeviceList> GetDeviceList(std::uint32_t id);
    // A device for one look at its identity; it opens nothing.
    std::shared_ptr<Device> CreateDevice(const std::string& key);
    // A device that the parent keeps company for as long as it lives.
    std::shared_ptr<Device> OpenDevice(const std::string& key, const std::shared_ptr<System::Object>& parent);

    // The media log, process-wide; every call is free of effect while it is off.
    static void MediaLogOpen(bool wanted, const std::string& path);
    static void MediaLog(const std::string& text);
    static void MediaLogFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void MediaLogDump(const std::string& text, const void* data, std::uint32_t length);
    static bool IsMediaLogActive();

private:
    Library() = default;
    void Initialise(bool mediaLogEnabled, const std::string& mediaLogFileName);

    System::Mutex mutex;
    bool initialised = false;
    std::shared_ptr<LibCSIWrapper_Impl> wrapper;
};

} }
