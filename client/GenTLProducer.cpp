#include "client/GenTLProducer.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace LorunClient {

GenTLProducer::GenTLProducer(const std::string& given)
{
    // A bare file name would make dlopen search the library path instead of the folder at hand.
    char resolved[PATH_MAX];
    path = realpath(given.c_str(), resolved) ? resolved : given;
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        throw ProducerError(GC_ERR_INVALID_PARAMETER, "Could not load " + path + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw ProducerError(GC_ERR_INVALID_PARAMETER, "Could not load " + path + ": not a regular file.");
    library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library)
        throw ProducerError(GC_ERR_INVALID_PARAMETER, "Could not load " + path + ": " + dlerror());
// The argument is a member's name, not an expression.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define LORUN_CLIENT_RESOLVE(name)                                                                                      \
    name = reinterpret_cast<decltype(name)>(dlsym(library, #name));                                                   \
    if (!name)                                                                                                        \
        missing += missing.empty() ? #name : ", " #name;
    // NOLINTEND(bugprone-macro-parentheses)
    LORUN_CLIENT_FUNCTIONS(LORUN_CLIENT_RESOLVE)
#undef LORUN_CLIENT_RESOLVE
    if (!GCGetInfo || !GCGetLastError || !GCInitLib || !GCCloseLib) {
        dlclose(library);
        library = nullptr;
        throw ProducerError(GC_ERR_NOT_IMPLEMENTED, path + " is no GenTL producer: it does not export " + missing + ".");
    }
}

void GenTLProducer::RequireAll() const
{
    if (!missing.empty())
        throw ProducerError(GC_ERR_NOT_IMPLEMENTED, path + " does not export " + missing + ".");
}

GenTLProducer::~GenTLProducer()
{
    if (library)
        dlclose(library);
}

std::string GenTLProducer::LastError() const
{
    GC_ERROR code = 0;
    size_t size = 0;
    if (GCGetLastError(&code, nullptr, &size) != GC_ERR_SUCCESS || size == 0)
        return "<no error text>";
    std::vector<char> text(size + 1, 0);
    if (GCGetLastError(&code, text.data(), &size) != GC_ERR_SUCCESS)
        return "<no error text>";
    return text.data();
}

void GenTLProducer::Check(GC_ERROR result, const std::string& what) const
{
    if (result != GC_ERR_SUCCESS)
        throw ProducerError(result, what + ": error " + std::to_string(result) + ", " + LastError());
}

std::string GenTLProducer::InfoText(TL_INFO_CMD command) const
{
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    size_t size = 0;
    GC_ERROR rc = GCGetInfo(command, &type, nullptr, &size);
    if (rc != GC_ERR_SUCCESS)
        return "error " + std::to_string(rc) + ": " + LastError();
    std::vector<unsigned char> buffer(size + 1);
    rc = GCGetInfo(command, &type, buffer.data(), &size);
    if (rc != GC_ERR_SUCCESS)
        return "error " + std::to_string(rc) + ": " + LastError();
    // An answer shorter than its datatype is shown as what it is, not read past.
    std::string raw = "<datatype " + std::to_string(type) + ", " + std::to_string(size) + " bytes>";
    if ((type == INFO_DATATYPE_INT32 || type == INFO_DATATYPE_UINT32) && size < sizeof(int32_t))
        return raw;
    switch (type) {
    case INFO_DATATYPE_STRING:
        return reinterpret_cast<const char*>(buffer.data());
    case INFO_DATATYPE_INT32: {
        int32_t v;
        std::memcpy(&v, buffer.data(), sizeof v);
        return std::to_string(v);
    }
    case INFO_DATATYPE_UINT32: {
        uint32_t v;
        std::memcpy(&v, buffer.data(), sizeof v);
        return std::to_string(v);
    }
    default:
        return raw;
    }
}

}
