#include "gst/DefaultProducer.h"

#include "client/ProducerPath.h"

#include <dlfcn.h>

#ifndef LORUN_PRODUCER_FROM_PLUGIN
#define LORUN_PRODUCER_FROM_PLUGIN ""
#endif
#ifndef LORUN_BUILT_PRODUCER
#define LORUN_BUILT_PRODUCER ""
#endif

namespace LorunGst {

namespace {

// The producer installed with this plugin, wherever the two were installed to.
std::string InstalledProducer()
{
    Dl_info self{};
    if (!*LORUN_PRODUCER_FROM_PLUGIN || !dladdr(reinterpret_cast<void*>(&InstalledProducer), &self) ||
        !self.dli_fname)
        return {};
    std::string folder = self.dli_fname;
    folder.erase(folder.find_last_of('/') + 1);
    return folder + LORUN_PRODUCER_FROM_PLUGIN;
}

}

std::string DefaultProducer()
{
    std::string path = LorunClient::DefaultProducer(InstalledProducer());
    return path.empty() ? LorunClient::DefaultProducer(LORUN_BUILT_PRODUCER) : path;
}

}
