#pragma once

#include "base/BaseException.h"
#include "support/Allocation.h"

#include <memory>
#include <new>

namespace QEL { namespace CSITools {

class Helper {
public:
    virtual ~Helper() = default;

    // Stores `value` as an info of type I (UInt64Info, SizeTInfo, ...) under
    // `command` in `infos`, replacing what stood there.
    template <class I, class Map, class V>
    static void SetInfo(const std::shared_ptr<Map>& infos, typename Map::key_type command, const V& value)
    {
        if (!infos)
            throw Base::Exception("No infos map passed.", GC_ERR_INVALID_PARAMETER);
        (*infos)[command] = Tools::MakeShared<const I>("Could not allocate info.", value);
    }
};

} }
