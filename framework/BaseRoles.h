#pragma once

// The abstract roles of the GenTL modules. Each concrete module sits on the
// template stack over one of them.
#include "framework/BaseModule.h"
#include "framework/BasePort.h"

#include <cstdint>
#include <memory>
#include <string>

namespace QEL { namespace Base {

class System;
class Interface;
class Device;
class DataStream;

class RemoteDevice : public virtual Port {};

class Buffer : public virtual Module {};

class System : public virtual Module, public virtual Port {
public:
    virtual void Close() = 0;
    virtual bool IsOpen() const = 0;
    virtual std::uint32_t GetNumInterfaces() = 0;
    virtual InfoPtr GetInterfaceID(std::uint32_t index) = 0;
    virtual InfoPtr GetInterfaceInfo(const std::string& id, INTERFACE_INFO_CMD cmd) = 0;
    virtual std::size_t GetInterfaceInfoSize(const std::string& id, INTERFACE_INFO_CMD cmd, INFO_DATATYPE* type) = 0;
    virtual std::shared_ptr<Interface> OpenInterface(const std::string& id) = 0;
    virtual bool UpdateInterfaceList(std::uint64_t timeout) = 0;
    virtual InfoPtr GetInfo(TL_INFO_CMD cmd) = 0;
    virtual std::size_t GetInfoSize(TL_INFO_CMD cmd, INFO_DATATYPE* type) = 0;
};

class Interface : public virtual Module, public virtual Port {
public:
    virtual void Close() = 0;
    virtual bool IsOpen() const = 0;
    virtual std::uint32_t GetNumDevices() = 0;
    virtual std::string GetDeviceID(std::uint32_t index) = 0;
    virtual InfoPtr GetDeviceInfo(const std::string& id, DEVICE_INFO_CMD cmd) = 0;
    virtual std::size_t GetDeviceInfoSize(const std::string& id, DEVICE_INFO_CMD cmd, INFO_DATATYPE* type) = 0;
    virtual std::shared_ptr<Device> OpenDevice(const std::string& id, DEVICE_ACCESS_FLAGS flags) = 0;
    virtual bool UpdateDeviceList(std::uint64_t timeout) = 0;
    virtual InfoPtr GetInfo(INTERFACE_INFO_CMD cmd) = 0;
    virtual std::size_t GetInfoSize(INTERFACE_INFO_CMD cmd, INFO_DATATYPE* type) = 0;
    virtual std::shared_ptr<System> GetParent() = 0;
};

class Device : public virtual Module, public virtual Port {
public:
    virtual void Close() = 0;
    virtual bool IsOpen() const = 0;
    virtual std::shared_ptr<Port> GetPort() = 0;
    virtual std::uint32_t GetNumDataStreams() = 0;
    virtual std::string GetDataStreamID(std::uint32_t index) = 0;
    virtual std::shared_ptr<DataStream> OpenDataStream(const std::string& id) = 0;
    virtual InfoPtr GetInfo(DEVICE_INFO_CMD cmd) = 0;
    virtual std::size_t GetInfoSize(DEVICE_INFO_CMD cmd, INFO_DATATYPE* type) = 0;
    virtual std::shared_ptr<Interface> GetParent() = 0;
};

class DataStream : public virtual Module, public virtual Port {
public:
    virtual void Close() = 0;
    virtual std::shared_ptr<Buffer> AnnounceBuffer(void* buffer, std::size_t size, void* userPointer) = 0;
    virtual std::shared_ptr<Buffer> AllocAndAnnounceBuffer(std::size_t size, void* userPointer) = 0;
    virtual std::shared_ptr<Buffer> GetBufferID(std::uint32_t index) = 0;
    virtual void QueueBuffer(const std::shared_ptr<Buffer>& buffer) = 0;
    virtual void RevokeBuffer(const std::shared_ptr<Buffer>& buffer, void** base, void** userPointer) = 0;
    virtual void StartAcquisition(ACQ_START_FLAGS startFlags, std::uint64_t numToAcquire) = 0;
    virtual void StopAcquisition(ACQ_STOP_FLAGS stopFlags) = 0;
    virtual void FlushQueue(ACQ_QUEUE_TYPE operation) = 0;
    virtual InfoPtr GetInfo(STREAM_INFO_CMD cmd) = 0;
    virtual std::size_t GetInfoSize(STREAM_INFO_CMD cmd, INFO_DATATYPE* type) = 0;
    virtual InfoPtr GetBufferInfo(const std::shared_ptr<Buffer>& buffer, BUFFER_INFO_CMD cmd) = 0;
    virtual std::size_t GetBufferInfoSize(const std::shared_ptr<Buffer>& buffer, BUFFER_INFO_CMD cmd,
                                          INFO_DATATYPE* type) = 0;
    virtual void GetBufferChunkData(const std::shared_ptr<Buffer>& buffer, SINGLE_CHUNK_DATA* chunkData,
                                    std::size_t* numChunks) = 0;
    // Multi-part buffers do not exist in this producer.
    virtual std::uint32_t GetNumBufferParts(const std::shared_ptr<Buffer>& buffer);
    virtual InfoPtr GetBufferPartInfo(const std::shared_ptr<Buffer>& buffer, std::uint32_t index,
                                      BUFFER_PART_INFO_CMD cmd);
    virtual std::size_t GetBufferPartInfoSize(const std::shared_ptr<Buffer>& buffer, std::uint32_t index,
                                              BUFFER_PART_INFO_CMD cmd, INFO_DATATYPE* type);
    virtual std::shared_ptr<Device> GetParent() = 0;
    virtual bool IsOpen() const = 0;
};

} }
