#pragma once

// Drives the virtual camera through the OS seam exactly as libcsi does:
// descriptors, ioctls, sysfs attributes and the GenCP handshake.
#include "libcsi/include/libcsi/qel_csi2_driver.h"
#include "sim/CameraFirmware.h"
#include "sim/CameraMap.h"
#include "sim/VirtualSystem.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/videodev2.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace SimTest {

using namespace QEL::Sim;

inline const char* kTwoCameras = R"(
[system]
board = imx8m
usrptr_alignment = 256
min_announced_frames = 2

[camera0]
node = video0
port = 2
bus = 2
address = 0x3c
model = Left Camera
width = 64
height = 16
frame_rate = 0
bus_timing = 0
mode_switch_delay_ms = 30

[camera1]
node = video1
port = 3
bus = 3
address = 0x3c
serial_number = RIGHT-2
pixel_format = Mono10p
width = 32
height = 8
frame_rate = 200
bus_timing = 0
)";

class Harness {
public:
    explicit Harness(const char* description = kTwoCameras)
        : system(std::make_shared<VirtualSystem>(SystemDescription::FromText(description)))
    {
    }
    ~Harness()
    {
        for (int fd : opened)
            system->Close(fd);
    }

    int OpenNode(const std::string& node = "video0")
    {
        int fd = system->Open(("/dev/" + node).c_str(), O_RDWR | O_NONBLOCK);
        EXPECT_GE(fd, 0);
        opened.push_back(fd);
        return fd;
    }

    std::string ReadAttribute(const std::string& path)
    {
        int fd = system->Open(path.c_str(), O_RDONLY);
        if (fd < 0)
            return "<missing>";
        char text[256] = {};
        ssize_t n = system->Read(fd, text, sizeof text - 1);
        system->Close(fd);
        return n < 0 ? "<unreadable>" : std::string(text, static_cast<std::size_t>(n));
    }

    int ReadI2C(int fd, std::uint16_t address, void* data, std::uint32_t size)
    {
        qel_i2c_access access{address, reinterpret_cast<std::uintptr_t>(data), 2, size};
        return system->Ioctl(fd, VIDIOC_R_I2C, &access);
    }

    int WriteI2C(int fd, std::uint16_t address, const void* data, std::uint32_t size)
    {
        qel_i2c_access access{address, reinterpret_cast<std::uintptr_t>(data), 2, size};
        return system->Ioctl(fd, VIDIOC_W_I2C, &access);
    }

    std::uint32_t ReadCci(int fd, std::uint16_t address, std::uint32_t size)
    {
        std::uint8_t bytes[4] = {};
        EXPECT_EQ(0, ReadI2C(fd, address, bytes, size));
        std::uint32_t value = 0;
        for (std::uint32_t i = 0; i < size; ++i)
            value = value << 8 | bytes[i];
        return value;
    }

    void WriteCci(int fd, std::uint16_t address, std::uint32_t value, std::uint32_t size)
    {
        std::uint8_t bytes[4];
        for (std::uint32_t i = 0; i < size; ++i)
            bytes[i] = static_cast<std::uint8_t>(value >> (8 * (size - 1 - i)));
        EXPECT_EQ(static_cast<int>(size + 2), WriteI2C(fd, address, bytes, size));
    }

    // Polls a one-byte register until it reads `value`; false after `timeoutMs`.
    bool WaitFor(int fd, std::uint16_t address, std::uint8_t value, int timeoutMs = 1000)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        do {
            if (ReadCci(fd, address, 1) == value)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } while (std::chrono::steady_clock::now() < end);
        return false;
    }

    void EnterGenCPMode(int fd)
    {
        WriteCci(fd, CameraMap::CciChangeMode, 1, 1);
        ASSERT_TRUE(WaitFor(fd, CameraMap::CciCurrentMode, 1));
    }

    static std::vector<std::uint8_t> Packet(std::uint16_t commandId, std::uint16_t requestId,
                                            const std::vector<std::uint8_t>& payload)
    {
        std::vector<std::uint8_t> packet(16 + payload.size(), 0);
        auto put16 = [&](std::size_t at, std::uint16_t v) {
            packet[at] = static_cast<std::uint8_t>(v);
            packet[at + 1] = static_cast<std::uint8_t>(v >> 8);
        };
        put16(0, 0x0100);
        put16(8, 0x4000);
        put16(10, commandId);
        put16(12, static_cast<std::uint16_t>(payload.size()));
        put16(14, requestId);
        std::copy(payload.begin(), payload.end(), packet.begin() + 16);
        const std::uint32_t crc = GenCPCrc32(packet.data() + 6, packet.size() - 6);
        std::memcpy(&packet[2], &crc, 4);
        return packet;
    }

    static std::vector<std::uint8_t> ReadCommand(std::uint64_t address, std::uint16_t length, std::uint16_t id)
    {
        std::vector<std::uint8_t> payload(12, 0);
        std::memcpy(&payload[0], &address, 8);
        std::memcpy(&payload[10], &length, 2);
        return Packet(CameraMap::ReadMemCmd, id, payload);
    }

    static std::vector<std::uint8_t> WriteCommand(std::uint64_t address, const void* data, std::size_t size,
                                                  std::uint16_t id)
    {
        std::vector<std::uint8_t> payload(8 + size, 0);
        std::memcpy(&payload[0], &address, 8);
        std::memcpy(&payload[8], data, size);
        return Packet(CameraMap::WriteMemCmd, id, payload);
    }

    // The host side of the handshake: send a packet; false when the camera did not take it.
    bool Send(int fd, const std::vector<std::uint8_t>& packet, int timeoutMs = 500)
    {
        if (!WaitFor(fd, CameraMap::GcprmOutHandshake, 0, timeoutMs))
            return false;
        EXPECT_EQ(static_cast<int>(packet.size() + 2),
                  WriteI2C(fd, CameraMap::GenCPOutBuffer, packet.data(), static_cast<std::uint32_t>(packet.size())));
        WriteCci(fd, CameraMap::GcprmOutSize, static_cast<std::uint32_t>(packet.size()), 2);
        WriteCci(fd, CameraMap::GcprmOutHandshake, 1, 1);
        if (!WaitFor(fd, CameraMap::GcprmOutHandshake, 2, timeoutMs))
            return false;
        WriteCci(fd, CameraMap::GcprmOutHandshake, 0, 1);
        return true;
    }

    // Fetches the next acknowledge; empty when none came.
    std::vector<std::uint8_t> Receive(int fd, int timeoutMs = 500)
    {
        if (!WaitFor(fd, CameraMap::GcprmInHandshake, 1, timeoutMs))
            return {};
        const std::uint32_t size = ReadCci(fd, CameraMap::GcprmInSize, 2);
        std::vector<std::uint8_t> packet(size);
        EXPECT_EQ(0, ReadI2C(fd, CameraMap::GenCPInBuffer, packet.data(), size));
        WriteCci(fd, CameraMap::GcprmInHandshake, 2, 1);
        EXPECT_TRUE(WaitFor(fd, CameraMap::GcprmInHandshake, 2));
        WriteCci(fd, CameraMap::GcprmInHandshake, 0, 1);
        return packet;
    }

    std::vector<std::uint8_t> Exchange(int fd, const std::vector<std::uint8_t>& packet)
    {
        EXPECT_TRUE(Send(fd, packet));
        return Receive(fd);
    }

    static std::uint16_t Field16(const std::vector<std::uint8_t>& packet, std::size_t at)
    {
        return static_cast<std::uint16_t>(packet.at(at) | packet.at(at + 1) << 8);
    }

    static bool CrcValid(const std::vector<std::uint8_t>& packet)
    {
        std::uint32_t crc;
        std::memcpy(&crc, &packet.at(2), 4);
        return crc == GenCPCrc32(packet.data() + 6, packet.size() - 6);
    }

    // Reads camera memory through GenCP; the acknowledge's payload.
    std::vector<std::uint8_t> ReadMemory(int fd, std::uint64_t address, std::uint16_t length, std::uint16_t* status = nullptr)
    {
        auto ack = Exchange(fd, ReadCommand(address, length, ++requestId));
        if (ack.size() < 16)
            return {};
        if (status)
            *status = Field16(ack, 8);
        return std::vector<std::uint8_t>(ack.begin() + 16, ack.end());
    }

    std::uint16_t WriteMemory(int fd, std::uint64_t address, const void* data, std::size_t size)
    {
        auto ack = Exchange(fd, WriteCommand(address, data, size, ++requestId));
        return ack.size() >= 16 ? Field16(ack, 8) : 0xFFFF;
    }

    std::shared_ptr<VirtualSystem> system;
    std::vector<int> opened;
    std::uint16_t requestId = 0;
};

}
