#pragma once

#include "base/GenTL.h"
#include "framework/Handleable.h"
#include "base/Info.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace QEL { namespace Base {

// A GenTL port: a register address space with GenApi documents.
class Port : public virtual Handleable {
public:
    using StackEntries = std::vector<PORT_REGISTER_STACK_ENTRY>;

    virtual InfoPtr GetPortInfo(PORT_INFO_CMD cmd) const = 0;
    virtual std::size_t GetPortInfoSize(PORT_INFO_CMD cmd, INFO_DATATYPE* dataType) const = 0;
    virtual std::vector<std::string> GetPortURLs() const = 0;
    virtual InfoPtr GetPortURLInfo(std::uint32_t index, URL_INFO_CMD cmd) const = 0;
    virtual std::size_t GetPortURLInfoSize(std::uint32_t index, URL_INFO_CMD cmd, INFO_DATATYPE* dataType) const = 0;
    virtual void ReadPort(std::uint64_t address, void* buffer, std::size_t* size) = 0;
    virtual void WritePort(std::uint64_t address, const void* buffer, std::size_t* size) = 0;
    virtual void ReadPortStacked(const StackEntries& entries, std::size_t* count) = 0;
    virtual void WritePortStacked(const StackEntries& entries, std::size_t* count) = 0;
    virtual std::string GetPortName() const = 0;
};

} }
