#pragma once

#include "libcsi/include/libcsi/libcsi.h"
#include "libcsi/States.h"

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct libcsi_device_handle;

namespace QEL { namespace LibCSIImpl {

using Device = ::libcsi_device_handle;


struct DiscoveryMessage {
    std::string portID;
    bool available;
};

// The singleton of an initialised library (libcsi_t).
struct Library {
    std::vector<std::shared_ptr<Device>> devices;
    // Open devices stay alive until they are closed, whatever becomes of the list.
    std::set<std::shared_ptr<Device>> openDevices;
    std::deque<std::shared_ptr<DiscoveryMessage>> discoveryMessages;
    std::deque<std::shared_ptr<std::string>> reportMessages;
    std::map<std::string, std::string> portMap; // SysNode to PortID

    std::mutex discoveryMessageMutex;
    std::condition_variable discoveryMessageCondition;
    std::mutex reportMutex;
    std::condition_variable reportCondition;
    std::mutex discoveryMutex;
    std::condition_variable discoveryCondition;
    ThreadState discoveryMessageThreadState = ThreadState::Stopped;
    ThreadState reportThreadState = ThreadState::Stopped;
    ThreadState discoveryThreadState = ThreadState::Stopped;

    libcsi_discovery_callback_t discoveryCallback = nullptr;
    void* discoveryContext = nullptr;
    libcsi_report_callback_t reportCallback = nullptr;
    void* reportContext = nullptr;

    int stopDiscoveryPipe[2] = {-1, -1};
    int updateDeviceListPipe[2] = {-1, -1};
    std::FILE* timingFile = nullptr;
    std::FILE* statisticsFile = nullptr;

    // The background threads are joined once they have announced their end.
    std::thread discoveryMessageThread, reportThread, discoveryThread;

    void AddReport(const std::string& text);
};

// The library mutex: held for the body of nearly every exported function.
std::recursive_mutex& LibraryMutex();

// The four version words: major, minor, patch from the build, and the build
// word, a process-wide variable that stays 0.
void GetVersion(std::uint32_t (&version)[4]);
// The singleton, or null while the library is closed.
std::shared_ptr<Library> CurrentLibrary();

// Every device libcsi made, by handle. A handle that names no live device
// (its list entry replaced and closed, or the library gone) gives null, so
// that a call refuses it instead of touching freed memory; the result holds
// the device for the length of the call.
void RegisterDevice(const std::shared_ptr<Device>& device);
std::shared_ptr<Device> LiveDevice(const Device* handle);

void DiscoveryThread(std::shared_ptr<Library> library);

// The library and the device at `index` of its list: LIBCSI_OK, or the refusal.
int32_t DeviceAt(std::uint32_t index, std::shared_ptr<Library>& library, Device*& device);

// The device of a handle in the device list, or null for a handle that is none of them.
std::shared_ptr<Device> FindDevice(const Library& library, const Device* handle);

} }
