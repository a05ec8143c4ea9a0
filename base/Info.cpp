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

namespace {

template <class T> std::uint64_t ReadAs(const Info& info)
{
    T value{};
    std::size_t size = sizeof value;
    info.Read(&value, &size);
    return static_cast<std::uint64_t>(value);
}

bool IsNumeric(INFO_DATATYPE type)
{
    switch (type) {
    case INFO_DATATYPE_INT16:
    case INFO_DATATYPE_UINT16:
    case INFO_DATATYPE_INT32:
    case INFO_DATATYPE_UINT32:
    case INFO_DATATYPE_INT64:
    case INFO_DATATYPE_UINT64:
    case INFO_DATATYPE_FLOAT64:
    case INFO_DATATYPE_PTR:
    case INFO_DATATYPE_BOOL8:
    case INFO_DATATYPE_SIZET:
    case INFO_DATATYPE_PTRDIFF:
        return true;
    default:
        return false;
    }
}

} // namespace

std::uint64_t NumericValue(const Info& info)
{
    if (std::uint64_t number = 0; info.ReadNumber(number))
        return number;
    switch (IsNumeric(info.GetType()) ? info.GetSize() : 0) {
    case 1:
        return ReadAs<std::uint8_t>(info);
    case 2:
        return ReadAs<std::uint16_t>(info);
    case 4:
        return ReadAs<std::uint32_t>(info);
    case 8:
        return ReadAs<std::uint64_t>(info);
    default:
        throw Exception("Unexpected info type retrieved.", GC_ERR_ERROR);
    }
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
