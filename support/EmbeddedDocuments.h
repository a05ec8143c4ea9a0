#pragma once

#include <cstddef>

// The GenApi documents of the four producer modules, compiled into the library.
namespace QEL { namespace Embedded {

extern const unsigned char SystemXML[];
extern const std::size_t SystemXML_size;
extern const unsigned char InterfaceXML[];
extern const std::size_t InterfaceXML_size;
extern const unsigned char DeviceXML[];
extern const std::size_t DeviceXML_size;
extern const unsigned char DataStreamXML[];
extern const std::size_t DataStreamXML_size;

} }
