#pragma once

#include "entry/TransportLayer.h"

#include <memory>
#include <string>

namespace QEL { namespace Base {

// The global road to the one transport layer of the process, created on first use.
class TransportLayerHandler : public virtual QEL::System::Object {
public:
    // Empty when the transport layer cannot be created.
    static std::shared_ptr<TransportLayer> Get();

    struct Data {
        Data();
        std::shared_ptr<TransportLayer> transportLayer;
    };
};

// Supplied by the concrete modules: builds the transport layer for the library file at `path`.
std::shared_ptr<TransportLayer> CreateTransportLayer(const std::string& path);

// Path of the file (library or executable) that holds this code.
std::string OwnFilePath();

} }
