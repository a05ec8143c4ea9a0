#pragma once

#include "base/Object.h"

#include <cstddef>
#include <cstdint>

namespace QEL { namespace Base { namespace GenCP {

// One GenCP packet: a 16-byte header (preamble, CRC32, channel ID, flags or
// status, command ID, payload length, request ID) and a payload. The bytes
// belong to the transport's packet class; this is the view the typed
// commands and acknowledges work on. Field operations convert between the
// packet's byte order and the host's.
class Packet : public virtual QEL::System::Object {
public:
    virtual void SetFlags(std::uint16_t flags) = 0;
    virtual std::uint16_t GetStatus() const = 0;
    virtual void SetCommandId(std::uint16_t id) = 0;
    virtual std::uint16_t GetCommandId() const = 0;
    virtual void SetRequestId(std::uint16_t id) = 0;
    virtual std::uint16_t GetRequestId() const = 0;
    virtual std::uint8_t* GetPayload() = 0;
    virtual std::uint16_t GetPayloadSize() const = 0;
    // 0 little endian.
    virtual std::int32_t GetByteOrder() const = 0;
};

namespace CommandId {
constexpr std::uint16_t ReadMemory = 0x0800;
constexpr std::uint16_t ReadMemoryAck = 0x0801;
constexpr std::uint16_t WriteMemory = 0x0802;
constexpr std::uint16_t WriteMemoryAck = 0x0803;
constexpr std::uint16_t PendingAck = 0x0805;
}

namespace Flags {
constexpr std::uint16_t RequestAck = 0x4000;
constexpr std::uint16_t Resend = 0xC000;
}

} } }
