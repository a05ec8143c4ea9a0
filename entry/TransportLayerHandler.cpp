#include "entry/TransportLayerHandler.h"

#include "base/BaseException.h"
#include "support/StaticData.h"

#include <dlfcn.h>

namespace QEL { namespace Base {

namespace {
QEL::System::StaticData::Anchor anchor;
}

std::string OwnFilePath()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&OwnFilePath), &info) == 0 || !info.dli_fname)
        throw Exception("Could not determine TL file name.", GC_ERR_ERROR);
    return info.dli_fname;
}

TransportLayerHandler::Data::Data() : transportLayer(CreateTransportLayer(OwnFilePath()))
{
    if (!transportLayer)
        throw Exception("Could not allocate transport layer.", GC_ERR_ERROR);
}

std::shared_ptr<TransportLayer> TransportLayerHandler::Get()
{
    // A failed creation is retried by the next call; no exception may reach the consumer.
    try {
        return QEL::System::StaticData::Get<Data>()->transportLayer;
    } catch (...) {
        return nullptr;
    }
}

} }
