#include "support/SettingsValues.h"

namespace QEL { namespace SettingsValues {

bool ParseBool(const std::string& raw)
{
    std::string text = boost::algorithm::to_upper_copy(boost::algorithm::trim_copy(raw));
    if (text == "TRUE")
        return true;
    if (text == "FALSE")
        return false;
    throw Base::Exception("Could not read settings.", GC_ERR_ERROR);
}

} }
