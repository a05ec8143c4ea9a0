#pragma once

#include "framework/BaseRoles.h"
#include "framework/BasicPort.h"
#include "support/BasicLockable.h"
#include "support/Settings.h"
#include "support/TrackableObject.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace QEL {
namespace Base { namespace GenCP { class ControlChannel; } }
namespace CSI {

using RemoteDeviceStack = Tools::TrackableObject<Base::BasicPort<Tools::BasicLockable<Base::RemoteDevice>>>;

// The port to the camera itself: its GenApi document, fetched, checked and
// cached on disk when it opens, and every other address passed straight to
// the camera through the control channel.
class RemoteDevice : public RemoteDeviceStack {
public:
    static std::shared_ptr<RemoteDevice> Create(const std::shared_ptr<Settings>& settings,
                                                const std::shared_ptr<Base::GenCP::ControlChannel>& controlChannel,
                                                const std::string& deviceId);
    RemoteDevice(const std::shared_ptr<Settings>& settings,
                 const std::shared_ptr<Base::GenCP::ControlChannel>& controlChannel, const std::string& deviceId);
    ~RemoteDevice() override;

    std::string GetTypeName() const { return "Device"; }
    std::int32_t GetHandleType() const override { return 4; }
    std::string GetPortName() const override { return "Device"; }
    Base::InfoPtr GetPortInfo(PORT_INFO_CMD command) const override;

    bool IsOpen() const { return open; }
    void Close();

private:
    using Bytes = std::vector<std::uint8_t>;
    struct Range {
        std::uint64_t address, size;
    };

    void Open();
    void AddOverride(std::vector<Range>& local);
    void AddFromManifest(std::vector<Range>& local);
    bool ReadCache(const std::string& hash, std::uint64_t size, const std::vector<std::uint8_t>& sha1, Bytes& bytes);
    bool ReadFromDevice(std::uint64_t address, std::uint64_t size, const std::vector<std::uint8_t>& sha1,
                        Bytes& bytes);
    void WriteCache(const std::string& hash, const Bytes& bytes);
    void SaveDebugCopy(const std::string& fileName, const Bytes& bytes);
    void AddDirectAccess(std::vector<Range> local);
    void AddDirectRegister(std::uint64_t address, std::uint64_t size);

    bool open = false;
    std::shared_ptr<Settings> settings;
    std::shared_ptr<Base::GenCP::ControlChannel> controlChannel;
    std::string deviceId;
};

} }
