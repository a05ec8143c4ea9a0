/* libcsi: CSI-2 cameras over the qel_csi2_if V4L2 driver. Every function
 * returns a signed 32-bit result: 0 for success, negative for failure. No
 * exception ever leaves this library. */
#ifndef LIBCSI_H
#define LIBCSI_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LIBCSI_API __attribute__((visibility("default")))

enum libcsi_result {
    LIBCSI_OK = 0,
    LIBCSI_ERROR = -1,
    LIBCSI_TIMEOUT = -2,
    LIBCSI_INVALID_PARAMETER = -3,
    LIBCSI_READ_FAILED = -4,
    LIBCSI_BUFFER_TOO_SMALL = -5,
    LIBCSI_INVALID_DEVICE_INDEX = -6,
    LIBCSI_ALREADY_SET = -7,
    LIBCSI_NOT_INITIALIZED = -8,
    LIBCSI_INVALID_DEVICE_STATE = -10,
    LIBCSI_OPEN_FAILED = -11,
    LIBCSI_I2C_CLOCK_UNKNOWN = -12,
    LIBCSI_I2C_READ_FAILED = -13,
    LIBCSI_I2C_WRITE_FAILED = -14,
    LIBCSI_NOT_ENOUGH_FRAMES = -15,
    LIBCSI_DRIVER_CALL_FAILED = -16,
    LIBCSI_MAP_FAILED = -17,
    LIBCSI_UNMAP_FAILED = -18,
    LIBCSI_FRAME_QUEUED = -19,
    LIBCSI_CONVERSION_FAILED = -20,
    LIBCSI_INVALID_LAYOUT_VERSION = -21,
    LIBCSI_INCOMPATIBLE_DRIVER = -22,
    LIBCSI_ALIGNMENT_INVALID = -23
};

/* Info IDs of libcsi_get_info. */
enum libcsi_info_id {
    INFO_Availability = 0,
    INFO_CCIVersionMinor = 1,
    INFO_CCIVersionMajor = 2,
    INFO_GenCPModeSupported = 3,
    INFO_DeviceGUID = 4,
    INFO_ManufacturerName = 5,
    INFO_ModelName = 6,
    INFO_FamilyName = 7,
    INFO_DeviceVersion = 8,
    INFO_ManufacturerInfo = 9,
    INFO_SerialNumber = 10,
    INFO_UserDefinedName = 11,
    INFO_PortID = 12
};

/* Type codes of the info functions. */
enum libcsi_info_type {
    LIBCSI_TYPE_BOOL = 0,
    LIBCSI_TYPE_UINT16 = 2,
    LIBCSI_TYPE_UINT32 = 3,
    LIBCSI_TYPE_STRING = 5
};

typedef struct libcsi_device_handle device_handle_t;

/* The IPU restrictions of libcsi_get_ipu_restrictions. */
typedef struct {
    uint8_t m_bXValid;
    uint32_t m_nXMin, m_nXMax, m_nXInc;
    uint8_t m_bYValid;
    uint32_t m_nYMin, m_nYMax, m_nYInc;
    uint32_t mem_alignment;
} libcsi_ipu_restrictions_t;

typedef struct libcsi_frame_handle frame_handle_t;

/* The caller's description of a frame: leader, payload and trailer laid end
 * to end. A part of size 0 has a null pointer and does not exist. */
typedef struct {
    uint64_t m_pLeader;
    uint64_t m_pPayload;
    uint64_t m_pTrailer;
    uint64_t m_nLeaderSize;
    uint64_t m_nPayloadSize;
    uint64_t m_nTrailerSize;
} lib_frame_transfer;

/* Frame status passed to the frame callback. */
enum libcsi_frame_status {
    LIBCSI_FRAME_VALID = 0,
    LIBCSI_FRAME_ERROR = 1,
    LIBCSI_FRAME_INVALID = 3,
    LIBCSI_FRAME_UNUSED = 4
};

/* The frame callback.
 * Thread: the device's frame callback thread (started by libcsi_open_device,
 *   ended by libcsi_close_device), one call at a time per device, in the
 *   order the frames left the driver.
 * Locks held while it runs: none of libcsi's. The callback thread releases
 *   the device's output mutex around the call, and no frame thread ever takes
 *   the library or device mutex.
 * May call: libcsi_queue_frame with the frame it was given, and any other
 *   libcsi function on the device, except the two that wait for this thread:
 *   libcsi_close_device and libcsi_deinit. Whatever it throws is caught and
 *   logged. */
typedef void (*libcsi_frame_callback_t)(void* pContext, frame_handle_t* pFrameHandle, lib_frame_transfer* pFrame,
                                        uint64_t nUserValue, uint32_t nStatus);

/* The record of libcsi_get_stream_statistics. */
typedef struct {
    uint64_t m_nFramesCount;
    uint64_t m_nPacketCRCError;
    uint64_t m_nFramesUnderrun;
    uint64_t m_nFramesIncomplete;
    double m_dFrameRate;
} libcsi_stream_statistics_t;

/* The discovery callback: a camera's availability changed.
 * Thread: libcsi's discovery message thread (libcsi_init to libcsi_deinit),
 *   one call at a time, in the order the changes were seen.
 * Locks held while it runs: none; the discovery message mutex is released
 *   around the call.
 * May call: any libcsi function except libcsi_deinit, which waits for this
 *   thread. */
typedef void (*libcsi_discovery_callback_t)(void* pContext, const char* sPortID, bool bAvailable);
/* The report callback: one log line of libcsi, as text.
 * Thread: libcsi's report message thread (libcsi_init to libcsi_deinit), one
 *   call at a time, in the order the lines were logged.
 * Locks held while it runs: none; the report mutex is released around the
 *   call.
 * May call: any libcsi function except libcsi_deinit, which waits for this
 *   thread. */
typedef void (*libcsi_report_callback_t)(void* pContext, const char* sMessage);

/* Device states: a device handle is open after libcsi_open_device, streaming
 * after libcsi_start_stream, open again after libcsi_stop_stream, and gone
 * after libcsi_close_device. A handle that is not open (closed, or never one
 * of libcsi's) is refused with LIBCSI_INVALID_PARAMETER or
 * LIBCSI_INVALID_DEVICE_STATE, never used. Timeouts are in milliseconds. */

/* Fills four words: major, minor, patch, build. Needs no libcsi_init. */
LIBCSI_API int32_t libcsi_get_version(uint32_t pVersion[4]);
/* Starts the discovery and report threads and lists the cameras; called
 * again while initialised, it does nothing and succeeds. */
LIBCSI_API int32_t libcsi_init(void);
/* Closes every device still open, stops and joins libcsi's threads. Not from
 * a callback of libcsi: it waits for their threads. */
LIBCSI_API int32_t libcsi_deinit(void);
/* One callback each; LIBCSI_ALREADY_SET while one is registered. libcsi keeps
 * pContext until the deregistration, and a call under way may still use it
 * until libcsi_deinit: it must outlive both. */
LIBCSI_API int32_t libcsi_register_discovery_callback(libcsi_discovery_callback_t pCallback, void* pContext);
LIBCSI_API int32_t libcsi_deregister_discovery_callback(void);
LIBCSI_API int32_t libcsi_register_report_callback(libcsi_report_callback_t pCallback, void* pContext);
LIBCSI_API int32_t libcsi_deregister_report_callback(void);

/* Lists the cameras the driver has now; the indexes below count in this
 * list until the next update. */
LIBCSI_API int32_t libcsi_update_device_list(void);
LIBCSI_API int32_t libcsi_get_device_count(uint32_t* pCount);
/* An info of camera nDeviceIndex (libcsi_info_id): *pType its libcsi_info_type;
 * with pData NULL, *pSize becomes the size it needs (strings with their
 * terminating zero), else *pSize is pData's size in bytes on entry and what
 * was written on return; LIBCSI_BUFFER_TOO_SMALL writes nothing. */
LIBCSI_API int32_t libcsi_get_info(uint32_t nDeviceIndex, int32_t eInfoID, int32_t* pType, void* pData,
                                   uint64_t* pSize);
/* An info of an open device (0 driver version, 1 driver interface version,
 * 2 board, ...), by the same size rules. */
LIBCSI_API int32_t libcsi_get_ext_info(device_handle_t* pDeviceHandle, int32_t eInfoID, int32_t* pType, void* pData,
                                       uint64_t* pSize);

/* Opens camera nDeviceIndex: its V4L2 node (LIBCSI_OPEN_FAILED when the driver
 * refuses, as for a camera another process has open), GenCP mode, the frame
 * threads. The handle stays valid until libcsi_close_device or libcsi_deinit. */
LIBCSI_API int32_t libcsi_open_device(uint32_t nDeviceIndex, device_handle_t** ppDeviceHandle);
/* Stops a stream still running, gives every frame back (libcsi's memory is
 * freed; the caller's is not touched after this returns) and closes. Not from
 * a frame callback of this device: it joins the callback thread. */
LIBCSI_API int32_t libcsi_close_device(device_handle_t* pDeviceHandle);
/* Restarts the camera through its CCI reset register; open, not streaming.
 * Close the device afterwards: the camera starts afresh. */
LIBCSI_API int32_t libcsi_reset_device(device_handle_t* pDeviceHandle);
/* The queries below answer what the driver says of an open or streaming
 * device, into the caller's variables; libcsi_set_csi_config needs an open
 * one that is not streaming, and writes back what the driver took.
 * Frequencies are in hertz; the CCI link speed is 0 for 100 kHz, 1 for 400 kHz. */
LIBCSI_API int32_t libcsi_get_ipu_restrictions(device_handle_t* pDeviceHandle, libcsi_ipu_restrictions_t* pRestrictions);
LIBCSI_API int32_t libcsi_get_gencp_buffer_sizes(device_handle_t* pDeviceHandle, uint32_t* pGencpInBufferSize,
                                                 uint32_t* pGencpOutBufferSize);
LIBCSI_API int32_t libcsi_get_min_announced_frames(device_handle_t* pDeviceHandle, uint32_t* pMinAnnouncedFrames);
LIBCSI_API int32_t libcsi_get_statistics_capability(device_handle_t* pDeviceHandle, uint64_t* pStatisticsCapabilities);
LIBCSI_API int32_t libcsi_get_supported_lane_counts(device_handle_t* pDeviceHandle, uint8_t* pSupportedLaneCounts);
LIBCSI_API int32_t libcsi_get_supported_csi_data_identifiers(device_handle_t* pDeviceHandle, uint64_t* pDataIdentifiers);
LIBCSI_API int32_t libcsi_get_supported_csi_host_clock_range(device_handle_t* pDeviceHandle, uint8_t nLaneCount,
                                                             uint32_t* pMinFrequency, uint32_t* pMaxFrequency);
LIBCSI_API int32_t libcsi_get_cci_link_speed(device_handle_t* pDeviceHandle, uint32_t* pCCILinkSpeed);
LIBCSI_API int32_t libcsi_get_csi_config(device_handle_t* pDeviceHandle, uint8_t* pLaneCount,
                                         uint32_t* pLaneClockFrequency);
LIBCSI_API int32_t libcsi_set_csi_config(device_handle_t* pDeviceHandle, uint8_t* pLaneCount,
                                         uint32_t* pLaneClockFrequency);

/* Announces the caller's frame of nIPU_X * nIPU_Y bytes (the IPU geometry of
 * the board's restrictions): libcsi keeps *pFrame and the memory it points to
 * until libcsi_revoke_frame or libcsi_close_device returns. Open, or
 * streaming with the running stream's geometry. */
LIBCSI_API int32_t libcsi_announce_frame(device_handle_t* pDeviceHandle, uint32_t nIPU_X, uint32_t nIPU_Y,
                                         lib_frame_transfer* pFrame, frame_handle_t** ppFrameHandle);
/* The same with memory libcsi allocates and writes into *pFrame; it is freed
 * by the revoke or the close. */
LIBCSI_API int32_t libcsi_alloc_and_announce_frame(device_handle_t* pDeviceHandle, uint32_t nIPU_X, uint32_t nIPU_Y,
                                                   lib_frame_transfer* pFrame, frame_handle_t** ppFrameHandle);
/* Gives an announced frame to the driver; its callback comes once, on the
 * device's callback thread, with pContext, which must live until then.
 * LIBCSI_FRAME_QUEUED while the frame is queued or its callback still due. */
LIBCSI_API int32_t libcsi_queue_frame(device_handle_t* pDeviceHandle, frame_handle_t* pFrameHandle,
                                      libcsi_frame_callback_t pFrameCallback, void* pContext);
/* Takes every queued frame back from the driver, without its callback; each
 * may be queued again. Any state but closed. */
LIBCSI_API int32_t libcsi_flush_frames(device_handle_t* pDeviceHandle);
/* Ends an announcement: no callback of the frame comes after it returns
 * (except one already running on the callback thread); the frame must not be
 * queued. */
LIBCSI_API int32_t libcsi_revoke_frame(device_handle_t* pDeviceHandle, frame_handle_t* pFrameHandle);
/* Starts the stream of an open device with at least the driver's minimum of
 * announced frames; nDataIdentifier is the CSI-2 data type (42 for RAW8). */
LIBCSI_API int32_t libcsi_start_stream(device_handle_t* pDeviceHandle, uint8_t nDataIdentifier);
/* Stops a streaming device and waits up to nTimeout milliseconds for the
 * driver's stream-off (LIBCSI_TIMEOUT after that; the device is open again
 * either way). Frames not filled come back through their callbacks as unused. */
LIBCSI_API int32_t libcsi_stop_stream(device_handle_t* pDeviceHandle, uint32_t nTimeout);
/* The driver's counters since the stream started or the last reset; open or
 * streaming. */
LIBCSI_API int32_t libcsi_get_stream_statistics(device_handle_t* pDeviceHandle, libcsi_stream_statistics_t* pStatistics);
LIBCSI_API int32_t libcsi_reset_stream_statistics(device_handle_t* pDeviceHandle);

/* One GenCP packet of nSize bytes to the camera, and one back into pData of
 * *pSize bytes (*pSize becomes its length); each waits up to nTimeout
 * milliseconds for the camera's handshake. Open or streaming. */
LIBCSI_API int32_t libcsi_write_gencp(device_handle_t* pDeviceHandle, const void* pData, uint64_t nSize,
                                      uint32_t nTimeout);
LIBCSI_API int32_t libcsi_read_gencp(device_handle_t* pDeviceHandle, void* pData, uint64_t* pSize, uint32_t nTimeout);

#ifdef __cplusplus
}

/* The records a caller shares with libcsi have one layout on every target:
 * 64-bit fields whatever the width of a pointer. */
static_assert(sizeof(lib_frame_transfer) == 48, "lib_frame_transfer: six 64-bit fields");
static_assert(sizeof(libcsi_stream_statistics_t) == 40, "libcsi_stream_statistics_t: four counters and a rate");
#endif

#endif
