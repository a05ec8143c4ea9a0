// The exported GenTL functions: each one traces itself, fetches the transport
// layer and hands the call on unchanged. Nothing may throw across this file.
#include "entry/CallTrace.h"
#include "entry/GenTL.h"
#include "entry/TransportLayerHandler.h"

namespace {

using QEL::Base::TraceParam;
using QEL::Base::TraceParams;

template <class Call>
GC_ERROR Exported(const char* name, TraceParams inputs, TraceParams outputs, Call call) noexcept
{
    try {
        // The transport layer installs the log, so fetch it first: the very
        // first call of the process is traced too.
        auto transportLayer = QEL::Base::TransportLayerHandler::Get();
        QEL::Base::CallTrace trace(name, inputs);
        GC_ERROR result = transportLayer ? call(*transportLayer) : GC_ERR_NOT_INITIALIZED;
        trace.Finish(result, transportLayer.get(), outputs);
        return result;
    } catch (...) {
        return GC_ERR_ERROR;
    }
}

using TL = QEL::Base::TransportLayer;

}

extern "C" {

GC_API GCGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return Exported("GCGetInfo",
                    {TraceParam::Int32("iInfoCmd", iInfoCmd), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piType", piType), TraceParam::Pointer("pBuffer", pBuffer),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.GCGetInfo(iInfoCmd, piType, pBuffer, piSize); });
}

GC_API GCGetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize)
{
    return Exported("GCGetLastError", {TraceParam::Size("piSize", piSize)},
                    {TraceParam::Int32Ptr("piErrorCode", piErrorCode), TraceParam::String("sErrText", sErrText),
                     TraceParam::Size("piSize", piSize)},
                    [&](TL& tl) { return tl.GCGetLastError(piErrorCode, sErrText, piSize); });
}

GC_API GCInitLib(void)
{
    return Exported("GCInitLib", {}, {}, [&](TL& tl) { return tl.GCInitLib(); });
}

GC_API GCInitLibEx(uint32_t iFlags)
{
    return Exported("GCInitLibEx", {TraceParam::UInt32("iFlags", iFlags)}, {},
                    [&](TL& tl) { return tl.GCInitLibEx(iFlags); });
}

GC_API GCCloseLib(void)
{
    return Exported("GCCloseLib", {}, {}, [&](TL& tl) { return tl.GCCloseLib(); });
}

}
