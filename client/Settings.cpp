#include "client/Settings.h"

#include <sstream>

namespace LorunClient {

Setting ParseSetting(const std::string& assignment)
{
    const auto equals = assignment.find('=');
    if (equals == std::string::npos || equals == 0)
        throw UsageError("expected NAME=VALUE, got '" + assignment + "'");
    return {assignment.substr(0, equals), assignment.substr(equals + 1)};
}

std::vector<Setting> ParseSettings(const std::string& line)
{
    std::vector<Setting> settings;
    std::istringstream words(line);
    for (std::string word; words >> word;)
        settings.push_back(ParseSetting(word));
    return settings;
}

void Apply(FeatureTree& features, const std::vector<Setting>& settings)
{
    for (const auto& [name, value] : settings)
        features.Set(name, value);
}

}
