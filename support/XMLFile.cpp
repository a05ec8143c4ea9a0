#include "support/XMLFile.h"

#include "support/XmlDepth.h"

#include "base/BaseException.h"
#include "support/SettingsValues.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/filesystem/path.hpp>
#include <tinyxml.h>

#include <cstdio>

namespace QEL {

namespace {

std::uint64_t VersionAttribute(const TiXmlElement& root, const char* name)
{
    const char* value = root.Attribute(name);
    if (!value)
        throw Base::Exception("Could not access attribute.", GC_ERR_ERROR);
    return SettingsValues::ParseNumber<std::uint64_t>(value);
}

}

XMLFile::XMLFile(std::shared_ptr<const Bytes> bytes) : data(std::move(bytes))
{
    if (!data)
        throw Base::Exception("No XML passed.", GC_ERR_INVALID_PARAMETER);
    Parse();
}

XMLFile::XMLFile(std::shared_ptr<const Bytes> bytes, const std::string& name)
    : data(std::move(bytes)), isFile(true), fileName(name)
{
    if (!data)
        throw Base::Exception("No XML passed.", GC_ERR_INVALID_PARAMETER);
    if (boost::algorithm::to_upper_copy(boost::filesystem::path(fileName).extension().string()) != ".XML")
        throw Base::Exception("Invalid file type passed.", GC_ERR_INVALID_PARAMETER);
    Parse();
}

void XMLFile::Parse()
{
    std::string text(data->begin(), data->end());
    if (!Tools::IsXmlDepthSane(text))
        throw Base::Exception("XML file nests too deeply.", GC_ERR_ERROR);
    TiXmlDocument document;
    document.Parse(text.c_str());
    if (document.Error())
        throw Base::Exception("Could not parse XML file.", GC_ERR_ERROR);
    const TiXmlElement* root = document.FirstChildElement("RegisterDescription");
    if (!root)
        throw Base::Exception("XML file doesn't contain \"RegisterDescription\" node.", GC_ERR_ERROR);
    schemaVersion = Tools::Version(VersionAttribute(*root, "SchemaMajorVersion"),
                                   VersionAttribute(*root, "SchemaMinorVersion"),
                                   VersionAttribute(*root, "SchemaSubMinorVersion"));
    fileVersion = Tools::Version(VersionAttribute(*root, "MajorVersion"), VersionAttribute(*root, "MinorVersion"),
                                 VersionAttribute(*root, "SubMinorVersion"));
    const char* guid = root->Attribute("ProductGuid");
    if (!guid)
        throw Base::Exception("Could not access attribute.", GC_ERR_ERROR);
    productGuid = guid;
}

std::shared_ptr<XMLFile> XMLFile::FromMemory(const void* bytes, std::size_t size)
{
    if (!bytes)
        throw Base::Exception("No XML data passed.", GC_ERR_INVALID_PARAMETER);
    auto begin = static_cast<const std::uint8_t*>(bytes);
    return std::make_shared<XMLFile>(std::make_shared<const Bytes>(begin, begin + size));
}

std::shared_ptr<XMLFile> XMLFile::FromFile(const std::string& path)
{
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        throw Base::Exception("Could not open xml file.", GC_ERR_ERROR);
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> closer(file, &std::fclose);
    if (std::fseek(file, 0, SEEK_END) != 0)
        throw Base::Exception("Could not seek to end of file.", GC_ERR_ERROR);
    long size = std::ftell(file);
    if (size < 0)
        throw Base::Exception("Could not get file pos.", GC_ERR_ERROR);
    if (size == 0)
        throw Base::Exception("Invalid XML file found.", GC_ERR_ERROR);
    std::rewind(file);
    auto bytes = std::make_shared<Bytes>(static_cast<std::size_t>(size));
    if (std::fread(bytes->data(), 1, bytes->size(), file) != bytes->size())
        throw Base::Exception("Could not read xml file.", GC_ERR_ERROR);
    closer.reset();
    return std::make_shared<XMLFile>(std::move(bytes), path);
}

}
