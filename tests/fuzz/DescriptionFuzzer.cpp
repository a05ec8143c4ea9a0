// The virtual camera's description file: any text, read as the simulator reads it.
#include "sim/CameraDescription.h"
#include "tests/fuzz/FuzzInput.h"

#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace QEL;
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const Sim::SystemDescription system =
            Sim::SystemDescription::FromText(text, Fuzz::PrivateFolder() + "/camera.ini");
        // What a description lets through must be a camera the simulator can model.
        for (const auto& camera : system.cameras)
            if (camera.width == 0 || camera.height == 0 || camera.manifestEntries == 0 ||
                camera.manifestEntries > Sim::MaxManifestEntries || camera.document.size() > Sim::MaxDocumentSize)
                __builtin_trap();
    } catch (const std::exception&) {
    }
    return 0;
}
