#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace QEL { namespace Sim {

// The faults a test can inject into a virtual camera. Each armed fault hits
// the next `count` occasions on which it can happen, then disarms itself.
enum class Fault {
    I2CReadFailure,      // VIDIOC_R_I2C fails with EIO
    I2CWriteFailure,     // VIDIOC_W_I2C fails with EIO
    I2CInterrupted,      // an I2C ioctl fails with EINTR
    ShortSizeWrite,      // a 2-byte register write reports 3 bytes on the bus
    HandshakeStuck,      // the camera never takes a GenCP packet (value: 1 keeps it stuck for good)
    GenCPStatus,         // the acknowledge carries the status `value`
    BadAckCRC,           // the acknowledge's CRC is wrong
    StaleRequestID,      // the acknowledge answers an older request ID
    PendingAck,          // a pending acknowledge with `value` ms comes first
    BadLeaderKey,        // frames with a wrong leader magic key
    BadTrailerKey,       // frames with a wrong trailer magic key
    BlockIDGap,          // the block ID jumps by `value` (frames lost in the camera)
    IncompleteFrame,     // frames flagged invalid or incomplete (bit 31)
    IncompleteFrame28,   // the same with bit 28
    PacketCRCError,      // a packet of the frame fails its CRC: counted, and the frame flagged invalid
    UnknownFrameState,   // frames with none of the state bits
    ZeroFrame,           // frames whose buffer was never filled
    DQBUFError,          // VIDIOC_DQBUF fails with errno `value`
    StreamOffHangs,      // the stream-off attribute never reaches "2"
    FlushHangs,          // the flush attribute never reaches "2"
    NodeOpenFailure,     // opening the V4L2 node fails with errno `value` (0: EBUSY)
    DocumentCorrupt,     // a GenCP read answers a manifest document's first byte changed
};

// The fault of that name, as in the enumeration; an unknown name throws std::invalid_argument.
Fault FaultByName(const std::string& name);

class FaultPlan {
public:
    void Arm(Fault fault, std::uint32_t count, std::uint64_t value = 0)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (count == 0)
            armed.erase(fault);
        else
            armed[fault] = {count, value};
    }

    // True once for each armed occasion; `value` receives the fault's parameter.
    bool Take(Fault fault, std::uint64_t* value = nullptr)
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = armed.find(fault);
        if (it == armed.end())
            return false;
        if (value)
            *value = it->second.value;
        if (--it->second.count == 0)
            armed.erase(it);
        return true;
    }

    bool IsArmed(Fault fault) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return armed.count(fault) != 0;
    }

    void Clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        armed.clear();
    }

private:
    struct Armed {
        std::uint32_t count;
        std::uint64_t value;
    };
    mutable std::mutex mutex;
    std::map<Fault, Armed> armed;
};

} }
