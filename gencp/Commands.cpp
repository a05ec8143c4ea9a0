#include "gencp/Commands.h"

#include "base/BaseException.h"

#include <cstring>

namespace QEL { namespace Base { namespace GenCP {

namespace {

const std::shared_ptr<Packet>& Checked(const std::shared_ptr<Packet>& packet)
{
    if (!packet)
        throw Exception("No packet passed.", GC_ERR_INVALID_PARAMETER);
    return packet;
}

std::uint8_t* PayloadOf(Packet& packet, const char* failure)
{
    std::uint8_t* payload = packet.GetPayload();
    if (!payload)
        throw Exception(failure, GC_ERR_ERROR);
    return payload;
}

// Fields in the packet's byte order, which is little endian here.
template <class T>
void Put(std::uint8_t* at, T value)
{
    for (std::size_t i = 0; i < sizeof(T); ++i)
        at[i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i));
}

std::uint16_t Get16(const std::uint8_t* at) { return static_cast<std::uint16_t>(at[0] | at[1] << 8); }

}

ReadMemoryCommand::ReadMemoryCommand(const std::shared_ptr<Packet>& p) : packet(Checked(p))
{
    if (packet->GetPayloadSize() != 12)
        throw Exception("Invalid packet size for GenCP.", GC_ERR_INVALID_PARAMETER);
    payload = PayloadOf(*packet, "No payload data retrieved.");
    packet->SetCommandId(CommandId::ReadMemory);
}

void ReadMemoryCommand::SetAddress(std::uint64_t address) { Put(payload, address); }

void ReadMemoryCommand::SetSize(std::uint16_t size)
{
    Put<std::uint16_t>(payload + 8, 0);
    Put(payload + 10, size);
}

WriteMemoryCommand::WriteMemoryCommand(const std::shared_ptr<Packet>& p) : packet(Checked(p))
{
    if (packet->GetPayloadSize() <= 8)
        throw Exception("Invalid packet size for GenCP.", GC_ERR_INVALID_PARAMETER);
    payload = PayloadOf(*packet, "No payload data retrieved.");
    packet->SetCommandId(CommandId::WriteMemory);
}

void WriteMemoryCommand::SetAddress(std::uint64_t address) { Put(payload, address); }

PendingAcknowledge::PendingAcknowledge(const std::shared_ptr<Packet>& p) : packet(Checked(p))
{
    if (packet->GetCommandId() != CommandId::PendingAck)
        throw Exception("Packet has no pending acknowledge command ID.", GC_ERR_INVALID_PARAMETER);
    if (packet->GetPayloadSize() != 4)
        throw Exception("Packet size invalid for pending acknowledge.", GC_ERR_ERROR);
    payload = PayloadOf(*packet, "No payload available.");
}

std::uint16_t PendingAcknowledge::GetTemporaryTimeout() const { return Get16(payload + 2); }

ReadMemoryAcknowledge::ReadMemoryAcknowledge(const std::shared_ptr<Packet>& p) : packet(Checked(p))
{
    if (packet->GetCommandId() != CommandId::ReadMemoryAck)
        throw Exception("Packet has no read memory acknowledge command ID.", GC_ERR_INVALID_PARAMETER);
}

template <bool WithLength>
WriteMemoryAcknowledge<WithLength>::WriteMemoryAcknowledge(const std::shared_ptr<Packet>& p) : packet(Checked(p))
{
    if (packet->GetCommandId() != CommandId::WriteMemoryAck)
        throw Exception("Packet has no write memory acknowledge command ID.", GC_ERR_INVALID_PARAMETER);
    if (packet->GetPayloadSize() != (WithLength ? 4 : 0))
        throw Exception("Packet size invalid for write memory acknowledge.", GC_ERR_ERROR);
    if (WithLength)
        PayloadOf(*packet, "No payload available.");
}

template <bool WithLength>
std::uint16_t WriteMemoryAcknowledge<WithLength>::GetWrittenSize() const
{
    return WithLength ? Get16(packet->GetPayload() + 2) : 0;
}

template class WriteMemoryAcknowledge<true>;
template class WriteMemoryAcknowledge<false>;

} } }
