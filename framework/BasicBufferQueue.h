#pragma once

#include "framework/BaseRoles.h"
#include "framework/BasicModule.h"
#include "framework/EventSource.h"
#include "support/Allocator.h"
#include "support/BasicLockable.h"

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace QEL { namespace Base {

using BufferInfos = std::map<BUFFER_INFO_CMD, InfoPtr>;
using SupportedBufferInfos = std::set<BUFFER_INFO_CMD>;

// The buffer module: memory of the consumer or of the producer, and the infos
// of the last frame that went into it.
class BasicBuffer : public virtual Buffer {
public:
    virtual void SetInfos(const std::shared_ptr<const BufferInfos>& infos, bool incomplete, bool imagePresent) = 0;
    virtual InfoPtr GetInfo(BUFFER_INFO_CMD cmd) = 0;
    virtual std::size_t GetInfoSize(BUFFER_INFO_CMD cmd, INFO_DATATYPE* type) = 0;
    virtual void* GetBase() const = 0;
    virtual std::size_t GetSize() const = 0;
    virtual void* GetUserPointer() const = 0;
};

// Owns every announced buffer of a data stream and keeps each in exactly one
// place: the delivered pool, the input queue, the used pool (given to the
// driver), the one buffer being filled, or the output queue. Callers hold the
// queue's mutex; the queue takes a buffer's mutex after its own.
class BasicBufferQueue : public Tools::BasicLockable<EventSource> {
public:
    enum State : std::uint32_t { Delivered = 0, Queued = 1, Acquiring = 2, Output = 3 };

    class InternalBuffer : public BasicModule<Tools::BasicLockable<BasicBuffer>> {
    public:
        InternalBuffer(const BasicBufferQueue* owner, const std::string& tlType, void* base, std::size_t size,
                       void* userPointer, const SupportedBufferInfos& supportedInfos,
                       std::shared_ptr<QEL::System::Buffer> allocation = nullptr);

        std::string GetTypeName() const override { return "TLBuffer"; }
        std::int32_t GetHandleType() const override { return 6; }

        void SetInfos(const std::shared_ptr<const BufferInfos>& infos, bool incomplete, bool imagePresent) override;
        InfoPtr GetInfo(BUFFER_INFO_CMD cmd) override;
        std::size_t GetInfoSize(BUFFER_INFO_CMD cmd, INFO_DATATYPE* type) override;
        void* GetBase() const override;
        std::size_t GetSize() const override;
        void* GetUserPointer() const override;

    private:
        friend class BasicBufferQueue;

        void CheckAvailable() const;
        void SetState(State newState);
        bool Overlaps(const std::uint8_t* first, std::size_t length) const;
        std::vector<std::uint8_t> MakeBundle() const;
        // Releases the memory; `*base` gets the consumer's pointer, null for producer memory.
        void Release(void** base, void** userPointer);

        const BasicBufferQueue* owner;
        State state = Delivered;
        std::shared_ptr<QEL::System::Buffer> allocation;
        void* base;
        std::size_t size;
        void* userPointer;
        bool newData = false;
        bool incomplete = true;
        bool imagePresent = false;
        SupportedBufferInfos supportedInfos;
        std::shared_ptr<const BufferInfos> infos;
        std::string tlType;
    };

    using BufferPtr = std::shared_ptr<InternalBuffer>;

    explicit BasicBufferQueue(const std::string& tlType, const SupportedBufferInfos& supportedInfos = {},
                              std::shared_ptr<QEL::System::Allocator> allocator = nullptr);
    ~BasicBufferQueue() override;

    // EventSource: the output queue is what EVENT_NEW_BUFFER delivers.
    std::shared_ptr<EventDataParser> GetEventDataParser() const override { return parser; }
    DataSignal& GetDataSignal() override { return dataSignal; }
    DataSignal& GetInputSignal() { return inputSignal; }
    std::size_t GetCount() const override { return outputQueue.size(); }
    bool IsEmpty() const override { return outputQueue.empty(); }
    void GetData(void* data, std::size_t* size) override;
    void Flush() override;

    // The data stream's side.
    BufferPtr AnnounceBuffer(void* base, std::size_t size, void* userPointer);
    BufferPtr AllocateBuffer(std::size_t size, void* userPointer);
    BufferPtr GetBufferByIndex(std::uint32_t index) const;
    void QueueBuffer(const std::shared_ptr<Buffer>& buffer);
    void RevokeBuffer(const std::shared_ptr<Buffer>& buffer, void** base, void** userPointer);
    void FlushQueue(ACQ_QUEUE_TYPE operation);
    InfoPtr GetBufferInfo(const std::shared_ptr<Buffer>& buffer, BUFFER_INFO_CMD cmd);
    std::size_t GetBufferInfoSize(const std::shared_ptr<Buffer>& buffer, BUFFER_INFO_CMD cmd, INFO_DATATYPE* type);
    bool BelongsToQueue(const std::shared_ptr<Buffer>& buffer) const;
    std::size_t GetAnnouncedCount() const { return announced.size(); }
    std::size_t GetSmallestBufferSize() const;
    std::size_t GetQueuedCount() const { return inputQueue.size() + usedCount; }
    std::size_t GetAwaitDeliveryCount() const { return outputQueue.size(); }
    std::uint64_t GetDeliveredCount() const { return deliveredCount; }
    std::uint64_t GetFinishedCount() const { return finishedCount; }
    void ResetDeliveredCount() { deliveredCount = 0; }
    void RevokeAll();

    // The stream channel's side, in the order of a frame's life.
    BufferPtr TakeFromInputQueue();
    void ReturnToInputQueue(const std::shared_ptr<Buffer>& buffer);
    void BeginAcquisition(const std::shared_ptr<Buffer>& buffer);
    void FinishAcquisition(const std::shared_ptr<Buffer>& buffer);

private:
    BufferPtr CheckBuffer(const std::shared_ptr<Buffer>& buffer) const;
    BufferPtr AddBuffer(BufferPtr buffer);
    void CheckNoneInUse(bool acquisitionToo) const;
    void Fire(DataSignal& signal);
    // Moves of the frame path: a buffer enters or leaves a pool or the input
    // queue on a node left behind by an earlier move, so that a running
    // stream does not allocate. `Leave` tells whether the buffer was there.
    void Enter(std::set<BufferPtr>& pool, const BufferPtr& buffer);
    bool Leave(std::set<BufferPtr>& pool, const BufferPtr& buffer);
    void EnterInput(const BufferPtr& buffer, bool atFront);
    void LeaveInputFront();

    DataSignal dataSignal;
    DataSignal inputSignal;
    std::shared_ptr<EventDataParser> parser;
    std::shared_ptr<QEL::System::Allocator> allocator;
    std::vector<BufferPtr> announced;
    bool producerAllocated = false;
    std::set<BufferPtr> deliveredPool;
    std::list<BufferPtr> inputQueue;
    std::set<BufferPtr> usedPool;
    std::size_t usedCount = 0;
    BufferPtr acquisitionBuffer;
    std::deque<BufferPtr> outputQueue;
    std::vector<std::set<BufferPtr>::node_type> spareSetNodes;
    std::list<BufferPtr> spareListNodes;
    std::string tlType;
    SupportedBufferInfos supportedInfos;
    std::uint64_t finishedCount = 0;
    std::uint64_t deliveredCount = 0;
};

} }
