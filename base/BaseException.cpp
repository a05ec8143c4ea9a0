#include "base/BaseException.h"

#include <boost/format.hpp>

namespace QEL { namespace Base {

std::string Exception::GetMessage() const
{
    return (boost::format("%1% (Error code: %2%)") % GetText() % code).str();
}

} }
