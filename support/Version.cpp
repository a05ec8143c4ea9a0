#include "support/Version.h"

#include "base/Exception.h"

#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/classification.hpp>

#include <cerrno>
#include <cstdlib>

namespace QEL { namespace Tools {

Version::Version(std::uint64_t major) : components{major} {}

Version::Version(std::uint64_t major, std::uint64_t minor) : components{major, minor} {}

Version::Version(std::uint64_t major, std::uint64_t minor, std::uint64_t subMinor)
    : components{major, minor, subMinor} {}

Version::Version(const std::uint64_t* values, std::size_t count)
{
    if (!values || count == 0)
        throw System::Exception("No components passed.");
    components.assign(values, values + count);
}

Version::Version(const std::string& text)
{
    std::vector<std::string> parts;
    boost::algorithm::split(parts, text, boost::algorithm::is_any_of("."));
    for (const std::string& part : parts) {
        if (part.empty() || part.size() > 20 || part.find_first_not_of("0123456789") != std::string::npos)
            throw System::Exception("Invalid version string passed.");
        errno = 0;
        unsigned long long value = std::strtoull(part.c_str(), nullptr, 10);
        if (errno == ERANGE)
            throw System::Exception("Invalid version string passed.");
        components.push_back(value);
    }
}

std::string Version::ToString(char separator) const
{
    std::string text;
    for (std::size_t i = 0; i < components.size(); ++i) {
        if (i != 0)
            text += separator;
        text += std::to_string(components[i]);
    }
    return text;
}

} }
