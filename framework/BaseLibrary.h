#pragma once

#include "base/Info.h"
#include "framework/BaseRoles.h"
#include "support/Lockable.h"

#include <cstddef>
#include <memory>

namespace QEL { namespace Base {

// The library role: answers GCGetInfo and owns the module tree while initialised.
class Library : public virtual QEL::System::Lockable {
public:
    virtual void Close() = 0;
    virtual bool IsOpen() const = 0;
    virtual InfoPtr GetInfo(TL_INFO_CMD command) const = 0;
    virtual std::size_t GetInfoSize(TL_INFO_CMD command, INFO_DATATYPE* type) const = 0;
    // The one System; TLOpen. Opened on first use, replaced when it was closed.
    virtual std::shared_ptr<System> GetSystem() = 0;
};

} }
