#pragma once

#include "gencp/EventChannel.h"
#include "support/BasicLockable.h"
#include "support/ByteOrder.h"
#include "support/Condition.h"
#include "transport/Transfer.h"

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace QEL {
namespace LibCSI { class EndpointHandler; }
namespace TransportLayer {

class ControlChannel;

// The transport half of a camera's event channel: a ring of receive buffers
// on the event endpoint, transfers joined into packets and handed to the
// GenCP half, and a thread that restarts the channel after an error with a
// growing delay. This transport reports no event support, so the driver
// handler does not make one; the class stands ready for a camera that does.
class EventChannel : public Tools::BasicLockable<Base::GenCP::EventChannel>,
                     public std::enable_shared_from_this<EventChannel> {
public:
    // An event packet as the event endpoint carries it: the prefix "CSIE",
    // flags, command ID, length and request ID, then the payload; no CRC.
    class Packet : public Base::GenCP::Packet {
    public:
        static constexpr std::size_t HeadSize = 12;
        Packet(const std::uint8_t* data, std::size_t size);
        explicit Packet(std::size_t payloadSize);

        void SetFlags(std::uint16_t flags) override { Put16(4, flags); }
        std::uint16_t GetStatus() const override { return Get16(4); }
        void SetCommandId(std::uint16_t id) override { Put16(6, id); }
        std::uint16_t GetCommandId() const override { return Get16(6); }
        void SetRequestId(std::uint16_t id) override { Put16(10, id); }
        std::uint16_t GetRequestId() const override { return Get16(10); }
        std::uint8_t* GetPayload() override { return bytes.data() + HeadSize; }
        std::uint16_t GetPayloadSize() const override { return Get16(8); }
        std::int32_t GetByteOrder() const override { return 0; }

    private:
        void Put16(std::size_t at, std::uint16_t value) { QEL::System::PutLE16(&bytes[at], value); }
        std::uint16_t Get16(std::size_t at) const { return QEL::System::GetLE16(&bytes[at]); }
        std::vector<std::uint8_t> bytes;
    };

    enum State : std::int32_t { Stopped = 0, Running = 1, Failed = 2, WaitingToRestart = 3, Stopping = 4 };
    static constexpr std::uint32_t MinTransferLength = 12;
    static constexpr std::uint32_t MaxTransferLength = 65547;
    static constexpr std::uint32_t MaxRetryDelayMs = 10000;

    static std::shared_ptr<EventChannel> Create(const std::shared_ptr<ControlChannel>& controlChannel,
                                                const std::shared_ptr<LibCSI::EndpointHandler>& handler,
                                                std::uint32_t transferCount);
    EventChannel(const std::shared_ptr<ControlChannel>& controlChannel,
                 const std::shared_ptr<LibCSI::EndpointHandler>& handler, std::uint32_t transferCount);
    ~EventChannel() override;
    EventChannel(const EventChannel&) = delete;
    EventChannel& operator=(const EventChannel&) = delete;

    std::size_t GetMaxPayload() const override { return maximumTransferLength - Packet::HeadSize; }
    bool HasAcknowledgeSupport() const override { return false; }
    std::shared_ptr<Base::GenCP::Packet> CreatePacket(std::size_t payloadSize) override;
    void SendPacket(const std::shared_ptr<Base::GenCP::Packet>& packet) override;

    // For tests and diagnostics.
    State GetState() const;
    std::uint32_t GetRetryDelay() const;
    std::size_t GetBuffersInFlight() const;

private:
    using Buffer = std::vector<std::uint8_t>;
    using BufferPtr = std::shared_ptr<Buffer>;

    void Start();
    void Enter(State next);
    void OnTransfer(Buffer* buffer, TransferResult result, std::int32_t size);
    void HandleTransfer(Buffer* buffer, TransferResult result, std::int32_t size);
    void Abort(const std::string& reason);
    void SubmitFreeBuffers();
    void CheckReceived();
    void Restart();
    void DisableEvent();
    void Run();
    BufferPtr TakeInFlight(Buffer* buffer, bool& oldest);
    void GiveBack(const BufferPtr& buffer) { freeBuffers.push_back(buffer); }

    std::shared_ptr<ControlChannel> control;
    std::shared_ptr<LibCSI::EndpointHandler> handler;
    State state = Stopped;
    bool threadRunning = false;
    System::Condition threadCondition, endCondition;
    std::uint32_t maximumTransferLength = 0;
    std::uint32_t maximumPacketSize = 0;
    std::uint32_t transfersPerEvent = 0;
    std::uint32_t transferCount = 0;
    std::list<BufferPtr> freeBuffers, inFlight;
    std::list<std::pair<BufferPtr, std::size_t>> received;
    bool firstPacketError = false;
    bool retryNow = false;
    std::chrono::steady_clock::time_point retryTime{};
    std::uint32_t retryDelay = 0;
    std::thread thread;
};

} }
