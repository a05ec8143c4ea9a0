#pragma once

#include "base/GenTL.h"
#include "framework/Handleable.h"
#include "base/Info.h"

#include <cstddef>
#include <cstdint>

namespace QEL { namespace Base {

// A registered event as the exported functions see it.
class Event : public virtual Handleable {
public:
    virtual bool IsRegistered() const = 0;
    virtual void Flush() = 0;
    virtual void Kill() = 0;
    // Returns GC_ERR_TIMEOUT instead of throwing when a wait runs out.
    virtual GC_ERROR GetData(void* data, std::size_t* size, std::uint64_t timeout) = 0;
    virtual InfoPtr GetDataInfo(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd) const = 0;
    virtual std::size_t GetDataInfoSize(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd,
                                        INFO_DATATYPE* dataType) const = 0;
    virtual InfoPtr GetInfo(EVENT_INFO_CMD cmd) const = 0;
    virtual std::size_t GetInfoSize(EVENT_INFO_CMD cmd, INFO_DATATYPE* dataType) const = 0;
};

} }
