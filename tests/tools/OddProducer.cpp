// A producer that answers in ways a careful consumer must survive: no error
// text at all, and 32-bit infos that come back two bytes short.
#include "base/GenTL.h"

#include <cstring>

extern "C" {

__attribute__((visibility("default"))) GC_ERROR GCInitLib() { return GC_ERR_SUCCESS; }
__attribute__((visibility("default"))) GC_ERROR GCCloseLib() { return GC_ERR_SUCCESS; }

__attribute__((visibility("default"))) GC_ERROR GCGetLastError(GC_ERROR* code, char* text, size_t* size)
{
    if (code)
        *code = GC_ERR_ERROR;
    if (size)
        *size = 0;
    (void)text;
    return GC_ERR_SUCCESS;
}

__attribute__((visibility("default"))) GC_ERROR GCGetInfo(TL_INFO_CMD command, INFO_DATATYPE* type, void* buffer,
                                                          size_t* size)
{
    if (command == TL_INFO_ID)
        return GC_ERR_ERROR;
    if (type)
        *type = INFO_DATATYPE_INT32;
    if (buffer)
        std::memset(buffer, 0x7F, 2);
    *size = 2;
    return GC_ERR_SUCCESS;
}
}
