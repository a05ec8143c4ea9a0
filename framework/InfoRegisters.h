#pragma once

#include "base/BaseException.h"
#include "framework/Register.h"
#include "support/Signal.h"
#include "support/Allocation.h"

#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

namespace QEL { namespace Base {

// Shared body of the two info register families: an Info and a byte copy of
// its value, refreshed by a pre-read slot of the module.
template <class Derived, class I>
class BasicInfoRegister : public virtual InfoRegister {
public:
    using InfoType = std::remove_const_t<I>;
    using PreReadSignal = Tools::Signal<void(Derived&)>;

    BasicInfoRegister(std::uint64_t address, std::uint64_t size, std::uint32_t accessMode)
        : address(address), accessMode(accessMode)
    {
        const AddressRange checked(address, size); // refuses an empty or wrapping range
        static_cast<void>(checked);
        if (accessMode > AccessRead)
            throw Exception("Info registers are read only.", GC_ERR_INVALID_PARAMETER);
        Tools::Allocating("Could not allocate register memory.", [&] { bytes.assign(size, 0); });
    }

    AddressRange GetAddressRange() const override { return AddressRange(address, bytes.size()); }
    std::uint32_t GetAccessMode() const override { return accessMode; }
    void SetAccessMode(std::uint32_t mode) override
    {
        if (mode > AccessRead)
            throw Exception("Info registers are read only.", GC_ERR_INVALID_PARAMETER);
        accessMode = mode;
    }

    bool HasInfo() const override { return static_cast<bool>(info); }
    InfoPtr GetInfo() const override
    {
        if (!info)
            throw Exception("Register not initialized.", GC_ERR_ERROR);
        return info;
    }
    void ResetInfo() override { info.reset(); }

    void SetInfo(const InfoPtr& value) override
    {
        auto typed = std::dynamic_pointer_cast<const InfoType>(value);
        if (!typed)
            throw Exception("Invalid pointer type.", GC_ERR_INVALID_PARAMETER);
        SetTypedInfo(typed);
    }

    void SetTypedInfo(const std::shared_ptr<const InfoType>& value)
    {
        if (!value)
            throw Exception("Null pointer not allowed.", GC_ERR_NO_DATA);
        if (value->GetSize() > bytes.size())
            throw Exception("Info too long for register.", GC_ERR_INVALID_PARAMETER);
        std::fill(bytes.begin(), bytes.end(), 0);
        info = value;
        std::size_t size = bytes.size();
        value->Read(bytes.data(), &size);
    }

    PreReadSignal& GetPreReadSignal() { return preRead; }

    void Read(std::uint64_t offset, void* buffer, std::size_t* size) override
    {
        CheckRegisterAccess(buffer, size, offset, bytes.size(), AccessKind::Read, accessMode);
        preRead(static_cast<Derived&>(*this));
        if (!info)
            throw Exception("Register not initialized.", GC_ERR_ERROR);
        std::memcpy(buffer, bytes.data() + offset, *size);
    }

    void Write(std::uint64_t, const void*, std::size_t*) override
    {
        throw Exception("Write access not permitted.", GC_ERR_INVALID_PARAMETER);
    }

private:
    InfoPtr info;
    std::vector<std::uint8_t> bytes;
    std::uint64_t address;
    std::uint32_t accessMode;
    PreReadSignal preRead;
};

// Mirrors a fixed-size info value; the register is as wide as the value.
template <class I>
class FixedInfoRegister : public BasicInfoRegister<FixedInfoRegister<I>, I> {
public:
    FixedInfoRegister(std::uint64_t address, std::uint32_t accessMode)
        : BasicInfoRegister<FixedInfoRegister<I>, I>(address, sizeof(decltype(std::declval<const std::remove_const_t<I>&>().GetValue())), accessMode)
    {
    }
};

// Mirrors a string info value in a register of a given size; the rest is zeros.
template <class I>
class VariableInfoRegister : public BasicInfoRegister<VariableInfoRegister<I>, I> {
public:
    VariableInfoRegister(std::uint64_t address, std::uint64_t size, std::uint32_t accessMode)
        : BasicInfoRegister<VariableInfoRegister<I>, I>(address, size, accessMode)
    {
    }
};

} }
