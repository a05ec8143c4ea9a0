// GenCP packets through the camera's register window on the control bus.
#include "libcsi/Device.h"
#include "libcsi/Library.h"
#include "libcsi/Log.h"

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
    if (handle->state != Open && handle->state != Streaming && handle->state != Stopping) {
        LIBCSI_LOG(TierError, " %s ERROR: Invalid device state.\n", function);
        return LIBCSI_INVALID_DEVICE_STATE;
    }
    return LIBCSI_OK;
}

}

extern "C" {

int32_t libcsi_write_gencp(device_handle_t* pDeviceHandle, const void* pData, uint64_t nSize, uint32_t nTimeout)
{
    try {
        LIBCSI_LOG(TierTrace, "%s(pDeviceHandle=%p, nSize=%lu, nTimeout=%u)\n", __func__,
                   static_cast<void*>(pDeviceHandle), static_cast<unsigned long>(nSize), nTimeout);
        if (!pDeviceHandle || !pData || nSize == 0)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        std::unique_lock<std::mutex> lock;
        if (int32_t result = CheckGenCP(__func__, pDeviceHandle, lock))
            return result;
        Device& device = *pDeviceHandle;
        std::uint16_t channel = 0;
        if (nSize >= 8)
            std::memcpy(&channel, static_cast<const std::uint8_t*>(pData) + 6, 2);
        if (channel != 0)
            LIBCSI_LOG(TierWarning, "Channel ID != 0 probably not supported by camera!\n");
        const std::uint16_t gcprm = device.m_nCCI_GCPRM_Address;
        if (!WaitForRegister(device, gcprm + OutHandshake, 0, nTimeout)) {
            LIBCSI_LOG(TierError, " %s ERROR: wait_for_gencp_out_handshake timeout.\n", __func__);
            return LIBCSI_TIMEOUT;
        }
        if (WriteRegister(device, device.m_nGCPRM_GenCP_Outbuf_Address, pData, static_cast<std::uint32_t>(nSize)) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed GenCP out buffer.\n", __func__);
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (WriteValue(device, gcprm + OutSize, nSize, 2) != 4) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed for GENCP_OUT_SIZE_REG.\n", __func__);
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (WriteValue(device, gcprm + OutHandshake, 1, 1) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed for GENCP_OUTHANDSHAKE_REG.\n", __func__);
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (!WaitForRegister(device, gcprm + OutHandshake, 2, nTimeout)) {
            LIBCSI_LOG(TierError,
                       " %s Error: wait_for_gencp_out_handshake timeout. Camera might not have received packet.\n",
                       __func__);
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (WriteValue(device, gcprm + OutHandshake, 0, 1) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed for GENCP_OUTHANDSHAKE_REG.\n", __func__);
            return LIBCSI_I2C_WRITE_FAILED;
        }
        return LIBCSI_OK;
    } catch (...) {
        return LIBCSI_ERROR;
    }
}

int32_t libcsi_read_gencp(device_handle_t* pDeviceHandle, void* pData, uint64_t* pSize, uint32_t nTimeout)
{
    try {
        LIBCSI_LOG(TierTrace, "%s(pDeviceHandle=%p, nTimeout=%u)\n", __func__, static_cast<void*>(pDeviceHandle),
                   nTimeout);
        if (!pDeviceHandle || !pData || !pSize)
            return LIBCSI_INVALID_PARAMETER;
        std::lock_guard<std::recursive_mutex> guard(LibraryMutex());
        std::unique_lock<std::mutex> lock;
        if (int32_t result = CheckGenCP(__func__, pDeviceHandle, lock))
            return result;
        Device& device = *pDeviceHandle;
        const std::uint16_t gcprm = device.m_nCCI_GCPRM_Address;
        if (!WaitForRegister(device, gcprm + InHandshake, 1, nTimeout)) {
            LIBCSI_LOG(TierError, " %s ERROR: wait_for_gencp_in_handshake timeout.\n", __func__);
            return LIBCSI_TIMEOUT;
        }
        std::uint64_t size = 0;
        if (!ReadValue(device, gcprm + InSize, 2, size)) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C read failed for GENCP_IN_SIZE_REG.\n", __func__);
            return LIBCSI_I2C_READ_FAILED;
        }
        const std::uint64_t room = *pSize;
        *pSize = size;
        // Too small a buffer leaves the packet in place for a second call.
        if (room < size)
            return LIBCSI_BUFFER_TOO_SMALL;
        if (!ReadRegister(device, device.m_nGCPRM_GenCP_Inbuf_Address, pData, static_cast<std::uint32_t>(size))) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C read failed for ACK packet.\n", __func__);
            return LIBCSI_I2C_READ_FAILED;
        }
        if (WriteValue(device, gcprm + InHandshake, 2, 1) < 0) {
            LIBCSI_LOG(TierError, " %s ERROR: I2C write failed for GENCP_IN_SIZE_REG.\n", __func__);
            return LIBCSI_I2C_WRITE_FAILED;
        }
        if (!WaitForRegister(device, gcprm + InHandshake, 2, nTimeout)) {
            LIBCSI_LOG(TierError,
                       " %s Error: wait_for_gencp_in_handshake timeout. Camera might not have received packet.\n",
                       __func__);
            return LIBCSI_I2C_WRITE_FAILED;
        }
        WriteValue(device, gcprm + InHandshake, 0, 1);
        return LIBCSI_OK;
    } catch (...) {
        return LIBCSI_ERROR;
    }
}

}
