#pragma once

#include "framework/Register.h"

#include <map>
#include <memory>
#include <vector>

namespace QEL { namespace Base {

// The ordered register space of a port. An access may span registers that lie
// back to back; a gap or an inaccessible register ends it.
class RegisterMap {
public:
    void Add(const std::shared_ptr<Register>& reg);
    std::shared_ptr<Register> Find(std::uint64_t address) const;
    void Clear() { registers.clear(); }
    bool Empty() const { return registers.empty(); }

    void Read(std::uint64_t address, void* buffer, std::size_t* size) const;
    void Write(std::uint64_t address, const void* buffer, std::size_t* size) const;

private:
    std::map<AddressRange, std::shared_ptr<Register>> registers;
};

} }
