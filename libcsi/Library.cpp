#include "libcsi/Boundary.h"
#include "libcsi/Library.h"
#include "libcsi/SafeFile.h"

#include "libcsi/Config.h"
#include "libcsi/Device.h"
#include "libcsi/Log.h"
#include "libcsi/NamedThread.h"

#include "Versions.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace QEL { namespace LibCSIImpl {

namespace {

std::mutex singletonMutex;
std::shared_ptr<Library> singleton;

void Publish(std::shared_ptr<Library> library)
{
    std::lock_guard<std::mutex> lock(singletonMutex);
    singleton = std::move(library);
}

void ReportFromLog(const char* text)
{
    if (auto library = CurrentLibrary())
        library->AddReport(text);
}

const bool sinkInstalled = (SetReportSink(&ReportFromLog), true);

// The shape of the two message threads: wait for a message, hand it to the
// callback without the lock, and end when the state asks for it.
template <class Message, class Deliver>
void MessageLoop(const std::shared_ptr<Library>& library, std::mutex& mutex, std::condition_variable& condition,
                 std::deque<std::shared_ptr<Message>>& queue, ThreadState& state, const char* name, Deliver deliver)
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        if (state != ThreadState::Running) {
            state = ThreadState::Stopped;
            condition.notify_all();
            lock.unlock();
            LIBCSI_LOG(TierTrace, "%s() ended.\n", name);
            return;
        }
        if (queue.empty()) {
            condition.wait(lock, [&] { return state != ThreadState::Running || !queue.empty(); });
            continue;
        }
        std::shared_ptr<Message> message = queue.front();
        queue.pop_front();
        lock.unlock();
        deliver(*message);
        lock.lock();
    }
}

void StopThread(std::mutex& mutex, std::condition_variable& condition, ThreadState& state, std::thread& thread)
{
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (state != ThreadState::Stopped) {
            state = ThreadState::StopRequested;
            condition.notify_all();
            condition.wait(lock, [&] { return state == ThreadState::Stopped; });
        }
    }
    if (thread.joinable())
        thread.join();
}

void ClosePipe(int (&fds)[2])
{
    for (int& fd : fds)
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
}

}

std::recursive_mutex& LibraryMutex()
{
    static std::recursive_mutex* mutex = new std::recursive_mutex;
    return *mutex;
}

std::shared_ptr<Library> CurrentLibrary()
{
    std::lock_guard<std::mutex> lock(singletonMutex);
    return singleton;
}

namespace {

std::mutex registryMutex;
std::map<const Device*, std::weak_ptr<Device>> registry;

}

void RegisterDevice(const std::shared_ptr<Device>& device)
{
    std::lock_guard<std::mutex> lock(registryMutex);
    for (auto it = registry.begin(); it != registry.end();)
        it = it->second.expired() ? registry.erase(it) : std::next(it);
    registry[device.get()] = device;
}

std::shared_ptr<Device> LiveDevice(const Device* handle)
{
    if (!handle)
        return nullptr;
    std::lock_guard<std::mutex> lock(registryMutex);
    const auto it = registry.find(handle);
    return it == registry.end() ? nullptr : it->second.lock();
}

int32_t DeviceAt(std::uint32_t index, std::shared_ptr<Library>& library, Device*& device)
{
    library = CurrentLibrary();
    if (!library)
        return LIBCSI_NOT_INITIALIZED;
    if (index >= library->devices.size())
        return LIBCSI_INVALID_DEVICE_INDEX;
    device = library->devices[index].get();
    return LIBCSI_OK;
}

void Library::AddReport(const std::string& text)
{
    std::shared_ptr<std::string> message;
    try {
        message = std::make_shared<std::string>(text.substr(0, 511));
    } catch (...) {
        std::fprintf(stderr, "%s: Failed to create message\n", "add_report_message");
        return;
    }
    std::lock_guard<std::mutex> lock(reportMutex);
    reportMessages.push_back(std::move(message));
    reportCondition.notify_all();
}

namespace {

std::uint32_t buildNumber = 0;

}

void GetVersion(std::uint32_t (&version)[4])
{
    version[0] = LIBCSI_VERSION_MAJOR;
    version[1] = LIBCSI_VERSION_MINOR;
    version[2] = LIBCSI_VERSION_PATCH;
    version[3] = buildNumber;
}

} }

using namespace QEL::LibCSIImpl;

extern "C" {

int32_t libcsi_get_version(uint32_t pVersion[4])
{
    return Exported(__func__, [&]() -> int32_t {
        if (!pVersion)
            return LIBCSI_INVALID_PARAMETER;
        std::uint32_t version[4];
        GetVersion(version);
        std::copy(version, version + 4, pVersion);
        return LIBCSI_OK;
    });
}

int32_t libcsi_init(void)
{
    return Exported(__func__, [&]() -> int32_t {
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        LIBCSI_LOG(TierTrace, "%s()\n", "libcsi_init");
        std::uint32_t version[4];
        GetVersion(version);
        LIBCSI_LOG(TierTrace, " libcsi version %u.%u.%u.%u, for driver release 1.0.8 and BCRM release 1.1.10\n", version[0],
                   version[1], version[2], version[3]);
        utsname system{};
        if (::uname(&system) == 0)
            LIBCSI_LOG(TierTrace, " %s %s %s %s %s\n", system.sysname, system.nodename, system.release, system.version,
                       system.machine);
        if (CurrentLibrary()) {
            LIBCSI_LOG(TierTrace, " %s() Already initialized.\n", "libcsi_init");
            return LIBCSI_OK;
        }
        auto library = std::make_shared<Library>();
        // The library is published only once its pipes exist: a failure leaves no half-built library behind.
        if (::pipe(library->stopDiscoveryPipe) != 0) {
            LIBCSI_LOG(TierError, " ERROR: Failed to create stop discovery pipe.\n");
            return LIBCSI_ERROR;
        }
        if (::pipe(library->updateDeviceListPipe) != 0) {
            LIBCSI_LOG(TierError, " ERROR: Failed to create update device list pipe.\n");
            ClosePipe(library->stopDiscoveryPipe);
            return LIBCSI_ERROR;
        }
        Publish(library);
        library->discoveryMessageThreadState = ThreadState::Running;
        library->discoveryMessageThread = StartNamedThread("csi-discovered", [library] {
            MessageLoop(library, library->discoveryMessageMutex, library->discoveryMessageCondition,
                        library->discoveryMessages, library->discoveryMessageThreadState,
                        "discovery_message_callback_thread_proc", [&](const DiscoveryMessage& message) {
                            libcsi_discovery_callback_t callback;
                            void* context;
                            {
                                std::lock_guard<std::mutex> lock(library->discoveryMessageMutex);
                                callback = library->discoveryCallback;
                                context = library->discoveryContext;
                            }
                            if (!callback)
                                return;
                            try {
                                const std::string portID = message.portID;
                                callback(context, portID.c_str(), message.available);
                            } catch (...) {
                                library->AddReport("Exception in discovery callback occured.");
                            }
                        });
        });
        library->reportThreadState = ThreadState::Running;
        library->reportThread = StartNamedThread("csi-reports", [library] {
            MessageLoop(library, library->reportMutex, library->reportCondition, library->reportMessages,
                        library->reportThreadState, "report_message_callback_thread_proc",
                        [&](const std::string& text) {
                            libcsi_report_callback_t callback;
                            void* context;
                            {
                                std::lock_guard<std::mutex> lock(library->reportMutex);
                                callback = library->reportCallback;
                                context = library->reportContext;
                            }
                            if (!callback)
                                return;
                            try {
                                callback(context, text.c_str());
                            } catch (...) {
                            }
                        });
        });
        library->discoveryThreadState = ThreadState::Running;
        library->discoveryThread = StartNamedThread("csi-discovery", [library] { DiscoveryThread(library); });
        const Config& config = TheConfig();
        if (config.dumpFrameTiming)
            if ((library->timingFile = OpenFileForWriting(config.PathOf("libcsi_timing.csv"), false))) {
                std::fprintf(library->timingFile,
                             "FrameInterval[us];BlockID;BufferFlags;LeaderTimestamp;MemcpyDuration[us]\r\n");
                std::fflush(library->timingFile);
            }
        if (config.dumpAcqStatistics)
            library->statisticsFile = OpenFileForWriting(config.PathOf("libcsi_acq_stat.txt"), false);
        return LIBCSI_OK;
    });
}

int32_t libcsi_deinit(void)
{
    return Exported(__func__, [&]() -> int32_t {
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        LIBCSI_LOG(TierTrace, "%s()\n", "libcsi_deinit");
        auto library = CurrentLibrary();
        if (!library) {
            LIBCSI_LOG(TierError, " %s ERROR: Not initialized.\n", "libcsi_deinit");
            return LIBCSI_NOT_INITIALIZED;
        }
        // Devices first: their frame threads end with them, those of an earlier list too.
        for (const auto& device : library->devices)
            libcsi_close_device(device.get());
        const auto stillOpen = library->openDevices;
        for (const auto& device : stillOpen)
            libcsi_close_device(device.get());
        library->openDevices.clear();
        library->devices.clear();
        {
            std::unique_lock<std::mutex> lock(library->discoveryMutex);
            while (library->discoveryThreadState != ThreadState::Stopped) {
                if (library->discoveryThreadState == ThreadState::StopRequested) {
                    library->discoveryCondition.wait(lock);
                    continue;
                }
                library->discoveryThreadState = ThreadState::StopRequested;
                library->discoveryCondition.notify_all();
                const std::uint32_t one = 1;
                if (::write(library->stopDiscoveryPipe[1], &one, sizeof one) != sizeof one) {
                    LIBCSI_LOG(TierError, " %s ERROR: Write m_nStopDiscoveryPipe failed (errno=%d, %s).\n",
                               "libcsi_deinit", errno, std::strerror(errno));
                    return LIBCSI_ERROR;
                }
            }
        }
        if (library->discoveryThread.joinable())
            library->discoveryThread.join();
        ClosePipe(library->stopDiscoveryPipe);
        ClosePipe(library->updateDeviceListPipe);
        StopThread(library->discoveryMessageMutex, library->discoveryMessageCondition,
                   library->discoveryMessageThreadState, library->discoveryMessageThread);
        // The report thread goes last: everything before it still reports.
        StopThread(library->reportMutex, library->reportCondition, library->reportThreadState, library->reportThread);
        if (library->timingFile)
            std::fclose(library->timingFile);
        if (library->statisticsFile)
            std::fclose(library->statisticsFile);
        Publish(nullptr);
        return LIBCSI_OK;
    });
}

}

namespace {

// Sets (or, with a null callback and `clear`, removes) one of the two callbacks under its mutex.
template <class Callback>
int32_t SetCallback(const char* function, Callback callback, void* context, bool clear,
                    std::mutex Library::*mutex, Callback Library::*slot, void* Library::*contextSlot)
{
    std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
    LIBCSI_LOG(TierTrace, "%s(pCallback=%p, pContext=%p)\n", function, reinterpret_cast<void*>(callback), context);
    if (!clear && !callback)
        return LIBCSI_INVALID_PARAMETER;
    auto library = CurrentLibrary();
    if (!library)
        return LIBCSI_NOT_INITIALIZED;
    std::lock_guard<std::mutex> lock((*library).*mutex);
    if (!clear && (*library).*slot)
        return LIBCSI_ALREADY_SET;
    (*library).*slot = callback;
    (*library).*contextSlot = context;
    return LIBCSI_OK;
}

}

extern "C" {

int32_t libcsi_register_discovery_callback(libcsi_discovery_callback_t pCallback, void* pContext)
{
    return Exported(__func__, [&]() -> int32_t {
        return SetCallback("libcsi_register_discovery_callback", pCallback, pContext, false,
                           &Library::discoveryMessageMutex, &Library::discoveryCallback, &Library::discoveryContext);
    });
}

int32_t libcsi_deregister_discovery_callback(void)
{
    return Exported(__func__, [&]() -> int32_t {
        return SetCallback<libcsi_discovery_callback_t>("libcsi_deregister_discovery_callback", nullptr, nullptr, true,
                                                        &Library::discoveryMessageMutex, &Library::discoveryCallback,
                                                        &Library::discoveryContext);
    });
}

int32_t libcsi_register_report_callback(libcsi_report_callback_t pCallback, void* pContext)
{
    return Exported(__func__, [&]() -> int32_t {
        return SetCallback("libcsi_register_report_callback", pCallback, pContext, false, &Library::reportMutex,
                           &Library::reportCallback, &Library::reportContext);
    });
}

int32_t libcsi_deregister_report_callback(void)
{
    return Exported(__func__, [&]() -> int32_t {
        return SetCallback<libcsi_report_callback_t>("libcsi_deregister_report_callback", nullptr, nullptr, true,
                                                     &Library::reportMutex, &Library::reportCallback,
                                                     &Library::reportContext);
    });
}

}
