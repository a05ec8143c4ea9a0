#include "framework/RegisterMap.h"

#include "base/BaseException.h"

#include <boost/container/small_vector.hpp>

#include <algorithm>

namespace QEL { namespace Base {

namespace {

[[noreturn]] void InvalidAddress() { throw Exception("Invalid address passed.", GC_ERR_INVALID_ADDRESS); }

// The registers one access covers; a GenApi access covers one or a few, so
// they stay off the heap.
using Pieces = boost::container::small_vector<std::pair<AddressRange, Register*>, 4>;

}

void RegisterMap::Add(const std::shared_ptr<Register>& reg)
{
    if (!reg)
        throw Exception("No register passed.", GC_ERR_INVALID_PARAMETER);
    AddressRange range = reg->GetAddressRange();
    if (registers.count(range) != 0)
        throw Exception("Register would overlap an existing register.", GC_ERR_INVALID_PARAMETER);
    registers.emplace(range, reg);
}

std::shared_ptr<Register> RegisterMap::Find(std::uint64_t address) const
{
    auto it = registers.find(AddressRange(address, 1));
    if (it == registers.end())
        throw Exception("Register address invalid.", GC_ERR_INVALID_PARAMETER);
    if (!it->second)
        throw Exception("Invalid register found.", GC_ERR_ERROR);
    return it->second;
}

namespace {

Pieces Collect(const std::map<AddressRange, std::shared_ptr<Register>>& registers, std::uint64_t address,
               std::size_t size, AccessKind kind)
{
    const AddressRange request(address, size);
    const std::uint64_t last = request.GetLast();
    auto it = registers.lower_bound(request);
    if (it == registers.end())
        InvalidAddress();
    Pieces collected;
    for (; it != registers.end(); ++it) {
        if (!it->second)
            continue;
        const AddressRange& range = it->first;
        if (range.GetAddress() > last)
            break;
        const std::uint32_t mode = it->second->GetAccessMode();
        if (kind == AccessKind::Read && (mode == AccessNone || mode == AccessWrite))
            throw Exception("Register not accessible.", GC_ERR_INVALID_PARAMETER);
        if (kind == AccessKind::Write && mode < AccessWrite)
            throw Exception("Register not accessible.", GC_ERR_ACCESS_DENIED);
        if (collected.empty() ? !range.Contains(address) : range.GetAddress() != collected.back().first.GetLast() + 1)
            InvalidAddress();
        collected.emplace_back(range, it->second.get());
    }
    if (collected.empty() || collected.back().first.GetLast() < last)
        InvalidAddress();
    return collected;
}

// Runs `access` on each piece of the request and returns the bytes done. A
// failure after some bytes were done ends the access early instead of failing it.
template <class Access>
std::size_t Transfer(const Pieces& pieces, std::uint64_t address,
                     std::size_t size, const char* incomplete, bool isWrite, Access access)
{
    std::size_t total = 0;
    try {
        for (const auto& [range, reg] : pieces) {
            const std::uint64_t from = std::max(range.GetAddress(), address);
            const std::uint64_t offset = from - range.GetAddress();
            const std::size_t wanted = std::min<std::uint64_t>(size - (from - address), range.GetSize() - offset);
            std::size_t n = wanted;
            access(*reg, offset, from - address, &n);
            total += n;
            if (n < wanted)
                throw Exception(incomplete, GC_ERR_ERROR);
        }
    } catch (const Exception& e) {
        // A value that a pre-write slot refused is an invalid value for the consumer.
        if (isWrite && e.GetCode() == GC_ERR_INVALID_PARAMETER)
            throw Exception("Value cannot be written to port.", GC_ERR_INVALID_VALUE);
        if (total == 0)
            throw;
    } catch (...) {
        if (total == 0)
            throw;
    }
    return total;
}

}

void RegisterMap::Read(std::uint64_t address, void* buffer, std::size_t* size) const
{
    const Pieces pieces = Collect(registers, address, *size, AccessKind::Read);
    auto* bytes = static_cast<std::uint8_t*>(buffer);
    *size = Transfer(pieces, address, *size, "Read incomplete.", false,
                     [bytes](Register& reg, std::uint64_t offset, std::uint64_t at, std::size_t* n) {
                         reg.Read(offset, bytes + at, n);
                     });
}

void RegisterMap::Write(std::uint64_t address, const void* buffer, std::size_t* size) const
{
    const Pieces pieces = Collect(registers, address, *size, AccessKind::Write);
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    *size = Transfer(pieces, address, *size, "Write incomplete.", true,
                     [bytes](Register& reg, std::uint64_t offset, std::uint64_t at, std::size_t* n) {
                         reg.Write(offset, bytes + at, n);
                     });
}

} }
