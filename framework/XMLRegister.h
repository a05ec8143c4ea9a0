#pragma once

#include "framework/Register.h"

#include <memory>
#include <vector>

namespace QEL { namespace Base {

// Holds a GenApi document in the port's address space; read only.
class XMLRegister : public virtual Register {
public:
    using Data = std::vector<unsigned char>;

    XMLRegister(std::uint64_t address, std::shared_ptr<const Data> xml);

    AddressRange GetAddressRange() const override { return AddressRange(address, xml->size()); }
    std::uint32_t GetAccessMode() const override { return AccessRead; }
    const std::shared_ptr<const Data>& GetXML() const { return xml; }

    void Read(std::uint64_t offset, void* buffer, std::size_t* size) override;
    void Write(std::uint64_t offset, const void* buffer, std::size_t* size) override;

private:
    std::uint64_t address;
    std::shared_ptr<const Data> xml;
};

} }
