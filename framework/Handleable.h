#pragma once

#include "support/Lockable.h"

#include <array>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <vector>

namespace QEL { namespace Base {

// Everything a GenTL handle can name. A handle is a pointer-sized word: the
// type in its top 8 bits and the table position + 1 below them (56 bits on a
// 64-bit target, 24 on a 32-bit one), so that it survives the consumer's
// void*. The tables hold weak pointers, so a handle keeps nothing alive and a
// dead object's handle fails cleanly.
class Handleable : public virtual QEL::System::Lockable {
public:
    static constexpr unsigned HandleBits = sizeof(void*) * 8;
    static constexpr unsigned TypeShift = HandleBits - 8;
    static constexpr std::uint64_t PositionMask = (std::uint64_t{1} << TypeShift) - 1;

    // The handle of `type` at table `position`; "Invalid index passed." when
    // the position does not fit below the type.
    static std::uint64_t Compose(std::uint8_t type, std::uint64_t position);

    ~Handleable() override;

    virtual std::int32_t GetHandleType() const = 0;

    std::uint64_t GetHandleId() const { return handleId; }

    static std::uint64_t GetHandle(const std::shared_ptr<Handleable>& object);
    static std::shared_ptr<Handleable> FromHandle(std::uint64_t handle);
    static std::shared_ptr<Handleable> FromHandle(const void* handle)
    {
        return FromHandle(static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(handle)));
    }

    struct Entry {
        std::weak_ptr<Handleable> object;
        const Handleable* address = nullptr;
    };

    struct Data {
        std::array<std::vector<Entry>, 256> tables;
        std::shared_mutex lock;
    };

private:
    std::uint64_t handleId = 0;
};

} }
