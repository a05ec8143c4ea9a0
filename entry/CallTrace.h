#pragma once

#include "base/GenTL.h"
#include "entry/TransportLayer.h"

#include <cstdint>
#include <initializer_list>
#include <string>

namespace QEL { namespace Base {

// One parameter of an exported function as the call trace prints it. The
// pointee of a pointer is read only when the line is written, so an output
// parameter shows the value the call left there.
struct TraceParam {
    enum class Kind { Int32, UInt32, UInt64, Pointer, StringPtr, DataPtr, BoolPtr, SizePtr, UInt32Ptr, Int32Ptr, HandlePtr };
    const char* name;
    Kind kind;
    const void* pointer;
    std::uint64_t value;

    std::string Format() const;
    // The form of an output of a call that failed.
    std::string FormatUnwritten() const;

    static TraceParam Int32(const char* n, std::int32_t v) { return {n, Kind::Int32, nullptr, static_cast<std::uint32_t>(v)}; }
    static TraceParam UInt32(const char* n, std::uint32_t v) { return {n, Kind::UInt32, nullptr, v}; }
    static TraceParam UInt64(const char* n, std::uint64_t v) { return {n, Kind::UInt64, nullptr, v}; }
    static TraceParam Pointer(const char* n, const void* p) { return {n, Kind::Pointer, p, 0}; }
    static TraceParam String(const char* n, const char* p) { return {n, Kind::StringPtr, p, 0}; }
    static TraceParam Data(const char* n, const void* p) { return {n, Kind::DataPtr, p, 0}; }
    static TraceParam Bool(const char* n, const bool8_t* p) { return {n, Kind::BoolPtr, p, 0}; }
    static TraceParam Size(const char* n, const size_t* p) { return {n, Kind::SizePtr, p, 0}; }
    static TraceParam UInt32Ptr(const char* n, const uint32_t* p) { return {n, Kind::UInt32Ptr, p, 0}; }
    static TraceParam Int32Ptr(const char* n, const int32_t* p) { return {n, Kind::Int32Ptr, p, 0}; }
    static TraceParam Handle(const char* n, void* const* p) { return {n, Kind::HandlePtr, p, 0}; }
};

using TraceParams = std::initializer_list<TraceParam>;

std::string FormatInt32(std::int32_t value);

// Writes the entry and input lines when a logger is installed; the decision is
// taken once per call.
class CallTrace {
public:
    CallTrace(const char* function, TraceParams inputs);
    void Finish(GC_ERROR result, TransportLayer* transportLayer, TraceParams outputs) const;

private:
    const char* function;
    bool active;
};

} }
