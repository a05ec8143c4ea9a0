#include "SimHarness.h"

#include <boost/uuid/detail/sha1.hpp>

using namespace SimTest;
using namespace QEL::Sim::CameraMap;

namespace {

TEST(CciRegisters, LayoutAndModeSwitchWithItsDelay)
{
    Harness h;
    int fd = h.OpenNode();
    EXPECT_EQ(Gcprm, h.ReadCci(fd, CciGcprmAddress, 2));
    EXPECT_EQ(Bcrm, h.ReadCci(fd, CciBcrmAddress, 2));
    EXPECT_EQ(0x00010000u, h.ReadCci(fd, GcprmLayoutVersion, 4));
    EXPECT_EQ(GenCPOutBuffer, h.ReadCci(fd, GcprmOutBufferAddress, 2));
    EXPECT_EQ(GenCPInBuffer, h.ReadCci(fd, GcprmInBufferAddress, 2));
    std::uint8_t firmware[8];
    ASSERT_EQ(0, h.ReadI2C(fd, BcrmFirmwareVersion, firmware, 8));
    EXPECT_EQ(0x01, firmware[7]) << "big endian, low byte last";

    EXPECT_EQ(0u, h.ReadCci(fd, CciCurrentMode, 1));
    const auto start = std::chrono::steady_clock::now();
    h.WriteCci(fd, CciChangeMode, 1, 1);
    EXPECT_EQ(0u, h.ReadCci(fd, CciCurrentMode, 1)) << "the switch takes the camera a moment";
    ASSERT_TRUE(h.WaitFor(fd, CciCurrentMode, 1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));

    // A reset restarts the camera in its first mode.
    h.WriteCci(fd, CciReset, 1, 1);
    EXPECT_EQ(0u, h.ReadCci(fd, CciCurrentMode, 1));
}

TEST(GenCP, PacketsAreTakenOnlyInGenCPMode)
{
    Harness h;
    int fd = h.OpenNode();
    EXPECT_FALSE(h.Send(fd, Harness::ReadCommand(0x44, 64, 1), 50));
}

TEST(GenCP, ReadAndWriteMemoryWithChecksums)
{
    Harness h;
    int fd = h.OpenNode();
    h.EnterGenCPMode(fd);
    auto ack = h.Exchange(fd, Harness::ReadCommand(0x44, 64, 7));
    ASSERT_EQ(16u + 64, ack.size());
    EXPECT_TRUE(Harness::CrcValid(ack));
    EXPECT_EQ(0x0100, Harness::Field16(ack, 0));
    EXPECT_EQ(0x0000, Harness::Field16(ack, 8));
    EXPECT_EQ(ReadMemAck, Harness::Field16(ack, 10));
    EXPECT_EQ(64, Harness::Field16(ack, 12));
    EXPECT_EQ(7, Harness::Field16(ack, 14)) << "the request ID comes back";
    EXPECT_STREQ("Left Camera", reinterpret_cast<const char*>(&ack[16]));

    const std::uint32_t width = 128;
    auto writeAck = h.Exchange(fd, Harness::WriteCommand(Width, &width, 4, 8));
    ASSERT_EQ(20u, writeAck.size());
    EXPECT_EQ(WriteMemAck, Harness::Field16(writeAck, 10));
    EXPECT_EQ(4, Harness::Field16(writeAck, 18)) << "written length";
    EXPECT_EQ(128u, h.system->GetFirmware(0).ReadValue(Width));

    std::uint16_t status = 0;
    h.ReadMemory(fd, 0x0FFFFFF0, 4, &status);
    EXPECT_EQ(0x8003, status) << "unmapped memory";
    EXPECT_EQ(0x8004, h.WriteMemory(fd, WidthMax, &width, 4)) << "read-only register";
    const std::uint32_t odd = 13;
    EXPECT_EQ(0x8002, h.WriteMemory(fd, Width, &odd, 4)) << "a value the camera refuses";
    EXPECT_EQ(128u, h.system->GetFirmware(0).ReadValue(Width));
    h.ReadMemory(fd, 0, 2000, &status);
    EXPECT_EQ(0x8002, status) << "more than the in buffer holds";

    // A command with a wrong checksum is answered with an invalid header.
    auto broken = Harness::ReadCommand(0x44, 4, 9);
    broken[2] ^= 1;
    EXPECT_EQ(0x800E, Harness::Field16(h.Exchange(fd, broken), 8));
}

TEST(GenCP, BootstrapRegistersManifestAndDocument)
{
    Harness h;
    int fd = h.OpenNode();
    h.EnterGenCPMode(fd);
    auto read64 = [&](std::uint64_t address) {
        auto bytes = h.ReadMemory(fd, address, 8);
        std::uint64_t value = 0;
        std::memcpy(&value, bytes.data(), std::min<std::size_t>(8, bytes.size()));
        return value;
    };
    const std::uint64_t capability = read64(0x01C4);
    EXPECT_TRUE(capability & (1u << 9)) << "SBRM";
    EXPECT_TRUE(capability & (1u << 11)) << "written length";
    EXPECT_EQ(Sbrm, read64(0x01D8));
    const std::uint64_t manifest = read64(0x01D0);
    EXPECT_EQ(1u, read64(manifest));
    auto entry = h.ReadMemory(fd, manifest + 8, 64);
    ASSERT_EQ(64u, entry.size());
    std::uint64_t address, size;
    std::memcpy(&address, &entry[8], 8);
    std::memcpy(&size, &entry[16], 8);
    EXPECT_EQ(1, entry[7]) << "schema major";
    std::vector<std::uint8_t> document;
    while (document.size() < size) {
        auto block = h.ReadMemory(fd, address + document.size(),
                                  static_cast<std::uint16_t>(std::min<std::uint64_t>(1000, size - document.size())));
        ASSERT_FALSE(block.empty());
        document.insert(document.end(), block.begin(), block.end());
    }
    EXPECT_EQ(h.system->GetFirmware(0).GetXML(), std::string(document.begin(), document.end()));
    boost::uuids::detail::sha1 sha;
    sha.process_bytes(document.data(), document.size());
    boost::uuids::detail::sha1::digest_type words;
    sha.get_digest(words);
    for (int w = 0; w < 5; ++w)
        EXPECT_EQ(static_cast<std::uint8_t>(words[w] >> 24), entry[24 + 4 * w]) << "hash bytes in text order";

    EXPECT_EQ(Sirm, read64(Sbrm + 36));
    EXPECT_EQ(52u, read64(Sirm + 4) & 0xFFFFFFFF);
}

TEST(GenCP, InjectedFaults)
{
    Harness h;
    int fd = h.OpenNode();
    h.EnterGenCPMode(fd);
    h.system->InjectFault(0, Fault::BadAckCRC, 1);
    EXPECT_FALSE(Harness::CrcValid(h.Exchange(fd, Harness::ReadCommand(0x44, 4, 1))));
    EXPECT_TRUE(Harness::CrcValid(h.Exchange(fd, Harness::ReadCommand(0x44, 4, 2))));

    h.system->InjectFault(0, Fault::StaleRequestID, 1);
    EXPECT_EQ(2, Harness::Field16(h.Exchange(fd, Harness::ReadCommand(0x44, 4, 3)), 14));

    h.system->InjectFault(0, Fault::GenCPStatus, 1, 0x8007);
    EXPECT_EQ(0x8007, Harness::Field16(h.Exchange(fd, Harness::ReadCommand(0x44, 4, 4)), 8));

    h.system->InjectFault(0, Fault::PendingAck, 1, 60);
    auto pending = h.Exchange(fd, Harness::ReadCommand(0x44, 4, 5));
    EXPECT_EQ(PendingAck, Harness::Field16(pending, 10));
    EXPECT_EQ(60, Harness::Field16(pending, 18)) << "temporary timeout";
    auto final = h.Receive(fd);
    EXPECT_EQ(ReadMemAck, Harness::Field16(final, 10));
    EXPECT_EQ(5, Harness::Field16(final, 14));

    h.system->InjectFault(0, Fault::HandshakeStuck, 1, 0);
    EXPECT_FALSE(h.Send(fd, Harness::ReadCommand(0x44, 4, 6), 50)) << "the camera never takes the packet";
    h.system->GetFirmware(0); // the next packet waits for the idle handshake, which never comes back by itself
    h.WriteCci(fd, CciReset, 1, 1);
    h.EnterGenCPMode(fd);
    h.system->InjectFault(0, Fault::HandshakeStuck, 1, 40);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(h.Send(fd, Harness::ReadCommand(0x44, 4, 7)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40)) << "a slow handshake";
    h.Receive(fd);

    h.system->InjectFault(0, Fault::ShortSizeWrite, 1);
    std::uint8_t size[2] = {0, 28};
    EXPECT_EQ(3, h.WriteI2C(fd, GcprmOutSize, size, 2));
    h.system->InjectFault(0, Fault::I2CInterrupted, 1);
    std::uint8_t byte;
    EXPECT_EQ(-1, h.ReadI2C(fd, CciCurrentMode, &byte, 1));
    EXPECT_EQ(EINTR, errno);
    h.system->InjectFault(0, Fault::I2CWriteFailure, 1);
    EXPECT_EQ(-1, h.WriteI2C(fd, CciChangeMode, &byte, 1));
    EXPECT_EQ(EIO, errno);
    h.system->InjectFault(0, Fault::I2CReadFailure, 2);
    EXPECT_EQ(-1, h.ReadI2C(fd, CciCurrentMode, &byte, 1));
    EXPECT_EQ(-1, h.ReadI2C(fd, CciCurrentMode, &byte, 1));
    EXPECT_EQ(0, h.ReadI2C(fd, CciCurrentMode, &byte, 1));
}

TEST(ControlBus, TransfersCostTheirBusTime)
{
    Harness h("[camera0]\nbus_speed = 100000\n[camera1]\nnode = video1\nbus = 3\nbus_speed = 400000\n");
    auto timeOf = [&](const std::string& node) {
        int fd = h.OpenNode(node);
        std::vector<std::uint8_t> data(512);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, h.ReadI2C(fd, GenCPInBuffer, data.data(), 512));
        return std::chrono::steady_clock::now() - start;
    };
    // 516 bytes of nine clocks each: 46 ms at 100 kHz, 11.6 ms at 400 kHz.
    EXPECT_GE(timeOf("video0"), std::chrono::microseconds(46400));
    EXPECT_GE(timeOf("video1"), std::chrono::microseconds(11600));
}

}
