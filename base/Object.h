#pragma once

namespace QEL { namespace System {

// Root of every class of the program.
class Object {
public:
    virtual ~Object() = default;
};

} }
