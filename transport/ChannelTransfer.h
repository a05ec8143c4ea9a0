#pragma once

// The records the endpoints hand to the wrapper: a channel's message record,
// a frame's record and a control transfer.
#include "libcsi/include/libcsi/libcsi.h"

#include <cstdint>
#include <functional>

namespace QEL { namespace LibCSI {

enum ChannelMessage : std::uint32_t {
    MSG_TEXT = 10,
    MSG_DATA = 30,
    MSG_FRAME_DROPPED = 85,
    MSG_ERROR = 999,
};

// How a channel hears from below. The endpoint fills context and callback.
struct lib_channel_transfer {
    void* context = nullptr;
    void (*callback)(lib_channel_transfer*) = nullptr;
    std::uint32_t message = 0;
    std::uint64_t total = 0;
    std::uint64_t frameId = 0;
    const char* text = nullptr;
    const void* data = nullptr;
    std::uint32_t size = 0;
};

// One frame on its way through libcsi; the context libcsi hands back with it.
struct FrameRecord {
    frame_handle_t* handle = nullptr;
    void (*callback)(FrameRecord*) = nullptr;
    void* context = nullptr;
    lib_frame_transfer frame{};
    std::uint32_t status = 0;
};

// Status words of a control transfer.
constexpr std::uint32_t TransferPending = 0xF0000000;
constexpr std::uint32_t TransferFailed = 0xE000000F;

// A buffer going to or coming from the camera's GenCP channel.
struct ControlTransfer {
    void* buffer = nullptr;
    std::uint32_t size = 0;
    std::uint32_t bytesLeft = 0;
    std::uint32_t bytesDone = 0;
    std::uint32_t status = TransferPending;
};

} }
