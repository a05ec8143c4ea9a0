#pragma once

#include "entry/BasicTransportLayer.h"
#include "support/Settings.h"

#include <memory>
#include <string>

namespace QEL { namespace CSI {

// The transport layer of this producer: reads the settings beside the library
// file, installs the system log they ask for, and creates the library.
class TransportLayer : public Base::BasicTransportLayer {
public:
    explicit TransportLayer(const std::string& libraryPath);
    ~TransportLayer() override;

    std::shared_ptr<Base::Library> CreateLibrary(uint32_t flags) override;

    const std::shared_ptr<Settings>& GetSettings() const { return settings; }

private:
    std::shared_ptr<Settings> settings;
};

} }
