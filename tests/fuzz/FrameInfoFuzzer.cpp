// A finished frame's leader, payload and trailer of any sizes and contents,
// each in memory of exactly its size, read into the frame's information.
#include "transport/FrameInfo.h"
#include "tests/fuzz/FuzzInput.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace QEL;
    Fuzz::Input input(data, size);
    const auto result = input.Take<std::uint32_t>();
    const std::vector<std::uint8_t> leader = input.TakeBytes(input.TakeBelow(128));
    const std::vector<std::uint8_t> trailer = input.TakeBytes(input.TakeBelow(128));
    const std::vector<std::uint8_t> payload = input.TakeRest();
    // Copies on the heap of exactly each part's size, so that a read past one is seen.
    auto part = [](const std::vector<std::uint8_t>& bytes) {
        std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), copy.get());
        return copy;
    };
    const auto leaderCopy = part(leader), trailerCopy = part(trailer), payloadCopy = part(payload);
    lib_frame_transfer frame{};
    if (!leader.empty()) {
        frame.m_pLeader = reinterpret_cast<std::uintptr_t>(leaderCopy.get());
        frame.m_nLeaderSize = leader.size();
    }
    if (!trailer.empty()) {
        frame.m_pTrailer = reinterpret_cast<std::uintptr_t>(trailerCopy.get());
        frame.m_nTrailerSize = trailer.size();
    }
    if (!payload.empty()) {
        frame.m_pPayload = reinterpret_cast<std::uintptr_t>(payloadCopy.get());
        frame.m_nPayloadSize = payload.size();
    }
    const LibCSI::frame_info info = LibCSI::FrameInfoFromLeaderTrailer(frame, result);
    if (info.validSize != payload.size() || info.result != result)
        __builtin_trap();
    if (leader.size() < LibCSI::LeaderRecordSize && (info.frameId != 0 || info.width != 0 || info.payloadType != 0))
        __builtin_trap();
    return 0;
}
