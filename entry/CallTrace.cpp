#include "entry/CallTrace.h"

#include "support/Logger.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace QEL { namespace Base {

namespace {

std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string Printf(const char* format, ...)
{
    char text[128];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::string PointerForm(const void* p)
{
    return p ? Printf("Pointer 0x%" PRIxPTR, reinterpret_cast<std::uintptr_t>(p)) : "Nullpointer";
}

std::string UnsignedForm(std::uint64_t value)
{
    return Printf("UInt32 %" PRIu64 " (0x%08" PRIX64 ")", value, value);
}

std::string ErrorTextFor(TransportLayer* transportLayer)
{
    if (!transportLayer)
        return "<could not access transport layer>";
    GC_ERROR code = 0;
    size_t size = 0;
    if (transportLayer->GCGetLastError(&code, nullptr, &size) != GC_ERR_SUCCESS)
        return "<could not get size of error text>";
    std::vector<char> text(size);
    if (transportLayer->GCGetLastError(&code, text.data(), &size) != GC_ERR_SUCCESS)
        return "<could not get error text>";
    return text.data();
}

}

std::string FormatInt32(std::int32_t value)
{
    return Printf("Int32 %" PRId32 " (0x%08" PRIX32 ")", value, static_cast<std::uint32_t>(value));
}

std::string TraceParam::Format() const
{
    switch (kind) {
    case Kind::Int32:
        return FormatInt32(static_cast<std::int32_t>(static_cast<std::uint32_t>(value)));
    case Kind::UInt32:
    case Kind::UInt64:
        return UnsignedForm(value);
    case Kind::Pointer:
        return PointerForm(pointer);
    default:
        break;
    }
    if (!pointer)
        return "Nullpointer";
    std::string prefix = PointerForm(pointer) + " to ";
    switch (kind) {
    case Kind::StringPtr: {
        auto first = *static_cast<const std::int8_t*>(pointer);
        return prefix + Printf("Int8 %d (0x%02X)", first, static_cast<unsigned>(static_cast<std::uint8_t>(first)));
    }
    case Kind::DataPtr:
        return prefix + "<unknown value>";
    case Kind::BoolPtr:
        return prefix + (*static_cast<const bool8_t*>(pointer) ? "Bool true" : "Bool false");
    case Kind::SizePtr:
        return prefix + UnsignedForm(*static_cast<const size_t*>(pointer));
    case Kind::UInt32Ptr:
        return prefix + UnsignedForm(*static_cast<const std::uint32_t*>(pointer));
    case Kind::Int32Ptr:
        return prefix + FormatInt32(*static_cast<const std::int32_t*>(pointer));
    case Kind::HandlePtr:
        return prefix + PointerForm(*static_cast<void* const*>(pointer));
    default:
        return prefix;
    }
}

// A failed call writes no outputs: their memory is shown by address only, never
// read. A size is in and out, and the caller filled it before the call.
std::string TraceParam::FormatUnwritten() const
{
    if (kind == Kind::Int32 || kind == Kind::UInt32 || kind == Kind::UInt64 || kind == Kind::Pointer ||
        kind == Kind::SizePtr || !pointer)
        return Format();
    return PointerForm(pointer) + " to <not written>";
}

CallTrace::CallTrace(const char* name, TraceParams inputs) : function(name), active(Tools::Logger::IsActive())
{
    if (!active)
        return;
    Tools::Logger::LogCalled(function);
    for (const TraceParam& p : inputs)
        Tools::Logger::Log(std::string("  ") + function + ": Input Parameter " + p.name + " = " + p.Format());
}

void CallTrace::Finish(GC_ERROR result, TransportLayer* transportLayer, TraceParams outputs) const
{
    if (!active)
        return;
    std::string line = std::string("  ") + function + " returned " + FormatInt32(result);
    if (result != GC_ERR_SUCCESS)
        line += " \"" + ErrorTextFor(transportLayer) + "\"";
    Tools::Logger::Log(line);
    for (const TraceParam& p : outputs)
        Tools::Logger::Log(std::string("  ") + function + ": Output Parameter " + p.name + " = " +
                           (result == GC_ERR_SUCCESS ? p.Format() : p.FormatUnwritten()));
}

} }
