#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace QEL { namespace LibCSIImpl {

enum DeviceState : std::uint32_t { Closed = 0, Open = 1, Streaming = 2, Stopping = 3, Closing = 4, ResetRequested = 5 };

// One camera of the device list (device_handle_t).
struct Device {
    std::uint32_t state = Closed;
    int fileHandle = -1;
    std::mutex mutex;
    std::condition_variable stateCondition;

    std::uint8_t i2cPort = 255, i2cBus = 255, i2cAddress = 255;
    std::string devNode, sysNode, portID, interfaceName;
    std::int32_t driverVersion[4] = {0, 0, 0, 0};
};

// Reads an attribute of the camera's I2C client; the text up to the first
// line feed or 0xFF byte. False when it cannot be read.
bool ReadSysfs(std::uint8_t bus, std::uint8_t address, const char* name, std::string& text);

} }
