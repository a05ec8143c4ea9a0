#include "client/Session.h"

#include <climits>
#include <cstdlib>

namespace LorunClient {

Session::Session(GenTLProducer& gentl) : producer(gentl)
{
    producer.RequireAll();
    producer.Check(producer.GCInitLib(), "GCInitLib");
    try {
        producer.Check(producer.TLOpen(&tl), "TLOpen");
        producer.Check(producer.TLUpdateInterfaceList(tl, nullptr, 1000), "TLUpdateInterfaceList");
        uint32_t count = 0;
        producer.Check(producer.TLGetNumInterfaces(tl, &count), "TLGetNumInterfaces");
        for (uint32_t i = 0; i < count; ++i) {
            const std::string id = TextOf(producer, "TLGetInterfaceID", [&](char* text, size_t* size) {
                return producer.TLGetInterfaceID(tl, i, text, size);
            });
            IF_HANDLE handle = nullptr;
            producer.Check(producer.TLOpenInterface(tl, id.c_str(), &handle), "TLOpenInterface " + id);
            interfaces.emplace_back(id, handle);
        }
    } catch (...) {
        Close();
        throw;
    }
}

Session::~Session() { Close(); }

void Session::Close()
{
    CloseDevice();
    for (auto& entry : interfaces)
        producer.IFClose(entry.second);
    interfaces.clear();
    if (tl)
        producer.TLClose(tl);
    tl = nullptr;
    producer.GCCloseLib();
}

void Session::CloseDevice()
{
    if (stream)
        producer.DSClose(stream);
    stream = nullptr;
    if (device)
        producer.DevClose(device);
    device = nullptr;
}

IF_HANDLE Session::FirstInterface() const
{
    if (interfaces.empty())
        throw ProducerError(GC_ERR_NOT_AVAILABLE, "The producer has no interface.");
    return interfaces.front().second;
}

std::vector<Session::Camera> Session::Cameras()
{
    std::vector<Camera> cameras;
    for (const auto& [interfaceId, handle] : interfaces) {
        producer.Check(producer.IFUpdateDeviceList(handle, nullptr, 1000), "IFUpdateDeviceList " + interfaceId);
        uint32_t count = 0;
        producer.Check(producer.IFGetNumDevices(handle, &count), "IFGetNumDevices " + interfaceId);
        for (uint32_t d = 0; d < count; ++d) {
            IF_HANDLE interface = handle;
            const std::string id = TextOf(producer, "IFGetDeviceID", [&](char* text, size_t* size) {
                return producer.IFGetDeviceID(interface, d, text, size);
            });
            cameras.push_back({id, handle, interfaceId});
        }
    }
    return cameras;
}

std::string Session::CameraInfo(const Camera& camera, DEVICE_INFO_CMD command)
{
    try {
        return TextOf(producer, "IFGetDeviceInfo", [&](char* text, size_t* size) {
            INFO_DATATYPE type = 0;
            return producer.IFGetDeviceInfo(camera.interface, camera.id.c_str(), command, &type, text, size);
        });
    } catch (const ProducerError&) {
        return "-";
    }
}

int32_t Session::CameraAccess(const Camera& camera)
{
    int32_t access = 0;
    size_t size = sizeof access;
    INFO_DATATYPE type = 0;
    const GC_ERROR rc = producer.IFGetDeviceInfo(camera.interface, camera.id.c_str(), DEVICE_INFO_ACCESS_STATUS,
                                                 &type, &access, &size);
    return rc == GC_ERR_SUCCESS && size == sizeof access ? access : -1;
}

void Session::OpenDevice(const std::string& id)
{
    if (device)
        return;
    for (const Camera& camera : Cameras()) {
        if (!id.empty() && camera.id != id)
            continue;
        producer.Check(producer.IFOpenDevice(camera.interface, camera.id.c_str(), DEVICE_ACCESS_CONTROL, &device),
                       "IFOpenDevice " + camera.id);
        deviceInterface = camera.interface;
        deviceId = camera.id;
        return;
    }
    throw ProducerError(GC_ERR_NOT_AVAILABLE, id.empty() ? "No camera found." : "No camera " + id + " found.");
}

void Session::OpenStream()
{
    if (stream)
        return;
    OpenDevice("");
    const std::string id = TextOf(producer, "DevGetDataStreamID", [&](char* text, size_t* size) {
        return producer.DevGetDataStreamID(device, 0, text, size);
    });
    producer.Check(producer.DevOpenDataStream(device, id.c_str(), &stream), "DevOpenDataStream " + id);
}

PORT_HANDLE Session::Port(const std::string& module)
{
    if (module == "system")
        return tl;
    if (module == "interface")
        return Interface();
    if (module == "device") {
        OpenDevice("");
        return device;
    }
    if (module == "remote") {
        OpenDevice("");
        PORT_HANDLE port = nullptr;
        producer.Check(producer.DevGetPort(device, &port), "DevGetPort");
        return port;
    }
    if (module == "stream") {
        OpenStream();
        return stream;
    }
    throw UsageError("unknown module '" + module + "' (system, interface, device, remote or stream)");
}

bool Session::DevicePresent()
{
    return deviceInterface && CameraPresent({deviceId, deviceInterface, {}});
}

bool Session::CameraPresent(const Camera& camera)
{
    if (producer.IFUpdateDeviceList(camera.interface, nullptr, 0) != GC_ERR_SUCCESS)
        return true; // cannot tell
    int32_t access = 0;
    size_t size = sizeof access;
    INFO_DATATYPE type = 0;
    const GC_ERROR rc =
        producer.IFGetDeviceInfo(camera.interface, camera.id.c_str(), DEVICE_INFO_ACCESS_STATUS, &type, &access, &size);
    if (rc == GC_ERR_INVALID_ID)
        return false;
    return rc != GC_ERR_SUCCESS || access != DEVICE_ACCESS_STATUS_NOACCESS;
}

namespace {

// The producer and its session, built and destroyed in that order.
struct ProducerAndSession {
    explicit ProducerAndSession(const std::string& path) : producer(path), session(producer) {}
    GenTLProducer producer;
    Session session;
};

std::mutex sharedMutex;
std::map<std::string, std::weak_ptr<ProducerAndSession>>* sharedSessions = nullptr; // never destroyed

// A process that ends with a shared session still open (a pipeline never
// freed) closes those libraries first, while the producers' own globals still
// live: their threads must stop before those globals go.
void CloseLeftSessions()
{
    const std::lock_guard<std::mutex> lock(sharedMutex);
    for (auto& entry : *sharedSessions)
        if (std::shared_ptr<ProducerAndSession> both = entry.second.lock())
            both->producer.GCCloseLib();
}

}

std::shared_ptr<Session> SharedSession(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(sharedMutex);
    const bool first = !sharedSessions;
    if (first)
        sharedSessions = new std::map<std::string, std::weak_ptr<ProducerAndSession>>();
    auto& open = *sharedSessions;
    // The same file under two names is one library to dlopen: key by the resolved path.
    char resolved[PATH_MAX];
    const std::string key = realpath(path.c_str(), resolved) ? resolved : path;
    std::shared_ptr<ProducerAndSession> both = open[key].lock();
    if (!both) {
        both = std::make_shared<ProducerAndSession>(key);
        open[key] = both;
        // After the first producer's globals were made, so that it runs before they go.
        if (first)
            std::atexit(CloseLeftSessions);
    }
    return std::shared_ptr<Session>(both, &both->session);
}

}
