#pragma once

#include "framework/Register.h"

#include <memory>

namespace QEL { namespace Base {

// A window onto a block of memory that the module owns; no signals.
class BufferRegister : public virtual Register {
public:
    BufferRegister(std::uint64_t address, std::uint64_t size, std::uint32_t accessMode);
    BufferRegister(std::uint64_t address, std::uint64_t size, std::shared_ptr<std::uint8_t[]> buffer,
                   std::uint64_t bufferSize, std::uint32_t accessMode);

    AddressRange GetAddressRange() const override { return range; }
    std::uint32_t GetAccessMode() const override { return accessMode; }
    void SetAccessMode(std::uint32_t mode) { accessMode = mode; }

    void SetBuffer(std::shared_ptr<std::uint8_t[]> buffer, std::uint64_t bufferSize);
    bool HasBuffer() const { return static_cast<bool>(buffer); }
    std::shared_ptr<std::uint8_t[]> GetBuffer() const;
    std::uint64_t GetBufferSize() const;
    void ResetBuffer();

    void Read(std::uint64_t offset, void* out, std::size_t* size) override;
    void Write(std::uint64_t offset, const void* in, std::size_t* size) override;

private:
    std::uint8_t* Check(std::uint64_t offset, const void* data, std::size_t* size, AccessKind kind) const;

    AddressRange range;
    std::uint32_t accessMode;
    std::shared_ptr<std::uint8_t[]> buffer;
    std::uint64_t bufferSize = 0;
};

} }
