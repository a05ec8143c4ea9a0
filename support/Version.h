#pragma once

#include "base/Object.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace QEL { namespace Tools {

class Version : public virtual System::Object {
public:
    explicit Version(std::uint64_t major);
    Version(std::uint64_t major, std::uint64_t minor);
    Version(std::uint64_t major, std::uint64_t minor, std::uint64_t subMinor);
    Version(const std::uint64_t* components, std::size_t count);
    explicit Version(const std::string& text);

    const std::vector<std::uint64_t>& GetComponents() const { return components; }
    std::string ToString(char separator = '.') const;

    bool operator==(const Version& other) const { return components == other.components; }
    bool operator!=(const Version& other) const { return !(*this == other); }

private:
    std::vector<std::uint64_t> components;
};

} }
