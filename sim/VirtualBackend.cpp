#include "sim/VirtualBackend.h"

#include "libcsi/include/libcsi/qel_csi2_driver.h"
#include "sim/VirtualSystem.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace QEL { namespace Sim {

namespace {

// A real CSI-2 driver on this machine rules the virtual camera out.
bool RealDriverPresent()
{
    Os::Backend& real = Os::RealBackend();
    for (const std::string& entry : real.ListDirectory("/sys/class/video4linux")) {
        std::string path = "/sys/class/video4linux/" + entry + "/if_name";
        if (FILE* file = std::fopen(path.c_str(), "r")) {
            char name[64] = {};
            bool matches = std::fgets(name, sizeof name, file) && strncasecmp(name, QEL_CSI2_INTERFACE_NAME, 11) == 0;
            std::fclose(file);
            if (matches)
                return true;
        }
    }
    return false;
}

std::shared_ptr<Os::Backend> ChooseFromEnvironment()
{
    return ChooseVirtualBackend(std::getenv("LORUN_VIRTUAL_CAMERA"));
}

// Loading the virtual camera into a process offers it to the seam; the
// environment decides at libcsi's first system call whether it is used.
struct Registration {
    Registration() { Os::RegisterBackendChooser(&ChooseFromEnvironment); }
} registration;

}

std::shared_ptr<Os::Backend> ChooseVirtualBackend(const char* description)
{
    if (!description || !*description)
        return nullptr;
    if (RealDriverPresent()) {
        std::fprintf(stderr, "LORUN_VIRTUAL_CAMERA ignored: a real CSI-2 driver is present.\n");
        return nullptr;
    }
    try {
        return VirtualSystem::FromFile(description);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "LORUN_VIRTUAL_CAMERA ignored: %s\n", e.what());
        return nullptr;
    }
}

} }
