#pragma once

#include "base/Info.h"
#include "framework/AddressRange.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace QEL { namespace Base {

enum AccessMode : std::uint32_t { AccessNone = 0, AccessRead = 1, AccessWrite = 2, AccessReadWrite = 3 };

inline bool CanRead(std::uint32_t mode) { return mode == AccessRead || mode == AccessReadWrite; }
inline bool CanWrite(std::uint32_t mode) { return mode == AccessWrite || mode == AccessReadWrite; }

// One object of a port's address space; it decides what a read or a write of
// its range means. `offset` counts from the register's first address.
class Register : public virtual QEL::System::Object {
public:
    virtual AddressRange GetAddressRange() const = 0;
    virtual void Read(std::uint64_t offset, void* buffer, std::size_t* size) = 0;
    virtual void Write(std::uint64_t offset, const void* buffer, std::size_t* size) = 0;
    virtual std::uint32_t GetAccessMode() const = 0;
};

// A read-only register that mirrors an info value of its module.
class InfoRegister : public virtual Register {
public:
    virtual bool HasInfo() const = 0;
    virtual void SetInfo(const InfoPtr& info) = 0;
    virtual void ResetInfo() = 0;
    virtual InfoPtr GetInfo() const = 0;
    virtual void SetAccessMode(std::uint32_t mode) = 0;
};

enum class AccessKind { Read, Write };

// The first tests of every access: the pointers and a size above zero.
void CheckAccessArguments(const void* buffer, const std::size_t* size);

// The tests every register runs before an access, in their fixed order:
// pointers, size, the range inside the register, and (unless skipped) the
// access mode.
void CheckRegisterAccess(const void* buffer, const std::size_t* size, std::uint64_t offset, std::uint64_t registerSize,
                         AccessKind kind, std::uint32_t accessMode, bool checkMode = true);

} }
