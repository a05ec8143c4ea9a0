#include "framework/XMLDescription.h"

#include "base/BaseException.h"
#include "support/Sha1.h"
#include "support/XMLFile.h"
#include "support/Allocation.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/format.hpp>
#include <uriparser/Uri.h>

#include <new>
#include <vector>

namespace QEL { namespace Base {

namespace {

[[noreturn]] void InvalidURL() { throw Exception("Invalid URL passed.", GC_ERR_INVALID_PARAMETER); }

std::string Trim(const std::string& text) { return boost::algorithm::trim_copy(text); }

std::string Unescape(std::string text)
{
    text.push_back('\0');
    uriUnescapeInPlaceA(&text[0]);
    return std::string(text.c_str());
}

// Two or three decimal numbers separated by ".".
Tools::Version ParseSchemaVersion(const std::string& text)
{
    try {
        Tools::Version version(text);
        if (version.GetComponents().size() < 2 || version.GetComponents().size() > 3)
            InvalidURL();
        return version;
    } catch (const QEL::System::Exception&) {
        InvalidURL();
    }
}

// Splits off the query at the first "?" and reads the schema version from it.
std::string SplitQuery(const std::string& url, Tools::Version& schema)
{
    auto mark = url.find('?');
    if (mark == std::string::npos) {
        schema = Tools::Version(1, 0, 0);
        return url;
    }
    std::string query = url.substr(mark + 1);
    const std::string key = "SchemaVersion=";
    if (!boost::algorithm::istarts_with(query, key))
        InvalidURL();
    schema = ParseSchemaVersion(query.substr(key.size()));
    return url.substr(0, mark);
}

std::uint64_t ParseHex(const std::string& raw)
{
    std::string text = Trim(raw);
    if (text.size() > 8 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw Exception("Unable to parse hex string.", GC_ERR_INVALID_PARAMETER);
    return text.empty() ? 0 : std::stoull(text, nullptr, 16);
}

void CheckSchemaVersion(const Tools::Version& schema)
{
    if (schema.GetComponents().size() < 2)
        throw Exception("Invalid schema version passed.", GC_ERR_INVALID_PARAMETER);
}

void CheckFileVersion(const std::optional<Tools::Version>& file)
{
    if (file && file->GetComponents().size() != 3)
        throw Exception("Invalid file version passed.", GC_ERR_INVALID_PARAMETER);
}

}

std::string EscapeFileName(const std::string& fileName, const std::string& scheme)
{
    std::vector<char> uri(3 * fileName.size() + 8);
    if (uriUnixFilenameToUriStringA(fileName.c_str(), uri.data()) != URI_SUCCESS)
        throw Exception("Could not convert file name to URI.", GC_ERR_ERROR);
    std::string escaped(uri.data());
    if (boost::algorithm::starts_with(escaped, "file:"))
        escaped.erase(0, 5);
    return scheme + ":" + escaped;
}

Tools::Version XMLDescription::GetFileVersion() const
{
    if (!fileVersion)
        throw Exception("XML description doesn't support a file version.", GC_ERR_NOT_IMPLEMENTED);
    return *fileVersion;
}

AddressRange XMLDescription::GetAddressRange() const
{
    throw Exception("XML description doesn't support an address range.", GC_ERR_NOT_IMPLEMENTED);
}

XMLDescription::SHA1 XMLDescription::GetSHA1() const
{
    throw Exception("XML description doesn't support a SHA1 hash.", GC_ERR_NOT_IMPLEMENTED);
}

void XMLDescription::SetVersions(const Tools::Version& schema, const std::optional<Tools::Version>& file)
{
    CheckSchemaVersion(schema);
    CheckFileVersion(file);
    schemaVersion = schema;
    fileVersion = file;
}

// Register descriptions.

RegisterXMLDescription::RegisterXMLDescription(const std::string& name, std::uint64_t address, std::uint64_t size,
                                               const Tools::Version& schema)
{
    Build(name, address, size, std::nullopt, schema, std::nullopt);
}

RegisterXMLDescription::RegisterXMLDescription(const std::string& name, std::uint64_t address, std::uint64_t size,
                                               const Tools::Version& schema, const Tools::Version& file)
{
    Build(name, address, size, std::nullopt, schema, file);
}

RegisterXMLDescription::RegisterXMLDescription(const std::string& name, std::uint64_t address, std::uint64_t size,
                                               const SHA1& hash, const Tools::Version& schema)
{
    Build(name, address, size, hash, schema, std::nullopt);
}

RegisterXMLDescription::RegisterXMLDescription(const std::string& name, std::uint64_t address, std::uint64_t size,
                                               const SHA1& hash, const Tools::Version& schema,
                                               const Tools::Version& file)
{
    Build(name, address, size, hash, schema, file);
}

RegisterXMLDescription::RegisterXMLDescription(const std::string& name, std::uint64_t address, const XMLData& xml,
                                               const Tools::Version& schema)
{
    Build(name, address, xml, schema, std::nullopt);
}

RegisterXMLDescription::RegisterXMLDescription(const std::string& name, std::uint64_t address, const XMLData& xml,
                                               const Tools::Version& schema, const Tools::Version& file)
{
    Build(name, address, xml, schema, file);
}

RegisterXMLDescription::RegisterXMLDescription(const std::string& urlText) { Parse(urlText); }

RegisterXMLDescription::RegisterXMLDescription(FromURL, const std::string& urlText, const Tools::Version& schema,
                                               const std::optional<Tools::Version>& file)
{
    CheckSchemaVersion(schema);
    CheckFileVersion(file);
    Parse(urlText);
    SetVersions(schema, file);
}

void RegisterXMLDescription::Build(const std::string& name, std::uint64_t address, std::uint64_t size,
                                   const std::optional<SHA1>& hash, const Tools::Version& schema,
                                   const std::optional<Tools::Version>& file)
{
    SetVersions(schema, file);
    if (hash && hash->size() != 20)
        throw Exception("Invalid SHA1 hash passed.", GC_ERR_INVALID_PARAMETER);
    addressRange = AddressRange(address, size);
    if (hash)
        sha1 = *hash;
    fileName = name;
    url = (boost::format("%1%;%2$X;%3$X?SchemaVersion=%4%") % EscapeFileName(name, "local") % address % size %
           schemaVersion.ToString('.'))
              .str();
}

void RegisterXMLDescription::Build(const std::string& name, std::uint64_t address, const XMLData& xml,
                                   const Tools::Version& schema, const std::optional<Tools::Version>& file)
{
    if (!xml)
        throw Exception("No XML data passed.", GC_ERR_INVALID_PARAMETER);
    Build(name, address, xml->size(), ComputeSHA1(*xml), schema, file);
    xmlRegister = Tools::MakeShared<XMLRegister>("Could not allocate XML register.", address, xml);
}

void RegisterXMLDescription::Parse(const std::string& urlText)
{
    url = urlText;
    std::string text = Trim(urlText);
    if (!boost::algorithm::istarts_with(text, "local:"))
        InvalidURL();
    text.erase(0, 6);
    if (text.find_first_of("/#") != std::string::npos)
        InvalidURL();
    auto nameEnd = text.find(';');
    if (nameEnd == std::string::npos)
        InvalidURL();
    std::string name = text.substr(0, nameEnd);
    if (name.find('?') != std::string::npos)
        InvalidURL();
    name = Trim(Unescape(name));
    if (name.empty())
        InvalidURL();
    auto addressEnd = text.find(';', nameEnd + 1);
    if (addressEnd == std::string::npos)
        InvalidURL();
    std::uint64_t address = ParseHex(text.substr(nameEnd + 1, addressEnd - nameEnd - 1));
    std::string rest = text.substr(addressEnd + 1);
    std::string sizeText = SplitQuery(rest, schemaVersion);
    std::uint64_t size = ParseHex(sizeText);
    if (size == 0)
        InvalidURL();
    addressRange = AddressRange(address, size);
    fileName = name;
}

XMLDescription::SHA1 RegisterXMLDescription::GetSHA1() const
{
    if (!HasSHA1())
        throw Exception("XML description doesn't support a SHA1 hash.", GC_ERR_NOT_IMPLEMENTED);
    return sha1;
}

XMLDescription::SHA1 RegisterXMLDescription::ComputeSHA1(const XMLRegister::Data& data)
{
    const auto digest = Tools::Sha1Digest(data.data(), data.size());
    return SHA1(digest.begin(), digest.end());
}

// File descriptions.

FileXMLDescription::FileXMLDescription(const std::string& name, const Tools::Version& schema)
{
    SetVersions(schema, std::nullopt);
    fileName = name;
    url = EscapeFileName(name, "file") + "?SchemaVersion=" + schemaVersion.ToString('.');
}

FileXMLDescription::FileXMLDescription(const std::string& name, const Tools::Version& schema,
                                       const Tools::Version& file)
    : FileXMLDescription(name, schema)
{
    SetVersions(schema, file);
}

FileXMLDescription::FileXMLDescription(FromURL, const std::string& urlText, const Tools::Version& schema,
                                       const std::optional<Tools::Version>& file)
{
    CheckSchemaVersion(schema);
    CheckFileVersion(file);
    Parse(urlText);
    SetVersions(schema, file);
}

FileXMLDescription::FileXMLDescription(const std::string& urlText) { Parse(urlText); }

void FileXMLDescription::Parse(const std::string& urlText)
{
    url = urlText;
    std::string text = Trim(urlText);
    if (!boost::algorithm::istarts_with(text, "file:") || text.find('#') != std::string::npos)
        InvalidURL();
    text = SplitQuery(text, schemaVersion).substr(5);
    if (boost::algorithm::starts_with(text, "//")) {
        text = Unescape(text.substr(2));
    } else {
        text = Trim(text);
        if (text.find_first_of(":|") != std::string::npos)
            InvalidURL();
        text = Unescape(text);
    }
    text = Trim(text);
    if (text.empty())
        InvalidURL();
    fileName = text;
}

// Web descriptions.

WebXMLDescription::WebXMLDescription(const std::string& urlText) { Parse(urlText); }

WebXMLDescription::WebXMLDescription(FromURL, const std::string& urlText, const Tools::Version& schema,
                                     const std::optional<Tools::Version>& file)
{
    CheckSchemaVersion(schema);
    CheckFileVersion(file);
    Parse(urlText);
    SetVersions(schema, file);
}

void WebXMLDescription::Parse(const std::string& urlText)
{
    url = urlText;
    std::string text = Trim(urlText);
    if (!boost::algorithm::istarts_with(text, "http://") || text.find('#') != std::string::npos)
        InvalidURL();
    text = SplitQuery(text, schemaVersion);
    UriUriA uri;
    const char* errorPos = nullptr;
    if (uriParseSingleUriA(&uri, text.c_str(), &errorPos) != URI_SUCCESS)
        InvalidURL();
    uriFreeUriMembersA(&uri);
    text.erase(0, 7);
    auto slash = text.rfind('/');
    if (slash == std::string::npos)
        InvalidURL();
    fileName = Trim(text.substr(slash + 1));
    if (fileName.empty())
        InvalidURL();
}

// Creation by scheme.

namespace {

template <class Make>
std::shared_ptr<XMLDescription> CreateByScheme(const std::string& url, Make make)
{
    std::string text = Trim(url);
    std::shared_ptr<XMLDescription> description;
    Tools::Allocating("Could not allocate XML description.", [&] {
        if (boost::algorithm::istarts_with(text, "local:"))
            description = make(static_cast<RegisterXMLDescription*>(nullptr));
        else if (boost::algorithm::istarts_with(text, "file:"))
            description = make(static_cast<FileXMLDescription*>(nullptr));
        else if (boost::algorithm::istarts_with(text, "http:"))
            description = make(static_cast<WebXMLDescription*>(nullptr));
        else
            InvalidURL();
    });
    return description;
}

}

std::shared_ptr<XMLDescription> CreateXMLDescription(const std::string& url)
{
    return CreateByScheme(url, [&](auto* kind) -> std::shared_ptr<XMLDescription> {
        return std::make_shared<std::remove_pointer_t<decltype(kind)>>(url);
    });
}

std::shared_ptr<XMLDescription> CreateXMLDescription(const std::string& url, const Tools::Version& schema,
                                                     const std::optional<Tools::Version>& file)
{
    return CreateByScheme(url, [&](auto* kind) -> std::shared_ptr<XMLDescription> {
        return std::make_shared<std::remove_pointer_t<decltype(kind)>>(FromURL{}, url, schema, file);
    });
}

std::shared_ptr<RegisterXMLDescription> RegisterXMLDescription::ForModule(const std::shared_ptr<XMLFile>& xml,
                                                                         const std::string& documentName,
                                                                         std::uint64_t address, const char* missingText)
{
    if (!xml)
        throw Exception(missingText, GC_ERR_ERROR);
    const std::string fileName =
        xml->IsFile() ? boost::filesystem::path(xml->GetFileName()).filename().string()
                      : (boost::format("%1%_%2%.xml") % documentName % xml->GetFileVersion().ToString('_')).str();
    return std::make_shared<RegisterXMLDescription>(fileName, address, xml->GetData(), xml->GetSchemaVersion(),
                                                    xml->GetFileVersion());
}

} }
