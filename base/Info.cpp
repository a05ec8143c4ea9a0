#include "base/Info.h"

#include "base/BaseException.h"

#include <cstring>
#include <new>

namespace QEL { namespace Base {

void Info::Read(void* buffer, std::size_t* size) const
{
    if (!size)
        throw Exception("No size passed.", GC_ERR_INVALID_PARAMETER);
    if (!buffer) {
        *size = GetSize();
        return;
    }
    if (*size < GetSize())
        throw Exception("Buffer too small.", GC_ERR_BUFFER_TOO_SMALL);
    CopyTo(buffer);
    *size = GetSize();
}

std::uint64_t NumericValue(const Info& info)
{
    std::uint64_t number = 0;
    if (!info.ReadNumber(number))
        throw Exception("Unexpected info type retrieved.", GC_ERR_ERROR);
    return number;
}

StringInfo::StringInfo(const std::string& text) : value(text.c_str()) {}

StringInfo::StringInfo(const char* chars, std::size_t length)
{
    if (!chars)
        throw Exception("No string passed.", GC_ERR_INVALID_PARAMETER);
    value.assign(chars, strnlen(chars, length));
}

void StringInfo::CopyTo(void* buffer) const { std::memcpy(buffer, value.c_str(), value.size() + 1); }

StringListInfo::StringListInfo(const std::vector<std::string>& strings)
{
    for (const std::string& s : strings) {
        std::string cut(s.c_str());
        if (cut.empty())
            throw Exception("Emtpy strings are not supported.", GC_ERR_INVALID_PARAMETER);
        value.push_back(cut);
    }
}

StringListInfo::StringListInfo(const char* chars, std::size_t length)
{
    if (!chars)
        throw Exception("No string passed.", GC_ERR_INVALID_PARAMETER);
    std::string pending;
    for (std::size_t i = 0; i < length; ++i) {
        if (chars[i] != '\0') {
            pending += chars[i];
            continue;
        }
        if (i == 0)
            continue;
        if (chars[i - 1] == '\0')
            return;
        value.push_back(pending);
        pending.clear();
    }
    if (!pending.empty())
        value.push_back(pending);
}

std::size_t StringListInfo::GetSize() const
{
    std::size_t size = 1;
    for (const std::string& s : value)
        size += s.size() + 1;
    return value.empty() ? 2 : size;
}

void StringListInfo::CopyTo(void* buffer) const
{
    auto* out = static_cast<char*>(buffer);
    for (const std::string& s : value) {
        std::memcpy(out, s.c_str(), s.size() + 1);
        out += s.size() + 1;
    }
    *out++ = '\0';
    if (value.empty())
        *out = '\0';
}

BufferInfo::BufferInfo(const void* data, std::size_t size)
{
    if (!data)
        throw Exception("No buffer passed.", GC_ERR_INVALID_PARAMETER);
    try {
        auto bytes = static_cast<const std::uint8_t*>(data);
        value.assign(bytes, bytes + size);
    } catch (const std::bad_alloc&) {
        throw Exception("Could not allocate array.", GC_ERR_ERROR);
    }
}

void BufferInfo::Read(void* buffer, std::size_t* size) const
{
    if (size && buffer && value.empty())
        return;
    Info::Read(buffer, size);
}

void BufferInfo::CopyTo(void* buffer) const
{
    if (!value.empty())
        std::memcpy(buffer, value.data(), value.size());
}

std::string TLTypeToString(std::int32_t type)
{
    static const char* const names[] = {"Mixed", "Custom", "GEV", "CL",  "IIDC",     "UVC",
                                        "CXP",   "CLHS",   "U3V", "Ethernet", "PCI", "CSI-2"};
    if (type < 0 || type >= static_cast<std::int32_t>(sizeof names / sizeof names[0]))
        throw Exception("Invalid TL type passed.", GC_ERR_INVALID_PARAMETER);
    return names[type];
}

} }
