#include "libcsi/Device.h"
#include "libcsi/OsSeam.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace QEL { namespace LibCSIImpl {

bool ReadRegister(const Device& device, std::uint16_t address, void* data, std::uint32_t size)
{
    qel_i2c_access access{address, reinterpret_cast<std::uintptr_t>(data), 2, size};
    int result;
    do
        result = Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_R_I2C, &access);
    while (result < 0 && errno == EINTR);
    return result >= 0;
}

int WriteRegister(const Device& device, std::uint16_t address, const void* data, std::uint32_t size)
{
    qel_i2c_access access{address, reinterpret_cast<std::uintptr_t>(data), 2, size};
    return Os::Current().Ioctl(device.m_nFileHandle, VIDIOC_W_I2C, &access);
}

bool ReadValue(const Device& device, std::uint16_t address, std::uint32_t size, std::uint64_t& value)
{
    std::uint8_t bytes[8] = {};
    if (size > sizeof bytes || !ReadRegister(device, address, bytes, size))
        return false;
    value = 0;
    for (std::uint32_t i = 0; i < size; ++i)
        value = value << 8 | bytes[i];
    return true;
}

int WriteValue(const Device& device, std::uint16_t address, std::uint64_t value, std::uint32_t size)
{
    std::uint8_t bytes[8];
    for (std::uint32_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(value >> (8 * (size - 1 - i)));
    return WriteRegister(device, address, bytes, size);
}

bool WaitForRegister(const Device& device, std::uint16_t address, std::uint8_t expected, std::uint32_t timeoutMs)
{
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        std::uint8_t value = 0xFF;
        if (!ReadRegister(device, address, &value, 1))
            value = 0xFF;
        if (value == expected)
            return true;
        const auto elapsed = static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
        if (elapsed > timeoutMs)
            return false;
        if (elapsed >= 111)
            std::this_thread::sleep_for(std::chrono::microseconds(100000));
        else if (elapsed > 10)
            std::this_thread::sleep_for(std::chrono::microseconds(10000));
    }
}

} }
