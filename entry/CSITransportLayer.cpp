#include "entry/CSITransportLayer.h"

#include "entry/TransportLayerHandler.h"
#include "modules/CSILibrary.h"
#include "support/Logger.h"
#include "support/Allocation.h"

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
    auto copy = Tools::MakeShared<Settings>("Could not allocate settings.", *settings);
    copy->SetDynamicBufferHandling((flags & 1u) != 0);
    return Tools::Allocating("Could not allocate library.", [&] { return std::make_shared<Library>(copy); });
}

} }
