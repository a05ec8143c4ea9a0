#include "framework/PortInfo.h"

#include "base/BaseException.h"
#include "framework/Register.h"
#include "support/Allocation.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/filesystem/path.hpp>

#include <new>

namespace QEL { namespace Base {

namespace {

[[noreturn]] void Unsupported(GC_ERROR code) { throw Exception("Unsupported info requested.", code); }

template <class Make>
InfoPtr Allocated(Make make)
{
    return Tools::Allocating("Could not allocate info.", make);
}

}

InfoPtr GetBasicPortInfo(PORT_INFO_CMD cmd, bool bigEndian, std::uint32_t accessMode)
{
    bool value;
    switch (cmd) {
    case PORT_INFO_LITTLE_ENDIAN: value = !bigEndian; break;
    case PORT_INFO_BIG_ENDIAN: value = bigEndian; break;
    case PORT_INFO_ACCESS_READ: value = CanRead(accessMode); break;
    case PORT_INFO_ACCESS_WRITE: value = CanWrite(accessMode); break;
    case PORT_INFO_ACCESS_NA:
    case PORT_INFO_ACCESS_NI: value = false; break;
    default: Unsupported(GC_ERR_NOT_IMPLEMENTED);
    }
    return Allocated([value] { return std::make_shared<Bool8Info>(value); });
}

InfoPtr GetURLInfo(const XMLDescription& description, URL_INFO_CMD cmd)
{
    auto versionPart = [](const Tools::Version& version, std::size_t index) -> InfoPtr {
        const auto& parts = version.GetComponents();
        if (index >= parts.size())
            Unsupported(GC_ERR_NOT_AVAILABLE);
        return std::make_shared<Int32Info>(static_cast<std::int32_t>(parts[index]));
    };
    auto fileVersionPart = [&](std::size_t index) -> InfoPtr {
        if (!description.HasFileVersion())
            Unsupported(GC_ERR_NOT_AVAILABLE);
        return versionPart(description.GetFileVersion(), index);
    };
    return Allocated([&]() -> InfoPtr {
        switch (cmd) {
        case URL_INFO_URL: return std::make_shared<StringInfo>(description.GetURL());
        case URL_INFO_SCHEMA_VER_MAJOR: return versionPart(description.GetSchemaVersion(), 0);
        case URL_INFO_SCHEMA_VER_MINOR: return versionPart(description.GetSchemaVersion(), 1);
        case URL_INFO_FILE_VER_MAJOR: return fileVersionPart(0);
        case URL_INFO_FILE_VER_MINOR: return fileVersionPart(1);
        case URL_INFO_FILE_VER_SUBMINOR: return fileVersionPart(2);
        case URL_INFO_FILENAME: return std::make_shared<StringInfo>(description.GetFileName());
        case 1001:
            if (!description.HasAddressRange())
                Unsupported(GC_ERR_NOT_AVAILABLE);
            return std::make_shared<UInt64Info>(description.GetAddressRange().GetAddress());
        case 1002:
            if (!description.HasAddressRange())
                Unsupported(GC_ERR_NOT_AVAILABLE);
            return std::make_shared<SizeTInfo>(description.GetAddressRange().GetSize());
        case 1003: {
            std::string extension = boost::filesystem::path(description.GetFileName()).extension().string();
            return std::make_shared<Bool8Info>(boost::algorithm::to_upper_copy(extension) == ".ZIP");
        }
        default: Unsupported(GC_ERR_NOT_IMPLEMENTED);
        }
    });
}

} }
