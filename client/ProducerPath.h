#pragma once

// Where a consumer finds producers: the folders of the GenTL path variable of
// its own width (GENICAM_GENTL64_PATH, GENICAM_GENTL32_PATH in a 32-bit build).
#include <string>
#include <vector>

namespace LorunClient {

constexpr const char* GenTLPathVariable = sizeof(void*) == 8 ? "GENICAM_GENTL64_PATH" : "GENICAM_GENTL32_PATH";

// The .cti files of the path's folders, in path order, each folder sorted.
std::vector<std::string> ProducersOnPath();

// The first producer on the path, else `fallback` when it is readable, else
// empty.
std::string DefaultProducer(const std::string& fallback);

}
