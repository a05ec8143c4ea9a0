#include "modules/CSILibrary.h"

#include "base/BaseException.h"
#include "base/ProducerIdentity.h"
#include "modules/CSISystem.h"
#include "support/Allocation.h"
#include "support/MutexGuard.h"

#include <boost/filesystem/path.hpp>

#include <new>

namespace QEL { namespace CSI {

Library::Library(std::shared_ptr<Settings> librarySettings) : settings(std::move(librarySettings))
{
    if (!settings)
        throw Base::Exception("No settings passed.", GC_ERR_INVALID_PARAMETER);
}

Library::~Library() { Close(); }

void Library::Close()
{
    if (system) {
        try {
            QEL::System::SharedMutexGuard guard(system);
            if (system->IsOpen())
                system->Close();
        } catch (...) {
        }
        system.reset();
    }
    open = false;
}

Base::InfoPtr Library::GetInfo(TL_INFO_CMD command) const
{
    if (!open)
        throw Base::Exception("Library not open.", GC_ERR_NOT_INITIALIZED);
    auto info = GetSystemInfo(settings, command);
    if (!info)
        throw Base::Exception("Could not retrieve info.", GC_ERR_ERROR);
    return info;
}

std::size_t Library::GetInfoSize(TL_INFO_CMD command, INFO_DATATYPE* type) const
{
    auto info = GetInfo(command);
    if (!info)
        throw Base::Exception("Could not get library info.", GC_ERR_ERROR);
    if (type)
        *type = info->GetType();
    return info->GetSize();
}

std::shared_ptr<Base::System> Library::GetSystem()
{
    if (!open)
        throw Base::Exception("Library not open.", GC_ERR_NOT_INITIALIZED);
    if (system) {
        QEL::System::SharedMutexGuard guard(system);
        if (system->IsOpen())
            throw Base::Exception("System already open.", GC_ERR_RESOURCE_IN_USE);
    }
    // A failing construction leaves the last System in place: TLOpen can be tried again.
    auto created = System::Create(settings);
    if (!created)
        throw Base::Exception("Could not allocate system.", GC_ERR_ERROR);
    system = created;
    return system;
}

Base::InfoPtr Library::GetSystemInfo(const std::shared_ptr<const Settings>& settings, TL_INFO_CMD command)
{
    using namespace Base;
    if (!settings)
        throw Exception("No settings passed.", GC_ERR_ERROR);
    return Tools::Allocating("Could not allocate info.", [&]() -> InfoPtr {
        switch (command) {
        case TL_INFO_ID:
            if (!settings->GetSystemXML())
                throw Exception("No system XML file available.", GC_ERR_ERROR);
            return std::make_shared<StringInfo>(settings->GetSystemXML()->GetProductGuid());
        case TL_INFO_VENDOR:
            return std::make_shared<StringInfo>("Tesmar Lumetric Industries");
        case TL_INFO_MODEL:
            return std::make_shared<StringInfo>(Base::ProducerModel);
        case TL_INFO_VERSION:
            return std::make_shared<StringInfo>(settings->GetVersion().ToString('.'));
        case TL_INFO_TLTYPE:
            return std::make_shared<StringInfo>(TLTypeToString(1));
        case TL_INFO_NAME:
            return std::make_shared<StringInfo>(boost::filesystem::path(settings->GetPath()).filename().string());
        case TL_INFO_PATHNAME:
            return std::make_shared<StringInfo>(settings->GetPath());
        case TL_INFO_DISPLAYNAME:
            return std::make_shared<StringInfo>(Base::ProducerDisplayName);
        case TL_INFO_CHAR_ENCODING:
            return std::make_shared<Int32Info>(TL_CHAR_ENCODING_UTF8);
        case TL_INFO_GENTL_VER_MAJOR:
            return std::make_shared<UInt32Info>(1);
        case TL_INFO_GENTL_VER_MINOR:
            return std::make_shared<UInt32Info>(5);
        case TL_INFO_CUSTOM_ID:
            return std::make_shared<StringInfo>(TLTypeToString(11));
        default:
            throw Exception("Unsupported info requested.", GC_ERR_NOT_IMPLEMENTED);
        }
    });
}

} }
