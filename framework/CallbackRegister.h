#pragma once

#include "framework/Register.h"
#include "support/Signal.h"

namespace QEL { namespace Base {

// A range whose reads and writes are done by the module's slots; a slot may
// shorten the size, which the port treats as an incomplete access.
class CallbackRegister : public virtual Register {
public:
    using ReadSignal = Tools::Signal<void(std::uint64_t, void*, std::size_t*, CallbackRegister&)>;
    using WriteSignal = Tools::Signal<void(std::uint64_t, const void*, std::size_t*, CallbackRegister&)>;

    CallbackRegister(std::uint64_t address, std::uint64_t size, std::uint32_t accessMode, bool useAbsoluteAddress);

    AddressRange GetAddressRange() const override { return range; }
    std::uint32_t GetAccessMode() const override { return accessMode; }
    void SetAccessMode(std::uint32_t mode) { accessMode = mode; }

    ReadSignal& GetReadSignal() { return read; }
    WriteSignal& GetWriteSignal() { return write; }

    void Read(std::uint64_t offset, void* buffer, std::size_t* size) override;
    void Write(std::uint64_t offset, const void* buffer, std::size_t* size) override;

private:
    std::uint64_t Position(std::uint64_t offset) const { return useAbsoluteAddress ? offset + range.GetAddress() : offset; }

    AddressRange range;
    std::uint32_t accessMode;
    ReadSignal read;
    WriteSignal write;
    bool useAbsoluteAddress;
};

} }
