#pragma once

#include "entry/BaseException.h"
#include "entry/ErrorHandler.h"
#include "entry/Handleable.h"
#include "entry/LibraryState.h"
#include "entry/TransportLayer.h"
#include "framework/BaseLibrary.h"

#include <memory>
#include <string>

namespace QEL { namespace Base {

// Copies a text and its terminator into a consumer buffer, or reports the size needed.
void CopyStringToBuffer(const std::string& text, char* buffer, std::size_t* size);

// The call frame of every exported function: admission by the library state,
// and every failure turned into a GenTL code and the thread's last error.
class BasicTransportLayer : public virtual TransportLayer {
public:
    using State = LibraryState;

    BasicTransportLayer();
    ~BasicTransportLayer() override;

    GC_ERROR GCGetInfo(TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer, size_t* piSize) override;
    GC_ERROR GCGetLastError(GC_ERROR* piErrorCode, char* sErrText, size_t* piSize) override;
    GC_ERROR GCInitLib() override;
    GC_ERROR GCInitLibEx(uint32_t iFlags) override;
    GC_ERROR GCCloseLib() override;

    virtual std::shared_ptr<Library> CreateLibrary(uint32_t flags) = 0;

    // Resolves a handle and casts by the object's real class.
    template <class T>
    static std::shared_ptr<T> GetHandleAs(const void* handle)
    {
        auto object = std::dynamic_pointer_cast<T>(Handleable::FromHandle(handle));
        if (!object)
            throw Exception("The module referenced by the given handle does not implement a port.",
                            GC_ERR_NOT_IMPLEMENTED);
        return object;
    }

    // Hands out the handle of an object, under the object's guard.
    static void* MakeHandle(const std::shared_ptr<Handleable>& object);

protected:
    // Runs `body` under a read token; a failure becomes the thread's last error,
    // with `fallback` as the text of exceptions of foreign types.
    template <class Body>
    GC_ERROR RunBody(const char* fallback, Body&& body);

    GC_ERROR Fail(const Exception& error);
    GC_ERROR CloseLibrary();

    void SetTolerateTypeNullptr(bool value) { tolerateTypeNullptr = value; }
    bool GetTolerateTypeNullptr() const { return tolerateTypeNullptr; }
    std::shared_ptr<Library> GetLibrary() const { return library; }

private:
    GC_ERROR InitLibrary(uint32_t flags);

    std::shared_ptr<State> state;
    std::shared_ptr<Tools::ErrorHandler<Exception>> errorHandler;
    bool tolerateTypeNullptr = true;
    std::shared_ptr<Library> library;
};

template <class Body>
GC_ERROR BasicTransportLayer::RunBody(const char* fallback, Body&& body)
{
    auto access = state->GetReadAccess();
    if (!access)
        return GC_ERR_NOT_INITIALIZED;
    try {
        body();
        return GC_ERR_SUCCESS;
    } catch (const Exception& e) {
        return Fail(e);
    } catch (const System::Exception& e) {
        return Fail(Exception(e.GetMessage(), GC_ERR_ERROR));
    } catch (...) {
        return Fail(Exception(fallback, GC_ERR_ERROR));
    }
}

} }
