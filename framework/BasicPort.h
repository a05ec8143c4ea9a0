#pragma once

#include "base/BaseException.h"
#include "framework/BasePort.h"
#include "framework/PortInfo.h"
#include "framework/RegisterMap.h"
#include "framework/XMLDescription.h"
#include "support/ByteOrder.h"

#include <memory>
#include <vector>

namespace QEL { namespace Base {

// The register space and the XML descriptions of every port. Registers and
// descriptions are added while the port is being created, before it is
// initialised; the index of a description is its URL index.
template <class M>
class BasicPort : public M {
public:
    using M::M;

    InfoPtr GetPortInfo(PORT_INFO_CMD cmd) const override
    {
        CheckAvailable();
        return GetBasicPortInfo(cmd, bigEndian, accessMode);
    }

    std::size_t GetPortInfoSize(PORT_INFO_CMD cmd, INFO_DATATYPE* dataType) const override
    {
        return SizeOf(this->GetPortInfo(cmd), dataType, "Could not get port info.");
    }

    std::vector<std::string> GetPortURLs() const override
    {
        CheckAvailable();
        std::vector<std::string> urls;
        for (const auto& description : xmlDescriptions)
            urls.push_back(description ? description->GetURL() : std::string());
        return urls;
    }

    InfoPtr GetPortURLInfo(std::uint32_t index, URL_INFO_CMD cmd) const override
    {
        CheckAvailable();
        if (index >= xmlDescriptions.size())
            throw Exception("Invalid URL selected.", GC_ERR_INVALID_INDEX);
        if (!xmlDescriptions[index])
            throw Exception("Could not retrieve xml description.", GC_ERR_ERROR);
        return GetURLInfo(*xmlDescriptions[index], cmd);
    }

    std::size_t GetPortURLInfoSize(std::uint32_t index, URL_INFO_CMD cmd, INFO_DATATYPE* dataType) const override
    {
        return SizeOf(this->GetPortURLInfo(index, cmd), dataType, "Could not get port url info.");
    }

    void ReadPort(std::uint64_t address, void* buffer, std::size_t* size) override
    {
        CheckAvailable();
        CheckMode(AccessKind::Read);
        CheckAccessArguments(buffer, size);
        registers.Read(address, buffer, size);
    }

    void WritePort(std::uint64_t address, const void* buffer, std::size_t* size) override
    {
        CheckAvailable();
        CheckMode(AccessKind::Write);
        CheckAccessArguments(buffer, size);
        registers.Write(address, buffer, size);
    }

    void ReadPortStacked(const Port::StackEntries& entries, std::size_t* count) override
    {
        Stacked(entries, count, AccessKind::Read);
    }

    void WritePortStacked(const Port::StackEntries& entries, std::size_t* count) override
    {
        Stacked(entries, count, AccessKind::Write);
    }

protected:
    void AddRegister(const std::shared_ptr<Register>& reg)
    {
        CheckNotInitialized();
        registers.Add(reg);
    }

    void AddXMLDescription(const std::shared_ptr<XMLDescription>& description)
    {
        CheckNotInitialized();
        if (!description)
            throw Exception("Invalid XML description passed.", GC_ERR_INVALID_PARAMETER);
        if (auto reg = description->GetRegister())
            AddRegister(reg);
        xmlDescriptions.push_back(description);
    }

    void InitializePort()
    {
        CheckNotInitialized();
        if (xmlDescriptions.empty())
            throw Exception("No XML descriptions added.", GC_ERR_ERROR);
        bigEndian = QEL::System::IsHostBigEndian();
        initialized = true;
    }

    void DeinitializePort()
    {
        if (!initialized)
            throw Exception("Port is not initialized.", GC_ERR_ERROR);
        initialized = false;
    }

    void ClearPort()
    {
        CheckNotInitialized();
        xmlDescriptions.clear();
        registers.Clear();
    }

    bool IsPortInitialized() const { return initialized; }

    std::shared_ptr<Register> GetRegister(std::uint64_t address) const { return registers.Find(address); }

    template <class T>
    std::shared_ptr<T> GetRegisterAs(std::uint64_t address) const
    {
        auto reg = std::dynamic_pointer_cast<T>(GetRegister(address));
        if (!reg)
            throw Exception("Incompatible register found.", GC_ERR_ERROR);
        return reg;
    }

    static std::size_t SizeOf(const InfoPtr& info, INFO_DATATYPE* dataType, const char* failure)
    {
        if (!info)
            throw Exception(failure, GC_ERR_ERROR);
        if (dataType)
            *dataType = info->GetType();
        return info->GetSize();
    }

private:
    void CheckNotInitialized() const
    {
        if (initialized)
            throw Exception("Port is already initialized.", GC_ERR_ERROR);
    }

    void CheckAvailable() const
    {
        if (!initialized)
            throw Exception("Module is not available.", GC_ERR_INVALID_HANDLE);
    }

    void CheckMode(AccessKind kind) const
    {
        if (kind == AccessKind::Read && !CanRead(accessMode))
            throw Exception("Read access not permitted.", GC_ERR_ACCESS_DENIED);
        if (kind == AccessKind::Write && !CanWrite(accessMode))
            throw Exception("Write access not permitted.", GC_ERR_ACCESS_DENIED);
    }

    void Stacked(const Port::StackEntries& entries, std::size_t* count, AccessKind kind)
    {
        if (count)
            *count = 0;
        CheckAvailable();
        CheckMode(kind);
        for (const auto& entry : entries) {
            std::size_t done = entry.Size;
            if (kind == AccessKind::Read)
                this->ReadPort(entry.Address, entry.pBuffer, &done);
            else
                this->WritePort(entry.Address, entry.pBuffer, &done);
            if (done < entry.Size)
                throw Exception(kind == AccessKind::Read ? "Read incomplete." : "Write incomplete.", GC_ERR_ERROR);
            if (count)
                ++*count;
        }
    }

    bool initialized = false;
    std::uint32_t accessMode = AccessReadWrite;
    std::vector<std::shared_ptr<XMLDescription>> xmlDescriptions;
    RegisterMap registers;
    bool bigEndian = false;
};

} }
