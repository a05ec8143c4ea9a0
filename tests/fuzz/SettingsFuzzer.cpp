// The settings file beside the library: any bytes, read as the producer reads them.
#include "base/Exception.h"
#include "support/Settings.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace QEL;
    Fuzz::WriteFile("producer.xml", data, size);
    try {
        const auto settings = Settings::Load(Fuzz::PrivateFolder() + "/producer.cti");
        for (const auto& entry : settings->GetRemoteDeviceXMLs())
            settings->GetRemoteDeviceXMLAddress(entry.first);
        settings->GetLogFileName();
        settings->GetPorts();
    } catch (const System::Exception&) {
    }
    return 0;
}
