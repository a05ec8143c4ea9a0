#pragma once

#include "entry/GenTL.h"
#include "support/Object.h"

#include <cstddef>
#include <cstdint>

namespace QEL { namespace Base {

// The library seen from the exported functions: one operation per function.
class TransportLayer : public virtual System::Object {
public:
    virtual GC_ERROR GCGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) = 0;
    virtual GC_ERROR GCGetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize) = 0;
    virtual GC_ERROR GCInitLib() = 0;
    virtual GC_ERROR GCInitLibEx(uint32_t iFlags) = 0;
    virtual GC_ERROR GCCloseLib() = 0;
};

} }
