#include "framework/StringRegister.h"

#include "base/BaseException.h"
#include "support/Allocation.h"

#include <cstring>
#include <new>

namespace QEL { namespace Base {

StringRegister::StringRegister(std::uint64_t address, std::uint64_t size, std::uint32_t accessMode)
    : range(address, size), accessMode(accessMode)
{
}

StringRegister::StringRegister(std::uint64_t address, std::uint64_t size, const std::string& initial,
                               std::uint32_t accessMode)
    : range(address, size), accessMode(accessMode)
{
    SetValue(initial);
}

const std::string& StringRegister::GetValue() const
{
    if (!hasValue)
        throw Exception("Register not initialized.", GC_ERR_ERROR);
    return text;
}

void StringRegister::SetValue(const std::string& value)
{
    if (value.size() >= range.GetSize())
        throw Exception("String too long for register.", GC_ERR_INVALID_PARAMETER);
    text = value;
    hasValue = true;
}

// The register's whole space: the text followed by zeros.
std::string StringRegister::Block() const
{
    return Tools::Allocating("Could not allocate string.", [&] {
        std::string block(range.GetSize(), '\0');
        if (hasValue)
            block.replace(0, text.size(), text);
        return block;
    });
}

void StringRegister::Read(std::uint64_t offset, void* buffer, std::size_t* size)
{
    CheckRegisterAccess(buffer, size, offset, range.GetSize(), AccessKind::Read, accessMode);
    preRead(*this);
    if (!hasValue)
        throw Exception("Register not initialized.", GC_ERR_ERROR);
    std::string block = Block();
    std::memcpy(buffer, block.data() + offset, *size);
}

void StringRegister::Write(std::uint64_t offset, const void* buffer, std::size_t* size)
{
    CheckRegisterAccess(buffer, size, offset, range.GetSize(), AccessKind::Write, accessMode);
    const bool terminated = std::memchr(buffer, 0, *size) != nullptr;
    const bool needsOldText = offset != 0 || (*size < range.GetSize() && !terminated);
    if (needsOldText) {
        if (accessMode == AccessReadWrite)
            preRead(*this);
        if (!hasValue)
            throw Exception("Register not initialized.", GC_ERR_ERROR);
    }
    std::string block = Block();
    std::memcpy(&block[offset], buffer, *size);
    std::string newText = block.substr(0, block.find('\0'));
    preWrite(newText, *this);
    SetValue(newText);
    try {
        postWrite(*this);
    } catch (...) {
        // The write has taken place.
    }
}

} }
