#pragma once

#include "base/BaseException.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <cstdint>
#include <limits>
#include <string>

namespace QEL { namespace SettingsValues {

// Decimal, or hexadecimal after a lower-case "0x"; an empty text is 0.
template <class T>
T ParseNumber(const std::string& raw)
{
    std::string text = boost::algorithm::trim_copy(raw);
    unsigned base = 10;
    if (text.compare(0, 2, "0x") == 0) {
        text = boost::algorithm::to_upper_copy(text.substr(2));
        base = 16;
    }
    const auto limit = static_cast<std::uint64_t>(std::numeric_limits<T>::max());
    std::uint64_t value = 0;
    for (char c : text) {
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            throw Base::Exception("Could not parse number.", GC_ERR_ERROR);
        if (digit >= base)
            throw Base::Exception("Could not parse number.", GC_ERR_ERROR);
        if (value > (limit - digit) / base)
            throw Base::Exception("Number too long for variable.", GC_ERR_ERROR);
        value = value * base + digit;
    }
    return static_cast<T>(value);
}

bool ParseBool(const std::string& raw);

} }
