#pragma once

#include "base/Object.h"

#include <cstdint>

namespace QEL { namespace Base {

// A range of a port's address space. Ranges are ordered so that overlapping
// ranges compare as equivalent: a map keyed by them finds the register that
// holds an address with a one-byte range.
class AddressRange : public virtual QEL::System::Object {
public:
    AddressRange() = default;
    AddressRange(std::uint64_t address, std::uint64_t size);
    AddressRange(const AddressRange&) = default;
    AddressRange& operator=(const AddressRange&) = default;

    std::uint64_t GetAddress() const { return address; }
    std::uint64_t GetSize() const { return size; }
    // Last address inside the range.
    std::uint64_t GetLast() const { return address + (size - 1); }
    bool Contains(std::uint64_t x) const { return x >= address && x - address < size; }

    // Entirely before `other`.
    bool operator<(const AddressRange& other) const
    {
        return address < other.address && other.address - address >= size;
    }
    bool operator>(const AddressRange& other) const { return other < *this; }

private:
    std::uint64_t address = 0;
    std::uint64_t size = 0;
};

} }
