#pragma once

#include "base/Object.h"
#include "support/Version.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace QEL {

// One GenApi description with the version attributes of its root element.
class XMLFile : public virtual System::Object {
public:
    using Bytes = std::vector<std::uint8_t>;

    explicit XMLFile(std::shared_ptr<const Bytes> bytes);
    XMLFile(std::shared_ptr<const Bytes> bytes, const std::string& fileName);

    static std::shared_ptr<XMLFile> FromMemory(const void* data, std::size_t size);
    static std::shared_ptr<XMLFile> FromFile(const std::string& path);

    const std::shared_ptr<const Bytes>& GetData() const { return data; }
    std::size_t GetSize() const { return data->size(); }
    bool IsFile() const { return isFile; }
    const std::string& GetFileName() const { return fileName; }
    const Tools::Version& GetSchemaVersion() const { return schemaVersion; }
    const Tools::Version& GetFileVersion() const { return fileVersion; }
    const std::string& GetProductGuid() const { return productGuid; }

private:
    void Parse();

    std::shared_ptr<const Bytes> data;
    bool isFile = false;
    std::string fileName;
    Tools::Version schemaVersion{0, 0, 0};
    Tools::Version fileVersion{0, 0, 0};
    std::string productGuid;
};

}
