#include "entry/BasicTransportLayer.h"

#include "support/MutexGuard.h"
#include "support/Allocation.h"

#include <cstring>
#include <new>

namespace QEL { namespace Base {

void CopyStringToBuffer(const std::string& text, char* buffer, std::size_t* size)
{
    if (!size)
        throw Exception("No size passed.", GC_ERR_INVALID_PARAMETER);
    const std::size_t needed = text.size() + 1;
    if (!buffer) {
        *size = needed;
        return;
    }
    if (*size < needed)
        throw Exception("Buffer too small.", GC_ERR_BUFFER_TOO_SMALL);
    std::memcpy(buffer, text.c_str(), needed);
    *size = needed;
}

BasicTransportLayer::BasicTransportLayer()
    : state(Tools::MakeShared<State>("Could not allocate state.")),
      errorHandler(Tools::MakeShared<Tools::ErrorHandler<Exception>>("Could not allocate error handler."))
{
}

BasicTransportLayer::~BasicTransportLayer()
{
    try {
        CloseLibrary();
    } catch (...) {
    }
}

void* BasicTransportLayer::MakeHandle(const std::shared_ptr<Handleable>& object)
{
    if (!object)
        throw Exception("No object passed.", GC_ERR_INVALID_PARAMETER);
    QEL::System::SharedMutexGuard guard(object->GetMutex());
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(Handleable::GetHandle(object)));
}

void BasicTransportLayer::CheckInfoArguments(const INFO_DATATYPE* piType, const size_t* piSize) const
{
    if (!piType && !tolerateTypeNullptr)
        throw Exception("No datatype passed.", GC_ERR_INVALID_PARAMETER);
    if (!piSize)
        throw Exception("No size passed.", GC_ERR_INVALID_PARAMETER);
}

void BasicTransportLayer::Require(const void* pointer, const char* message)
{
    if (!pointer)
        throw Exception(message, GC_ERR_INVALID_PARAMETER);
}

GC_ERROR BasicTransportLayer::Fail(const Exception& error)
{
    errorHandler->SetError(error);
    return error.GetCode();
}

GC_ERROR BasicTransportLayer::FailCurrent(const char* fallback)
{
    try {
        throw;
    } catch (const Exception& e) {
        return Fail(e);
    } catch (const QEL::System::Exception& e) {
        return Fail(Exception(e.GetMessage(), GC_ERR_ERROR));
    } catch (...) {
        return Fail(Exception(fallback, GC_ERR_ERROR));
    }
}

GC_ERROR BasicTransportLayer::GCInitLib() { return InitLibrary(0); }

GC_ERROR BasicTransportLayer::GCInitLibEx(uint32_t iFlags) { return InitLibrary(iFlags); }

GC_ERROR BasicTransportLayer::InitLibrary(uint32_t flags)
{
    auto w = state->GetWriteAccess();
    if (!w)
        return GC_ERR_ERROR;
    try {
        if (w->IsInitialized())
            throw Exception("Library already open.", GC_ERR_RESOURCE_IN_USE);
        // While uninitialised, readers are turned away rather than made to wait.
        w->SetReadersBlocked(false);
        w->WaitForReaders();
        auto handler = std::make_shared<Tools::ErrorHandler<Exception>>();
        library = CreateLibrary(flags);
        if (!library)
            throw Exception("Could not init library.", GC_ERR_ERROR);
        errorHandler = handler;
        w->SetInitialized(true);
        return GC_ERR_SUCCESS;
    } catch (...) {
        return FailCurrent("Could not init library.");
    }
}

GC_ERROR BasicTransportLayer::GCCloseLib()
{
    try {
        return CloseLibrary();
    } catch (...) {
        return FailCurrent("Could not close library.");
    }
}

GC_ERROR BasicTransportLayer::CloseLibrary()
{
    auto w = state->GetWriteAccess();
    if (!w)
        return GC_ERR_ERROR;
    if (!w->IsInitialized())
        return GC_ERR_NOT_INITIALIZED;
    w->SetInitialized(false);
    w->SetReadersBlocked(false);
    try {
        if (library) {
            QEL::System::SharedMutexGuard guard(library);
            if (library->IsOpen())
                library->Close();
        }
    } catch (...) {
        // Closing goes on whatever the modules say.
    }
    w->WaitForReaders();
    library.reset();
    return GC_ERR_SUCCESS;
}

GC_ERROR BasicTransportLayer::GCGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    return RunBody("Could not get info.", [&] {
        QEL::System::SharedMutexGuard guard(library);
        if (!library->IsOpen())
            throw Exception("Library not open.", GC_ERR_NOT_INITIALIZED);
        CheckInfoArguments(piType, piSize);
        if (pBuffer) {
            InfoPtr info = library->GetInfo(iInfoCmd);
            if (!info)
                throw Exception("Could not get info.", GC_ERR_ERROR);
            info->Read(pBuffer, piSize);
            if (piType)
                *piType = info->GetType();
        } else {
            *piSize = library->GetInfoSize(iInfoCmd, piType);
        }
    });
}

GC_ERROR BasicTransportLayer::GCGetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize)
{
    auto access = state->GetReadAccess();
    if (!access)
        return GC_ERR_NOT_INITIALIZED;
    // Reports failures without recording them, so the stored error survives a
    // size query or a retry after "Buffer too small.".
    try {
        if (!piErrorCode)
            throw Exception("Error code not provided.", GC_ERR_INVALID_PARAMETER);
        if (!piSize)
            throw Exception("Size not provided.", GC_ERR_INVALID_PARAMETER);
        const Exception* error = errorHandler->GetError();
        if (!error) {
            CopyStringToBuffer("No error occurred.", sErrText, piSize);
            *piErrorCode = GC_ERR_SUCCESS;
        } else {
            CopyStringToBuffer(error->GetText(), sErrText, piSize);
            *piErrorCode = error->GetCode();
        }
        return GC_ERR_SUCCESS;
    } catch (const Exception& e) {
        return e.GetCode();
    } catch (...) {
        return GC_ERR_ERROR;
    }
}

} }
