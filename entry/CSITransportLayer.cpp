#include "entry/CSITransportLayer.h"

#include "entry/TransportLayerHandler.h"
#include "modules/CSILibrary.h"
#include "support/Logger.h"

#include <new>

namespace QEL {

namespace Base {

std::shared_ptr<TransportLayer> CreateTransportLayer(const std::string& path)
{
    return std::make_shared<CSI::TransportLayer>(path);
}

}

namespace CSI {

TransportLayer::TransportLayer(const std::string& libraryPath) : settings(Settings::Load(libraryPath))
{
    if (!settings)
        throw Base::Exception("Could not load settings.", GC_ERR_ERROR);
    if (settings->IsLoggingActive())
        Tools::Logger::Set(std::make_shared<Tools::FileLogger>(settings->GetLogFileName(), settings->GetAppendLog()));
    SetTolerateTypeNullptr(settings->GetTolerateTypeNullptr());
}

TransportLayer::~TransportLayer()
{
    if (settings && settings->IsLoggingActive())
        Tools::Logger::Clear();
    settings.reset();
}

std::shared_ptr<Base::Library> TransportLayer::CreateLibrary(uint32_t flags)
{
    std::shared_ptr<Settings> copy;
    try {
        copy = std::make_shared<Settings>(*settings);
    } catch (const std::bad_alloc&) {
        throw Base::Exception("Could not allocate settings.", GC_ERR_ERROR);
    }
    copy->SetDynamicBufferHandling((flags & 1u) != 0);
    try {
        return std::make_shared<Library>(copy);
    } catch (const std::bad_alloc&) {
        throw Base::Exception("Could not allocate library.", GC_ERR_ERROR);
    }
}

} }
