/* Private ioctls and records of the qel_csi2_if V4L2 driver. A binary interface
 * with a kernel component: offsets, widths and padding are fixed. */
#ifndef QEL_CSI2_DRIVER_H
#define QEL_CSI2_DRIVER_H

#include <stddef.h>
#include <stdint.h>
#include <linux/ioctl.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QEL_CSI2_INTERFACE_NAME "qel_csi2_if"

struct qel_i2c_access {
    uint64_t register_address; /* below 65536 */
    uint64_t data;             /* pointer to the data buffer */
    uint32_t address_size;     /* always 2 */
    uint32_t data_size;
};

struct qel_buffer_request {
    uint32_t index;
    uint32_t type;   /* always 1, video capture */
    uint32_t memory; /* 1 mapped, 2 user pointer */
};

struct qel_stream_statistics {
    uint64_t frames_count;
    uint64_t packet_crc_errors;
    uint64_t frames_underrun;
    uint64_t frames_incomplete;
    uint64_t current_frames_count;
    uint64_t current_frames_interval; /* microseconds */
};

struct qel_clock_range {
    uint8_t valid;
    uint8_t padding[3];
    uint32_t min_hz;
    uint32_t max_hz;
};

struct qel_clock_ranges {
    struct qel_clock_range lanes[4]; /* 1, 2, 3 and 4 lanes */
};

struct qel_ipu_restrictions {
    uint8_t x_valid;
    uint8_t x_padding[3];
    uint32_t x_min;
    uint32_t x_max;
    uint32_t x_inc;
    uint8_t y_valid;
    uint8_t y_padding[3];
    uint32_t y_min;
    uint32_t y_max;
    uint32_t y_inc;
};

struct qel_gencp_buffer_sizes {
    uint32_t in_size;
    uint32_t out_size;
};

struct qel_data_identifiers {
    uint64_t words[4];
};

#define QEL_DRVCAP_USRPTR 0x1u
#define QEL_DRVCAP_MMAP 0x2u

struct qel_driver_info {
    uint8_t manufacturer; /* 0 NXP, 1 NVIDIA */
    uint8_t soc;          /* 0 i.MX6, 1 Tegra, 2 i.MX8, 3 i.MX8M, 4 i.MX8X */
    uint8_t board;        /* with i.MX6: 0 Nitrogen, 1 Wandboard */
    uint8_t reserved;
    uint32_t driver_version;           /* major<<16 | minor<<8 | patch */
    uint32_t driver_interface_version; /* same form */
    uint32_t driver_caps;
    uint32_t usrptr_alignment;
};

struct qel_csi_config {
    uint8_t lane_count;
    uint8_t padding[3];
    uint32_t clock_hz;
};

#define VIDIOC_R_I2C _IOWR('V', 0xC0, struct qel_i2c_access)
#define VIDIOC_W_I2C _IOWR('V', 0xC1, struct qel_i2c_access)
#define VIDIOC_MEM_ALLOC _IOWR('V', 0xC2, struct qel_buffer_request)
#define VIDIOC_MEM_FREE _IOWR('V', 0xC3, struct qel_buffer_request)
#define VIDIOC_FLUSH_FRAMES _IO('V', 0xC4)
#define VIDIOC_STREAMSTAT _IOR('V', 0xC5, struct qel_stream_statistics)
#define VIDIOC_RESET_STREAMSTAT _IO('V', 0xC6)
#define VIDIOC_STREAMON_EX _IO('V', 0xC7)
#define VIDIOC_STREAMOFF_EX _IOW('V', 0xC8, uint32_t)
#define VIDIOC_G_STATISTICS_CAPABILITIES _IOR('V', 0xC9, uint64_t)
#define VIDIOC_G_MIN_ANNOUNCED_FRAMES _IOR('V', 0xCA, uint32_t)
#define VIDIOC_G_SUPPORTED_LANE_COUNTS _IOR('V', 0xCB, uint32_t)
#define VIDIOC_G_CSI_CLOCK_RANGES _IOR('V', 0xCC, struct qel_clock_ranges)
#define VIDIOC_G_IPU_RESTRICTIONS _IOR('V', 0xCD, struct qel_ipu_restrictions)
#define VIDIOC_G_GENCP_BUFFER_SIZES _IOWR('V', 0xCE, struct qel_gencp_buffer_sizes)
#define VIDIOC_G_DATA_IDENTIFIERS _IOWR('V', 0xCF, struct qel_data_identifiers)
#define VIDIOC_G_I2C_CLOCK_FREQ _IOWR('V', 0xD0, uint32_t)
#define VIDIOC_G_DRIVER_INFO _IOR('V', 0xD1, struct qel_driver_info)
#define VIDIOC_G_CSI_CONFIG _IOR('V', 0xD2, struct qel_csi_config)
#define VIDIOC_S_CSI_CONFIG _IOWR('V', 0xD3, struct qel_csi_config)

/* Private state of a dequeued buffer, in the high bits of v4l2_buffer.flags. */
#define QEL_BUF_FLAG_INVALID_31 0x80000000u
#define QEL_BUF_FLAG_VALID 0x40000000u
#define QEL_BUF_FLAG_UNUSED 0x20000000u
#define QEL_BUF_FLAG_INVALID_28 0x10000000u

/* FourCC "TP31": the frame is set as an image of nIPU_X by nIPU_Y bytes. */
#define QEL_PIX_FMT_TP31 0x31335054u

/* The camera's frame leader and trailer, little endian. */
#define QEL_LEADER_MAGIC 0x4C325343u
#define QEL_TRAILER_MAGIC 0x54325343u

#pragma pack(push, 1)
struct qel_frame_leader {
    uint32_t magic_key;
    uint16_t reserved1;
    uint16_t leader_size;
    uint64_t block_id;
    uint16_t reserved2;
    uint16_t payload_type;
    uint64_t timestamp;
    uint32_t pixel_format;
    uint32_t size_x;
    uint32_t size_y;
    uint32_t offset_x;
    uint32_t offset_y;
    uint16_t padding_x;
    uint16_t reserved;
};

struct qel_frame_trailer {
    uint32_t magic_key;
    uint16_t reserved1;
    uint16_t trailer_size;
    uint64_t block_id;
    uint16_t status;
    uint16_t reserved2;
    uint64_t valid_payload_size;
    uint32_t delivered_size_y;
};
#pragma pack(pop)

#ifdef __cplusplus
}

/* What the camera and the driver send has one layout on every target. */
static_assert(sizeof(qel_frame_leader) == 52 && offsetof(qel_frame_leader, timestamp) == 20, "frame leader layout");
static_assert(sizeof(qel_frame_trailer) == 32 && offsetof(qel_frame_trailer, valid_payload_size) == 20,
              "frame trailer layout");
static_assert(sizeof(qel_stream_statistics) == 48, "stream statistics layout");
#endif

#endif
