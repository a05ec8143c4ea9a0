#include "client/ProducerPath.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace LorunClient {

std::vector<std::string> ProducersOnPath()
{
    std::vector<std::string> found;
    const char* variable = std::getenv(GenTLPathVariable);
    std::stringstream folders(variable ? variable : "");
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (folder.empty())
            continue;
        std::vector<std::string> here;
        if (DIR* dir = ::opendir(folder.c_str())) {
            while (dirent* entry = ::readdir(dir)) {
                const std::string name = entry->d_name;
                if (name.size() > 4 && name.compare(name.size() - 4, 4, ".cti") == 0)
                    here.push_back(folder + "/" + name);
            }
            ::closedir(dir);
        }
        std::sort(here.begin(), here.end());
        found.insert(found.end(), here.begin(), here.end());
    }
    return found;
}

std::string DefaultProducer(const std::string& fallback)
{
    const auto onPath = ProducersOnPath();
    if (!onPath.empty())
        return onPath.front();
    if (!fallback.empty() && ::access(fallback.c_str(), R_OK) == 0)
        return fallback;
    return {};
}

}
