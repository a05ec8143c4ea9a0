// GenCP packets through the camera's register window on the control bus.
#include "libcsi/Boundary.h"
#include "libcsi/Device.h"
#include "libcsi/Library.h"
#include "libcsi/Log.h"

#include <cinttypes>
#include <algorithm>
#include <cstdio>
#include <cstring>

using namespace QEL::LibCSIImpl;

namespace {

constexpr std::uint16_t OutHandshake = 0x18;
constexpr std::uint16_t InHandshake = 0x1C;
constexpr std::uint16_t OutSize = 0x20;
constexpr std::uint16_t InSize = 0x24;

// Checks library and device for a GenCP call; the device may be open, streaming or stopping.
int32_t CheckGenCP(const char* function, device_handle_t* handle, std::unique_lock<std::mutex>& lock)
{
    if (!CurrentLibrary())
        return LIBCSI_NOT_INITIALIZED;
    lock = std::unique_lock<std::mutex>(handle->mutex);
    if (handle->state != DeviceState::Open && handle->state != DeviceState::Streaming &&
        handle->state != DeviceState::Stopping) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid device state.\n", function);
        return LIBCSI_INVALID_DEVICE_STATE;
    }
    return LIBCSI_OK;
}

// The header fields of a packet, in host order, for the verbose log.
void Decode(const std::uint8_t* packet, std::uint64_t size, bool sending)
{
    if (!LogWanted(TierVerbose) || size < 16)
        return;
    auto u16 = [&](std::size_t at) { std::uint16_t v; std::memcpy(&v, packet + at, 2); return v; };
    auto u32 = [&](std::size_t at) { std::uint32_t v; std::memcpy(&v, packet + at, 4); return v; };
    auto u64 = [&](std::size_t at) { std::uint64_t v; std::memcpy(&v, packet + at, 8); return v; };
    LIBCSI_LOG(TierVerbose, sending ? "GenCP packet decode (SEND):\n" : "GenCP packet decode (RECEIVE):\n");
    LIBCSI_LOG(TierVerbose, "  Preamble: 0x%04X\n  CRC: 0x%08X\n  ChannelID: %u\n", u16(0), u32(2), u16(6));
    const std::uint16_t field = u16(8), command = u16(10), length = u16(12);
    if (sending) {
        LIBCSI_LOG(TierVerbose, "  Flags: 0x%04X %s%s\n", field, (field & 0x4000) ? "(REQUEST_ACK)" : "",
                   (field & 0x8000) ? "(CMD_RESEND)" : "");
    } else {
        static const std::pair<std::uint16_t, const char*> statuses[] = {
            {0x0000, "GENCP_SUCCESS"},       {0x8001, "GENCP_NOT_IMPLEMENTED"}, {0x8002, "GENCP_INVALID_PARAMETER"},
            {0x8003, "GENCP_INVALID_ADDRESS"}, {0x8004, "GENCP_WRITE_PROTECT"}, {0x8005, "GENCP_BAD_ALIGNMENT"},
            {0x8006, "GENCP_ACCESS_DENIED"}, {0x8007, "GENCP_BUSY"},            {0x800B, "GENCP_MSG_TIMEOUT"},
            {0x800E, "GENCP_INVALID_HEADER"}, {0x800F, "GENCP_WRONG_CONFIG"},   {0x8FFF, "GENCP_ERROR"}};
        const char* name = "unknown";
        for (const auto& status : statuses)
            if (status.first == field)
                name = status.second;
        LIBCSI_LOG(TierVerbose, "  Status: 0x%04X (%s)\n", field, name);
    }
    static const std::pair<std::uint16_t, const char*> commands[] = {
        {0x0800, "READMEM_CMD"}, {0x0801, "READMEM_ACK"}, {0x0802, "WRITEMEM_CMD"}, {0x0803, "WRITEMEM_ACK"},
        {0x0805, "PENDING_ACK"}, {0x0C00, "EVENT_CMD"},   {0x0C01, "EVENT_ACK"}};
    const char* commandName = "UNKNOWN";
    for (const auto& entry : commands)
        if (entry.first == command)
            commandName = entry.second;
    LIBCSI_LOG(TierVerbose, "  CommandID: 0x%04X (%s)\n  Length: %u\n  RequestID: %u\n", command, commandName, length,
               u16(14));
    auto payloadText = [&](std::size_t at, std::size_t count) {
        if (at + count > size)
            return;
        if (count == 1 || count == 2 || count == 4 || count == 8) {
            std::uint64_t value = 0;
            std::memcpy(&value, packet + at, count);
            LIBCSI_LOG(TierVerbose, "  Value: 0x%" PRIX64 "\n", static_cast<std::uint64_t>(value));
            return;
        }
        for (std::size_t line = 0; line < count; line += 32) {
            char text[32 * 3 + 1] = {};
            for (std::size_t i = line; i < std::min(count, line + 32); ++i)
                std::snprintf(text + 3 * (i - line), 4, "%02X ", packet[at + i]);
            LIBCSI_LOG(TierVerbose, "  Payload: %s\n", text);
        }
    };
    if ((command == 0x0800 || command == 0x0802) && size >= 24) {
        const std::uint64_t address = u64(16);
        const char* marker = address == 0x10220000 ? " (STREAMDBG RegAcquisitionStart)"
                             : address == 0x10220010 ? " (STREAMDBG RegAcquisitionStop)"
                             : address == 0x10220020 ? " (STREAMDBG RegAcquisitionAbort)"
                             : address == 0x20000    ? " (STREAMDBG SIRM EnableStream)"
                                                     : "";
        LIBCSI_LOG(TierVerbose, "  Address: 0x%016" PRIX64 "%s\n", static_cast<std::uint64_t>(address), marker);
        if (command == 0x0800 && size >= 28)
            LIBCSI_LOG(TierVerbose, "  Reserved: %u\n  ReadLength: %u\n", u16(24), u16(26));
        if (command == 0x0802 && length >= 8) {
            LIBCSI_LOG(TierVerbose, "  DataLength: %u\n", length - 8u);
            payloadText(24, length - 8u);
        }
    } else if (command == 0x0801) {
        payloadText(16, length);
    } else if ((command == 0x0803 || command == 0x0805) && size >= 20) {
        LIBCSI_LOG(TierVerbose, command == 0x0803 ? "  Reserved: %u\n  LengthWritten: %u\n"
                                                   : "  Reserved: %u\n  TemporaryTimeout: %u\n",
                   u16(16), u16(18));
    }
}

}

extern "C" {

int32_t libcsi_write_gencp(device_handle_t* pDeviceHandle, const void* pData, uint64_t nSize, uint32_t nTimeout)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        LIBCSI_LOG(TierTrace, " nSize=%" PRIu64 ", nTimeout=%u\n", nSize, nTimeout);
        if (!pData || nSize == 0)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        std::unique_lock<std::mutex> lock;
        if (int32_t result = CheckGenCP("libcsi_write_gencp", &device, lock))
            return result;
        Decode(static_cast<const std::uint8_t*>(pData), nSize, true);
        std::uint16_t channel = 0;
        if (nSize >= 8)
            std::memcpy(&channel, static_cast<const std::uint8_t*>(pData) + 6, 2);
        if (channel != 0)
            LIBCSI_LOG(TierWarning, "Channel ID != 0 probably not supported by camera!\n");
        const std::uint16_t gcprm = device.m_nCCI_GCPRM_Address;
        if (!WaitForRegister(device, gcprm + OutHandshake, 0, nTimeout)) {
            LIBCSI_LOG(TierError, " %s ERROR: wait_for_gencp_out_handshake timeout.\n", "libcsi_write_gencp");
            return LIBCSI_TIMEOUT;
        }
        if (WriteRegister(device, device.m_nGCPRM_GenCP_Outbuf_Address, pData, static_cast<std::uint32_t>(nSize)) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed GenCP out buffer.\n", "libcsi_write_gencp");
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (WriteValue(device, gcprm + OutSize, nSize, 2) != 4) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed for GENCP_OUT_SIZE_REG.\n", "libcsi_write_gencp");
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (WriteValue(device, gcprm + OutHandshake, 1, 1) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed for GENCP_OUTHANDSHAKE_REG.\n", "libcsi_write_gencp");
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (!WaitForRegister(device, gcprm + OutHandshake, 2, nTimeout)) {
            LIBCSI_LOG(TierError,
                       " %s Error: wait_for_gencp_out_handshake timeout. Camera might not have received packet.\n",
                       "libcsi_write_gencp");
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (WriteValue(device, gcprm + OutHandshake, 0, 1) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed for GENCP_OUTHANDSHAKE_REG.\n", "libcsi_write_gencp");
            return LIBCSI_I2C_WRITE_FAILED;
        }
        return LIBCSI_OK;
    });
}

int32_t libcsi_read_gencp(device_handle_t* pDeviceHandle, void* pData, uint64_t* pSize, uint32_t nTimeout)
{
    return ExportedOnDevice(__func__, pDeviceHandle, [&](Device& device) -> int32_t {
        LIBCSI_LOG(TierTrace, " nTimeout=%u\n", nTimeout);
        if (!pData || !pSize)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        std::unique_lock<std::mutex> lock;
        if (int32_t result = CheckGenCP("libcsi_read_gencp", &device, lock))
            return result;
        const std::uint16_t gcprm = device.m_nCCI_GCPRM_Address;
        if (!WaitForRegister(device, gcprm + InHandshake, 1, nTimeout)) {
            LIBCSI_LOG(TierError, " %s ERROR: wait_for_gencp_in_handshake timeout.\n", "libcsi_read_gencp");
            return LIBCSI_TIMEOUT;
        }
        std::uint64_t size = 0;
        if (!ReadValue(device, gcprm + InSize, 2, size)) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C read failed for GENCP_IN_SIZE_REG.\n", "libcsi_read_gencp");
            return LIBCSI_I2C_READ_FAILED;
        }
        const std::uint64_t room = *pSize;
        *pSize = size;
        // Too small a buffer leaves the packet in place for a second call.
        if (room < size)
            return LIBCSI_BUFFER_TOO_SMALL;
        if (!ReadRegister(device, device.m_nGCPRM_GenCP_Inbuf_Address, pData, static_cast<std::uint32_t>(size))) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C read failed for ACK packet.\n", "libcsi_read_gencp");
            return LIBCSI_I2C_READ_FAILED;
        }
        if (WriteValue(device, gcprm + InHandshake, 2, 1) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed for GENCP_IN_SIZE_REG.\n", "libcsi_read_gencp");
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (!WaitForRegister(device, gcprm + InHandshake, 2, nTimeout)) {
            LIBCSI_LOG(TierError,
                       " %s Error: wait_for_gencp_in_handshake timeout. Camera might not have received packet.\n",
                       "libcsi_read_gencp");
            return LIBCSI_I2C_WRITE_FAILED;
        }
        WriteValue(device, gcprm + InHandshake, 0, 1);
        Decode(static_cast<const std::uint8_t*>(pData), size, false);
        return LIBCSI_OK;
    });
}

}
