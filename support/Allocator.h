#pragma once

#include "base/Object.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace QEL { namespace System {

class Buffer : public virtual Object {
public:
    virtual void* GetData() const = 0;
    virtual std::size_t GetSize() const = 0;
};

class Allocator : public virtual Object {
public:
    virtual std::shared_ptr<Buffer> Allocate(std::size_t size) = 0;
};

// Heap allocator; the contents of its buffers are not initialised.
class BasicAllocator : public virtual Allocator {
public:
    class BasicBuffer : public virtual Buffer {
    public:
        explicit BasicBuffer(std::size_t size);
        void* GetData() const override { return data.get(); }
        std::size_t GetSize() const override { return size; }

    private:
        std::unique_ptr<std::uint8_t[]> data;
        std::size_t size;
    };

    std::shared_ptr<Buffer> Allocate(std::size_t size) override;
};

} }
