#pragma once

// Feature settings as users write them: NAME=VALUE, split at the first '='.
#include "client/FeatureTree.h"

#include <string>
#include <utility>
#include <vector>

namespace LorunClient {

using Setting = std::pair<std::string, std::string>; // name, value

// One NAME=VALUE; throws UsageError for anything else.
Setting ParseSetting(const std::string& assignment);
// NAME=VALUE settings separated by white space, every one checked before any
// is returned.
std::vector<Setting> ParseSettings(const std::string& line);
// Writes them in order: the first the camera refuses throws, the rest stay unwritten.
void Apply(FeatureTree& features, const std::vector<Setting>& settings);

}
