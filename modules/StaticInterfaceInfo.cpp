#include "modules/StaticInterfaceInfo.h"

#include "base/BaseException.h"
#include "support/Allocation.h"

#include <boost/format.hpp>

#include <new>

namespace QEL { namespace CSI {

Base::InfoPtr GetStaticInterfaceInfo(INTERFACE_INFO_CMD command)
{
    return Tools::Allocating("Could not allocate info.", [&]() -> Base::InfoPtr {
        switch (command) {
        case INTERFACE_INFO_ID:
            return std::make_shared<Base::StringInfo>((boost::format("%1%_0x%2$X") % "LorunCSIInterface" % 0).str());
        case INTERFACE_INFO_DISPLAYNAME:
            return std::make_shared<Base::StringInfo>("Lorun CSI-2 Interface");
        case INTERFACE_INFO_TLTYPE:
            return std::make_shared<Base::StringInfo>("Custom");
        default:
            throw Base::Exception("Unsupported info requested.", GC_ERR_NOT_IMPLEMENTED);
        }
    });
}

} }
