#include "gencp/AckException.h"
#include "gencp/CCIPacket.h"
#include "gencp/Commands.h"
#include "gencp/Crc32.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace QEL::Base;
using namespace QEL::Base::GenCP;

namespace {

TEST(GenCPCrc32, ReflectedWithoutFinalInversion)
{
    const char* check = "123456789";
    EXPECT_EQ(0x340BC6D9u, Crc32(reinterpret_cast<const std::uint8_t*>(check), 9)) << "the standard check value, not inverted";
}

TEST(GenCPPackets, ReadAndWriteCommandsOnTheWire)
{
    auto packet = std::make_shared<CCIPacket>(12);
    ReadMemoryCommand read(packet);
    read.SetAddress(0x1CC);
    read.SetSize(4);
    packet->SetFlags(Flags::RequestAck);
    packet->SetRequestId(7);
    packet->Seal();
    const auto& bytes = packet->GetBytes();
    ASSERT_EQ(28u, bytes.size());
    const std::uint8_t header[] = {0x00, 0x01};
    EXPECT_EQ(0, std::memcmp(header, bytes.data(), 2)) << "preamble 0x0100, little endian";
    EXPECT_EQ(12, bytes[12]);
    EXPECT_EQ(0x00, bytes[10]);
    EXPECT_EQ(0x08, bytes[11]) << "command 0x0800";
    EXPECT_EQ(0x40, bytes[9]) << "flags 0x4000";
    EXPECT_EQ(0xCC, bytes[16]);
    EXPECT_EQ(0x01, bytes[17]);
    EXPECT_EQ(4, bytes[26]);
    EXPECT_TRUE(packet->HasValidCrc());
    packet->SetRequestId(8);
    EXPECT_FALSE(packet->HasValidCrc()) << "the CRC covers the request ID";

    auto writePacket = std::make_shared<CCIPacket>(4 + 8);
    WriteMemoryCommand write(writePacket);
    write.SetAddress(0x10200010);
    EXPECT_EQ(4u, write.GetDataSize());
    const std::uint32_t value = 640;
    std::memcpy(write.GetData(), &value, 4);
    writePacket->Seal();
    EXPECT_EQ(28u, writePacket->GetBytes().size());
    EXPECT_EQ(0x0802, writePacket->GetCommandId());
}

TEST(GenCPPackets, TypedViewsRefuseWrongPackets)
{
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No packet passed."), Failure([] { ReadMemoryCommand(nullptr); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid packet size for GenCP."),
              Failure([] { ReadMemoryCommand(std::make_shared<CCIPacket>(8)); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid packet size for GenCP."),
              Failure([] { WriteMemoryCommand(std::make_shared<CCIPacket>(8)); }));
    auto ack = std::make_shared<CCIPacket>(4);
    ack->SetCommandId(0x0801);
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Packet has no pending acknowledge command ID."),
              Failure([&] { PendingAcknowledge{ack}; }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Packet has no write memory acknowledge command ID."),
              Failure([&] { WriteMemoryAcknowledge<true>{ack}; }));
    EXPECT_NO_THROW(ReadMemoryAcknowledge{ack});
    ack->SetCommandId(0x0803);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Packet size invalid for write memory acknowledge."),
              Failure([&] { WriteMemoryAcknowledge<false>{ack}; }));
    ack->GetPayload()[2] = 4;
    EXPECT_EQ(4, WriteMemoryAcknowledge<true>(ack).GetWrittenSize());
    ack->SetCommandId(0x0805);
    ack->GetPayload()[2] = 0xF4;
    ack->GetPayload()[3] = 0x01;
    EXPECT_EQ(500, PendingAcknowledge(ack).GetTemporaryTimeout());
    auto longer = std::make_shared<CCIPacket>(6);
    longer->SetCommandId(0x0805);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Packet size invalid for pending acknowledge."),
              Failure([&] { PendingAcknowledge{longer}; }));
}

TEST(GenCPPackets, ReceivedBytesAreChecked)
{
    std::uint8_t bytes[20] = {};
    bytes[12] = 4;
    EXPECT_NO_THROW(CCIPacket(bytes, 20));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid packet size passed."), Failure([&] { CCIPacket(bytes, 15); }));
    bytes[12] = 5;
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid packet length found."), Failure([&] { CCIPacket(bytes, 20); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No packet data."), Failure([&] { CCIPacket(nullptr, 20); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid payload size passed."), Failure([] { CCIPacket(65536); }));
}

TEST(GenCPPackets, AcknowledgeStatusesBecomeGenTLCodes)
{
    EXPECT_EQ(GC_ERR_ACCESS_DENIED, AckException("Device reported an error while executing a request", 0x8006).GetCode());
    EXPECT_EQ(GC_ERR_ERROR, AckException("x", 0x8005).GetCode());
    EXPECT_EQ(GC_ERR_BUSY, AckException("x", 0x8007).GetCode());
    EXPECT_EQ(GC_ERR_TIMEOUT, AckException("x", 0x800B).GetCode());
    EXPECT_EQ(GC_ERR_ERROR, AckException("x", 0x9999).GetCode());
    AckException e("Device reported an error while executing a request", 0x8003);
    EXPECT_EQ(GC_ERR_INVALID_ADDRESS, e.GetCode());
    EXPECT_EQ("Device reported an error while executing a request (Status code: 32771)", e.GetMessage());
    EXPECT_EQ("Device reported an error while executing a request", e.GetText());
}

}
