#pragma once

#include <string>

namespace LorunGst {

// The producer an element or the device provider loads when none is given:
// the first on the GenTL path, else the one installed with this plugin, else
// the one built beside it; empty when there is none.
std::string DefaultProducer();

}
