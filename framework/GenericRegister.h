#pragma once

#include "base/BaseException.h"
#include "framework/Register.h"
#include "support/Signal.h"

#include <cstring>

namespace QEL { namespace Base {

// A register that holds one plain value. Modules customise it through its
// signals: a pre-read slot refreshes the value, a pre-write slot validates or
// refuses it by throwing, a post-write slot reacts to it.
template <class T>
class GenericRegister : public virtual Register {
public:
    using PreReadSignal = Tools::Signal<void(GenericRegister<T>&)>;
    using PreWriteSignal = Tools::Signal<void(const T&, GenericRegister<T>&)>;
    using PostWriteSignal = Tools::Signal<void(GenericRegister<T>&)>;

    GenericRegister(std::uint64_t address, std::uint32_t accessMode)
        : address(address), accessMode(accessMode)
    {
        AddressRange(address, sizeof(T));
    }
    GenericRegister(std::uint64_t address, T value, std::uint32_t accessMode)
        : address(address), value(value), hasValue(true), accessMode(accessMode)
    {
        AddressRange(address, sizeof(T));
    }

    AddressRange GetAddressRange() const override { return AddressRange(address, sizeof(T)); }
    std::uint32_t GetAccessMode() const override { return accessMode; }
    void SetAccessMode(std::uint32_t mode) { accessMode = mode; }

    bool HasValue() const { return hasValue; }
    T GetValue() const
    {
        if (!hasValue)
            throw Exception("Register not initialized.", GC_ERR_ERROR);
        return value;
    }
    void SetValue(T v)
    {
        value = v;
        hasValue = true;
    }
    void ResetValue() { hasValue = false; }

    PreReadSignal& GetPreReadSignal() { return preRead; }
    PreWriteSignal& GetPreWriteSignal() { return preWrite; }
    PostWriteSignal& GetPostWriteSignal() { return postWrite; }

    void Read(std::uint64_t offset, void* buffer, std::size_t* size) override
    {
        CheckRegisterAccess(buffer, size, offset, sizeof(T), AccessKind::Read, accessMode);
        preRead(*this);
        if (!hasValue)
            throw Exception("Register not initialized.", GC_ERR_ERROR);
        std::memcpy(buffer, reinterpret_cast<const unsigned char*>(&value) + offset, *size);
    }

    void Write(std::uint64_t offset, const void* buffer, std::size_t* size) override
    {
        CheckRegisterAccess(buffer, size, offset, sizeof(T), AccessKind::Write, accessMode);
        if (*size < sizeof(T)) {
            // A partial write merges with the old value, so that one must be fresh.
            if (accessMode == AccessReadWrite)
                preRead(*this);
            if (!hasValue)
                throw Exception("Register not initialized.", GC_ERR_ERROR);
        }
        T newValue = value;
        std::memcpy(reinterpret_cast<unsigned char*>(&newValue) + offset, buffer, *size);
        preWrite(newValue, *this);
        SetValue(newValue);
        try {
            postWrite(*this);
        } catch (...) {
            // The write has taken place; a failing reaction does not undo it.
        }
    }

private:
    std::uint64_t address;
    T value{};
    bool hasValue = false;
    std::uint32_t accessMode;
    PreReadSignal preRead;
    PreWriteSignal preWrite;
    PostWriteSignal postWrite;
};

} }
