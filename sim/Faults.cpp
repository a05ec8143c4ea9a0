#include "sim/Faults.h"

#include <stdexcept>
#include <utility>

namespace QEL { namespace Sim {

Fault FaultByName(const std::string& name)
{
    static const std::pair<const char*, Fault> names[] = {
        {"I2CReadFailure", Fault::I2CReadFailure},       {"I2CWriteFailure", Fault::I2CWriteFailure},
        {"I2CInterrupted", Fault::I2CInterrupted},       {"ShortSizeWrite", Fault::ShortSizeWrite},
        {"HandshakeStuck", Fault::HandshakeStuck},       {"GenCPStatus", Fault::GenCPStatus},
        {"BadAckCRC", Fault::BadAckCRC},                 {"StaleRequestID", Fault::StaleRequestID},
        {"PendingAck", Fault::PendingAck},               {"BadLeaderKey", Fault::BadLeaderKey},
        {"BadTrailerKey", Fault::BadTrailerKey},         {"BlockIDGap", Fault::BlockIDGap},
        {"IncompleteFrame", Fault::IncompleteFrame},     {"IncompleteFrame28", Fault::IncompleteFrame28},
        {"PacketCRCError", Fault::PacketCRCError},
        {"UnknownFrameState", Fault::UnknownFrameState}, {"ZeroFrame", Fault::ZeroFrame},
        {"DQBUFError", Fault::DQBUFError},               {"StreamOffHangs", Fault::StreamOffHangs},
        {"FlushHangs", Fault::FlushHangs},               {"NodeOpenFailure", Fault::NodeOpenFailure},
        {"DocumentCorrupt", Fault::DocumentCorrupt},
    };
    for (const auto& [text, fault] : names)
        if (name == text)
            return fault;
    throw std::invalid_argument("unknown fault '" + name + "'");
}

} }
