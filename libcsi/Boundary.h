#pragma once

// libcsi's boundary: every exported function is one call of Exported or
// ExportedOnDevice, whose body runs inside a catch of everything. No
// exception leaves libcsi, whatever a body or what it calls throws, by
// construction: an export has nothing outside its wrapper.
#include "libcsi/Library.h"
#include "libcsi/Log.h"
#include "libcsi/include/libcsi/libcsi.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <new>

namespace QEL { namespace LibCSIImpl {

// Test-only: the next call of the export named `function` throws
// std::bad_alloc inside its boundary, before its body runs; null disarms.
void ThrowInExport(const char* function);
// Takes the armed throw when it names `function`: true once.
bool TakeThrowFor(const char* function);
// Logs what a boundary caught; never throws itself.
void LogCaught(const char* function, const char* what) noexcept;

template <class Body> int32_t Exported(const char* function, Body&& body) noexcept
{
    try {
        if (TakeThrowFor(function))
            throw std::bad_alloc();
        return body();
    } catch (const std::bad_alloc&) {
        LogCaught(function, "out of memory");
    } catch (const std::exception& e) {
        LogCaught(function, e.what());
    } catch (...) {
        LogCaught(function, "unknown exception");
    }
    return LIBCSI_ERROR;
}

// The same for a function of a device handle: the trace line, and the
// refusal of a handle that names no live device of libcsi (null, closed and
// replaced, or never one), before the body gets the device, held for the call.
template <class Body> int32_t ExportedOnDevice(const char* function, device_handle_t* handle, Body&& body) noexcept
{
    return Exported(function, [&]() -> int32_t {
        LIBCSI_LOG(TierTrace, "%s(pDeviceHandle=%p)\n", function, static_cast<void*>(handle));
        const std::shared_ptr<Device> held = LiveDevice(handle);
        if (!held)
            return LIBCSI_INVALID_PARAMETER;
        return body(*held);
    });
}

}} // namespace QEL::LibCSIImpl
