#pragma once

#include "gencp/Packet.h"
#include "support/ByteOrder.h"

#include <memory>
#include <vector>

namespace QEL { namespace Base { namespace GenCP {

// A GenCP packet as it travels over the camera control interface: it owns its
// bytes, little endian, and carries the preamble and the CRC32 over bytes 6
// to the end.
class CCIPacket : public virtual Packet {
public:
    // A received packet; refuses sizes and lengths that cannot be GenCP.
    CCIPacket(const std::uint8_t* data, std::size_t size);
    // A zero-filled packet for a payload of `payloadSize` bytes.
    explicit CCIPacket(std::size_t payloadSize);

    void SetFlags(std::uint16_t flags) override { Put16(8, flags); }
    std::uint16_t GetStatus() const override { return Get16(8); }
    void SetCommandId(std::uint16_t id) override { Put16(10, id); }
    std::uint16_t GetCommandId() const override { return Get16(10); }
    void SetRequestId(std::uint16_t id) override { Put16(14, id); }
    std::uint16_t GetRequestId() const override { return Get16(14); }
    std::uint8_t* GetPayload() override { return bytes.data() + 16; }
    std::uint16_t GetPayloadSize() const override { return Get16(12); }
    std::int32_t GetByteOrder() const override { return 0; }

    // Writes the preamble, a zero channel ID and the CRC32: the packet is ready to send.
    void Seal();
    bool HasValidCrc() const;
    const std::vector<std::uint8_t>& GetBytes() const { return bytes; }
    std::uint8_t* GetData() { return bytes.data(); }

private:
    void Put16(std::size_t at, std::uint16_t value) { QEL::System::PutLE16(&bytes[at], value); }
    std::uint16_t Get16(std::size_t at) const { return QEL::System::GetLE16(&bytes[at]); }

    std::vector<std::uint8_t> bytes;
};

} } }
