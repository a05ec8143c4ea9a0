// The URLs of GenApi documents (local:, file:, http:): any text is parsed, and
// what is accepted survives being written back into a URL and parsed again.
#include "base/Exception.h"
#include "framework/XMLDescription.h"
#include "tests/fuzz/FuzzInput.h"

#include <memory>

namespace {

using namespace QEL;
using namespace QEL::Base;

void Check(bool condition)
{
    if (!condition)
        __builtin_trap();
}

void RoundTrip(const XMLDescription& parsed)
{
    std::shared_ptr<XMLDescription> made;
    if (parsed.HasAddressRange()) {
        const AddressRange range = parsed.GetAddressRange();
        made = std::make_shared<RegisterXMLDescription>(parsed.GetFileName(), range.GetAddress(), range.GetSize(),
                                                        parsed.GetSchemaVersion());
    } else if (!dynamic_cast<const WebXMLDescription*>(&parsed)) {
        made = std::make_shared<FileXMLDescription>(parsed.GetFileName(), parsed.GetSchemaVersion());
    } else {
        return;
    }
    const std::shared_ptr<XMLDescription> again = CreateXMLDescription(made->GetURL());
    Check(again->GetFileName() == parsed.GetFileName());
    Check(again->GetSchemaVersion() == parsed.GetSchemaVersion());
    Check(again->HasAddressRange() == parsed.HasAddressRange());
    if (parsed.HasAddressRange()) {
        Check(again->GetAddressRange().GetAddress() == parsed.GetAddressRange().GetAddress());
        Check(again->GetAddressRange().GetSize() == parsed.GetAddressRange().GetSize());
    }
}

}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string url(reinterpret_cast<const char*>(data), size);
    std::shared_ptr<XMLDescription> parsed;
    try {
        parsed = CreateXMLDescription(url);
        parsed->GetURL();
        if (parsed->HasSHA1())
            Check(parsed->GetSHA1().size() == 20);
        if (parsed->HasFileVersion())
            parsed->GetFileVersion();
    } catch (const System::Exception&) {
        return 0;
    }
    RoundTrip(*parsed);
    try {
        CreateXMLDescription(url, Tools::Version(1, 1, 0), Tools::Version(2, 0, 1));
    } catch (const System::Exception&) {
    }
    return 0;
}
