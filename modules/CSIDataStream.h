#pragma once

#include "framework/BaseRoles.h"
#include "framework/BasicBufferQueue.h"
#include "framework/BasicEventQueue.h"
#include "framework/BasicModule.h"
#include "framework/BasicPort.h"
#include "framework/EventRecords.h"
#include "framework/GenericRegister.h"
#include "support/BasicLockable.h"
#include "support/Settings.h"
#include "support/TrackableObject.h"

#include <memory>
#include <string>

namespace QEL {
namespace TransportLayer { class StreamChannel; }
namespace CSI {

class Device;

using DataStreamStack =
    Tools::TrackableObject<Base::BasicPort<Base::BasicModule<Tools::BasicLockable<Base::DataStream>>>>;

// The GenTL data stream of a camera: the consumer's buffers in a buffer
// queue, filled by the stream channel, with the stream's registers and its
// own document.
class DataStream : public DataStreamStack {
public:
    static std::shared_ptr<DataStream> Create(const std::shared_ptr<Settings>& settings,
                                              const std::shared_ptr<TransportLayer::StreamChannel>& streamChannel,
                                              const std::string& deviceId, std::uint64_t streamIndex,
                                              const std::weak_ptr<Device>& parent);
    DataStream(const std::shared_ptr<Settings>& settings,
               const std::shared_ptr<TransportLayer::StreamChannel>& streamChannel, const std::string& deviceId,
               std::uint64_t streamIndex, const std::weak_ptr<Device>& parent);
    ~DataStream() override;

    std::string GetTypeName() const override { return "TLDataStream"; }
    std::int32_t GetHandleType() const override { return 5; }
    std::string GetPortName() const override { return "StreamPort"; }

    void Close() override;
    bool IsOpen() const override { return open; }
    std::shared_ptr<Base::Buffer> AnnounceBuffer(void* buffer, std::size_t size, void* userPointer) override;
    std::shared_ptr<Base::Buffer> AllocAndAnnounceBuffer(std::size_t size, void* userPointer) override;
    std::shared_ptr<Base::Buffer> GetBufferID(std::uint32_t index) override;
    void QueueBuffer(const std::shared_ptr<Base::Buffer>& buffer) override;
    void RevokeBuffer(const std::shared_ptr<Base::Buffer>& buffer, void** base, void** userPointer) override;
    void StartAcquisition(ACQ_START_FLAGS startFlags, std::uint64_t numToAcquire) override;
    void StopAcquisition(ACQ_STOP_FLAGS stopFlags) override;
    void FlushQueue(ACQ_QUEUE_TYPE operation) override;
    Base::InfoPtr GetInfo(STREAM_INFO_CMD command) override;
    std::size_t GetInfoSize(STREAM_INFO_CMD command, INFO_DATATYPE* type) override;
    Base::InfoPtr GetBufferInfo(const std::shared_ptr<Base::Buffer>& buffer, BUFFER_INFO_CMD command) override;
    std::size_t GetBufferInfoSize(const std::shared_ptr<Base::Buffer>& buffer, BUFFER_INFO_CMD command,
                                  INFO_DATATYPE* type) override;
    void GetBufferChunkData(const std::shared_ptr<Base::Buffer>& buffer, SINGLE_CHUNK_DATA* chunkData,
                            std::size_t* numChunks) override;
    std::shared_ptr<Base::Device> GetParent() override;
    Base::InfoPtr GetPortInfo(PORT_INFO_CMD command) const override;

    // `value` rounded to a multiple of `alignment`; an alignment of 0 makes the whole value the remainder.
    static std::uint64_t AlignSize(std::uint64_t value, std::uint64_t alignment, bool up);

private:
    using ErrorQueue = Base::BasicEventQueue<Base::ErrorData>;

    void Initialize();
    void AddRegisters();
    void RequireOpen() const;
    void CheckAnnounceDuringAcquisition(std::size_t size);
    std::uint64_t ManualMinimum();
    // The manual payload size's rules, each in one place: its register, that
    // the manual mode is on, and which sizes it takes (aligned, at least the
    // payload); each throws the register's own text.
    std::shared_ptr<Base::GenericRegister<std::uint64_t>> ManualSizeRegister();
    void RequireManualMode();
    void CheckManualSize(std::uint64_t value);

    bool open = false;
    std::shared_ptr<Settings> settings;
    std::shared_ptr<Base::BasicBufferQueue> bufferQueue;
    std::shared_ptr<ErrorQueue> errorQueue;
    std::string deviceId;
    std::shared_ptr<TransportLayer::StreamChannel> streamChannel;
    std::uint64_t streamIndex = 0;
    std::weak_ptr<Device> parent;
};

} }
