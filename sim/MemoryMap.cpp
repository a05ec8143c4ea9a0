#include "sim/MemoryMap.h"

#include <algorithm>
#include <stdexcept>

namespace QEL { namespace Sim {

MemoryMap::Field& MemoryMap::Add(std::uint64_t address, std::size_t size, bool writable)
{
    Field& field = fields[address];
    field.bytes.assign(size, 0);
    field.writable = writable;
    return field;
}

MemoryMap::Field& MemoryMap::AddValue(std::uint64_t address, std::size_t size, std::uint64_t value, bool writable)
{
    Field& field = Add(address, size, writable);
    for (std::size_t i = 0; i < size && i < 8; ++i)
        field.bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
    return field;
}

MemoryMap::Field& MemoryMap::AddString(std::uint64_t address, std::size_t size, const std::string& text, bool writable)
{
    Field& field = Add(address, size, writable);
    std::copy_n(text.begin(), std::min(text.size(), size - 1), field.bytes.begin());
    return field;
}

MemoryMap::Field& MemoryMap::AddBytes(std::uint64_t address, const std::vector<std::uint8_t>& bytes)
{
    Field& field = Add(address, bytes.size(), false);
    field.bytes = bytes;
    return field;
}

MemoryMap::Field& MemoryMap::At(std::uint64_t address)
{
    auto it = fields.find(address);
    if (it == fields.end())
        throw std::out_of_range("no camera field at this address");
    return it->second;
}

std::uint64_t MemoryMap::GetValue(std::uint64_t address)
{
    Field& field = At(address);
    if (field.onRead)
        field.onRead(field);
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < field.bytes.size() && i < 8; ++i)
        value |= std::uint64_t{field.bytes[i]} << (8 * i);
    return value;
}

void MemoryMap::SetValue(std::uint64_t address, std::uint64_t value)
{
    Field& field = At(address);
    for (std::size_t i = 0; i < field.bytes.size() && i < 8; ++i)
        field.bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::vector<std::pair<std::uint64_t, MemoryMap::Field*>> MemoryMap::Cover(std::uint64_t address, std::size_t size)
{
    std::vector<std::pair<std::uint64_t, Field*>> pieces;
    if (size == 0)
        return pieces;
    auto it = fields.upper_bound(address);
    if (it == fields.begin())
        return pieces;
    --it;
    std::uint64_t next = address;
    const std::uint64_t end = address + size;
    for (; it != fields.end() && next < end; ++it) {
        const std::uint64_t first = it->first, last = it->first + it->second.bytes.size();
        if (first > next || last <= next)
            return {};
        pieces.emplace_back(first, &it->second);
        next = last;
    }
    if (next < end)
        return {};
    return pieces;
}

MemoryMap::Status MemoryMap::Read(std::uint64_t address, std::uint8_t* out, std::size_t size)
{
    auto pieces = Cover(address, size);
    if (pieces.empty())
        return InvalidAddress;
    for (auto& [first, field] : pieces) {
        if (field->onRead)
            field->onRead(*field);
        const std::uint64_t from = std::max(first, address);
        const std::uint64_t to = std::min<std::uint64_t>(first + field->bytes.size(), address + size);
        std::copy(field->bytes.begin() + (from - first), field->bytes.begin() + (to - first), out + (from - address));
    }
    return Success;
}

MemoryMap::Status MemoryMap::Write(std::uint64_t address, const std::uint8_t* in, std::size_t size)
{
    auto pieces = Cover(address, size);
    if (pieces.empty())
        return InvalidAddress;
    for (auto& piece : pieces)
        if (!piece.second->writable)
            return WriteProtect;
    for (auto& [first, field] : pieces) {
        std::vector<std::uint8_t> updated = field->bytes;
        const std::uint64_t from = std::max(first, address);
        const std::uint64_t to = std::min<std::uint64_t>(first + field->bytes.size(), address + size);
        std::copy(in + (from - address), in + (to - address), updated.begin() + (from - first));
        if (field->onWrite) {
            Status status = field->onWrite(*field, updated);
            if (status != Success)
                return status;
        }
        field->bytes = updated;
    }
    return Success;
}

} }
