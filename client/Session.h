#pragma once

// What a consumer opens, in order, and closes in the reverse order: the
// library, the transport layer, its interfaces, one camera and its stream.
#include "client/GenTLProducer.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace LorunClient {

class Session {
public:
    explicit Session(GenTLProducer& producer);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    struct Camera {
        std::string id;
        IF_HANDLE interface = nullptr;
        std::string interfaceId;
    };
    // The cameras of every interface, lists updated.
    std::vector<Camera> Cameras();
    // A text of the camera's device info (vendor, model, serial number, ...),
    // "-" when the producer has none.
    std::string CameraInfo(const Camera& camera, DEVICE_INFO_CMD command);
    // The camera's DEVICE_INFO_ACCESS_STATUS, or -1 when unknown.
    int32_t CameraAccess(const Camera& camera);
    // False once the camera's interface no longer lists it or reports it
    // without access (pulled out); true when it cannot tell.
    bool CameraPresent(const Camera& camera);

    // Opens the camera `id` for control, or the first one when `id` is empty.
    void OpenDevice(const std::string& id);
    void OpenStream();
    // The port of a module: system, interface, device, remote or stream; opens
    // the first camera and its stream when they are not open yet.
    PORT_HANDLE Port(const std::string& module);

    const std::vector<std::pair<std::string, IF_HANDLE>>& Interfaces() const { return interfaces; }
    GenTLProducer& Producer() { return producer; }
    TL_HANDLE System() const { return tl; }
    IF_HANDLE Interface() const { return deviceInterface ? deviceInterface : FirstInterface(); }
    DEV_HANDLE Device() const { return device; }
    DS_HANDLE Stream() const { return stream; }
    const std::string& DeviceId() const { return deviceId; }
    // False once the interface reports the open camera gone.
    bool DevicePresent();
    // Closes the stream, then the device.
    void CloseDevice();

private:
    IF_HANDLE FirstInterface() const;
    void Close();

    GenTLProducer& producer;
    TL_HANDLE tl = nullptr;
    std::vector<std::pair<std::string, IF_HANDLE>> interfaces;
    IF_HANDLE deviceInterface = nullptr;
    std::string deviceId;
    DEV_HANDLE device = nullptr;
    DS_HANDLE stream = nullptr;
};

// One session per producer file and process, shared by everyone who asks
// for it while one is alive: a producer's library is initialised once per
// process. The last owner closes it and unloads the producer.
std::shared_ptr<Session> SharedSession(const std::string& path);

}
