#pragma once

#include <boost/locale/encoding_utf.hpp>

#include <string>

namespace QEL { namespace Sim {

// A camera string in the encoding the camera declares: 0 ASCII and 1 UTF-8
// as written, 2 UTF-16 little endian.
inline std::string EncodeCameraString(const std::string& utf8, unsigned encoding)
{
    if (encoding != 2)
        return utf8;
    std::string bytes;
    for (char16_t unit : boost::locale::conv::utf_to_utf<char16_t>(utf8)) {
        bytes.push_back(static_cast<char>(unit & 0xFF));
        bytes.push_back(static_cast<char>(unit >> 8));
    }
    return bytes;
}

} }
