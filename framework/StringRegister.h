#pragma once

#include "framework/Register.h"
#include "support/Signal.h"

#include <string>

namespace QEL { namespace Base {

// A register that holds a zero-terminated text; one byte is kept for the terminator.
class StringRegister : public virtual Register {
public:
    using PreReadSignal = Tools::Signal<void(StringRegister&)>;
    using PreWriteSignal = Tools::Signal<void(const std::string&, StringRegister&)>;
    using PostWriteSignal = Tools::Signal<void(StringRegister&)>;

    StringRegister(std::uint64_t address, std::uint64_t size, std::uint32_t accessMode);
    StringRegister(std::uint64_t address, std::uint64_t size, const std::string& text, std::uint32_t accessMode);

    AddressRange GetAddressRange() const override { return range; }
    std::uint32_t GetAccessMode() const override { return accessMode; }
    void SetAccessMode(std::uint32_t mode) { accessMode = mode; }

    bool HasValue() const { return hasValue; }
    const std::string& GetValue() const;
    void SetValue(const std::string& text);
    void ResetValue() { hasValue = false; }

    PreReadSignal& GetPreReadSignal() { return preRead; }
    PreWriteSignal& GetPreWriteSignal() { return preWrite; }
    PostWriteSignal& GetPostWriteSignal() { return postWrite; }

    void Read(std::uint64_t offset, void* buffer, std::size_t* size) override;
    void Write(std::uint64_t offset, const void* buffer, std::size_t* size) override;

private:
    std::string Block() const;

    AddressRange range;
    std::string text;
    std::uint32_t accessMode;
    PreReadSignal preRead;
    PreWriteSignal preWrite;
    PostWriteSignal postWrite;
    bool hasValue = false;
};

} }
