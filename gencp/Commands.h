#pragma once

#include "gencp/Packet.h"

#include <memory>

namespace QEL { namespace Base { namespace GenCP {

// A read memory command: 12 bytes of payload, address and read length.
class ReadMemoryCommand : public virtual QEL::System::Object {
public:
    explicit ReadMemoryCommand(const std::shared_ptr<Packet>& packet);
    void SetAddress(std::uint64_t address);
    void SetSize(std::uint16_t size);
    const std::shared_ptr<Packet>& GetPacket() const { return packet; }

private:
    std::shared_ptr<Packet> packet;
    std::uint8_t* payload;
};

// A write memory command: the address, then the data.
class WriteMemoryCommand : public virtual QEL::System::Object {
public:
    explicit WriteMemoryCommand(const std::shared_ptr<Packet>& packet);
    void SetAddress(std::uint64_t address);
    std::uint8_t* GetData() { return payload + 8; }
    std::size_t GetDataSize() const { return packet->GetPayloadSize() - 8u; }
    const std::shared_ptr<Packet>& GetPacket() const { return packet; }

private:
    std::shared_ptr<Packet> packet;
    std::uint8_t* payload;
};

class PendingAcknowledge : public virtual QEL::System::Object {
public:
    explicit PendingAcknowledge(const std::shared_ptr<Packet>& packet);
    // Milliseconds the device asks the host to wait.
    std::uint16_t GetTemporaryTimeout() const;

private:
    std::shared_ptr<Packet> packet;
    const std::uint8_t* payload;
};

class ReadMemoryAcknowledge : public virtual QEL::System::Object {
public:
    explicit ReadMemoryAcknowledge(const std::shared_ptr<Packet>& packet);
    const std::uint8_t* GetData() const { return packet->GetPayload(); }
    std::size_t GetDataSize() const { return packet->GetPayloadSize(); }
    const std::shared_ptr<Packet>& GetPacket() const { return packet; }
    std::uint16_t GetCommandId() const { return CommandId::ReadMemoryAck; }

private:
    std::shared_ptr<Packet> packet;
};

// With written-length support the acknowledge carries the length written.
template <bool WithLength>
class WriteMemoryAcknowledge : public virtual QEL::System::Object {
public:
    explicit WriteMemoryAcknowledge(const std::shared_ptr<Packet>& packet);
    std::uint16_t GetWrittenSize() const;
    const std::shared_ptr<Packet>& GetPacket() const { return packet; }

private:
    std::shared_ptr<Packet> packet;
};

} } }
