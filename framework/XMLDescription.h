#pragma once

#include "framework/AddressRange.h"
#include "framework/XMLRegister.h"
#include "support/Version.h"

namespace QEL { class XMLFile; }

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace QEL { namespace Base {

// Selects the constructors that parse a URL and then take the given versions.
struct FromURL {};

// Where a port's GenApi document lies, as a GenTL port URL: in the port's own
// register space (local:), in a file (file:) or on a web server (http://).
class XMLDescription : public virtual QEL::System::Object {
public:
    using SHA1 = std::vector<unsigned char>;

    virtual std::string GetURL() const { return url; }
    virtual Tools::Version GetSchemaVersion() const { return schemaVersion; }
    virtual bool HasFileVersion() const { return fileVersion.has_value(); }
    virtual Tools::Version GetFileVersion() const;
    virtual std::string GetFileName() const { return fileName; }
    virtual bool HasAddressRange() const { return false; }
    virtual AddressRange GetAddressRange() const;
    virtual std::shared_ptr<Register> GetRegister() const { return nullptr; }
    virtual bool HasSHA1() const { return false; }
    virtual SHA1 GetSHA1() const;

protected:
    XMLDescription() = default;
    // Validates and stores the versions given with the parts or with a URL.
    void SetVersions(const Tools::Version& schema, const std::optional<Tools::Version>& file);

    std::string url;
    Tools::Version schemaVersion{1, 0, 0};
    std::optional<Tools::Version> fileVersion;
    std::string fileName;
};

class RegisterXMLDescription : public virtual XMLDescription {
public:
    using XMLData = std::shared_ptr<const XMLRegister::Data>;

    RegisterXMLDescription(const std::string& fileName, std::uint64_t address, std::uint64_t size,
                           const Tools::Version& schemaVersion);
    RegisterXMLDescription(const std::string& fileName, std::uint64_t address, std::uint64_t size,
                           const Tools::Version& schemaVersion, const Tools::Version& fileVersion);
    RegisterXMLDescription(const std::string& fileName, std::uint64_t address, std::uint64_t size, const SHA1& sha1,
                           const Tools::Version& schemaVersion);
    RegisterXMLDescription(const std::string& fileName, std::uint64_t address, std::uint64_t size, const SHA1& sha1,
                           const Tools::Version& schemaVersion, const Tools::Version& fileVersion);
    RegisterXMLDescription(const std::string& fileName, std::uint64_t address, const XMLData& xml,
                           const Tools::Version& schemaVersion);
    RegisterXMLDescription(const std::string& fileName, std::uint64_t address, const XMLData& xml,
                           const Tools::Version& schemaVersion, const Tools::Version& fileVersion);
    // Parses a local: URL; the versions, when given, win over the URL's.
    explicit RegisterXMLDescription(const std::string& url);

    // A module's own document at `address`: a file from the settings keeps its
    // name, the built-in one is named `<documentName>_<file version>.xml`.
    static std::shared_ptr<RegisterXMLDescription> ForModule(const std::shared_ptr<XMLFile>& xml,
                                                             const std::string& documentName, std::uint64_t address,
                                                             const char* missingText);
    RegisterXMLDescription(FromURL, const std::string& url, const Tools::Version& schemaVersion,
                           const std::optional<Tools::Version>& fileVersion);

    bool HasAddressRange() const override { return true; }
    AddressRange GetAddressRange() const override { return addressRange; }
    std::shared_ptr<Register> GetRegister() const override { return xmlRegister; }
    bool HasSHA1() const override { return sha1.size() == 20; }
    SHA1 GetSHA1() const override;

    // The standard SHA-1 digest, bytes in the order of its hexadecimal text.
    static SHA1 ComputeSHA1(const XMLRegister::Data& data);

private:
    void Build(const std::string& name, std::uint64_t address, std::uint64_t size, const std::optional<SHA1>& hash,
               const Tools::Version& schema, const std::optional<Tools::Version>& file);
    void Build(const std::string& name, std::uint64_t address, const XMLData& xml, const Tools::Version& schema,
               const std::optional<Tools::Version>& file);
    void Parse(const std::string& url);

    AddressRange addressRange;
    std::shared_ptr<XMLRegister> xmlRegister;
    SHA1 sha1;
};

class FileXMLDescription : public virtual XMLDescription {
public:
    FileXMLDescription(const std::string& fileName, const Tools::Version& schemaVersion);
    FileXMLDescription(const std::string& fileName, const Tools::Version& schemaVersion,
                       const Tools::Version& fileVersion);
    explicit FileXMLDescription(const std::string& url);
    FileXMLDescription(FromURL, const std::string& url, const Tools::Version& schemaVersion,
                       const std::optional<Tools::Version>& fileVersion);

private:
    void Parse(const std::string& url);
};

class WebXMLDescription : public virtual XMLDescription {
public:
    explicit WebXMLDescription(const std::string& url);
    WebXMLDescription(FromURL, const std::string& url, const Tools::Version& schemaVersion,
                      const std::optional<Tools::Version>& fileVersion);

private:
    void Parse(const std::string& url);
};

// Makes the description that the scheme of `url` asks for.
std::shared_ptr<XMLDescription> CreateXMLDescription(const std::string& url);
std::shared_ptr<XMLDescription> CreateXMLDescription(const std::string& url, const Tools::Version& schemaVersion,
                                                     const std::optional<Tools::Version>& fileVersion);

// A file name as it stands in a URL of `scheme`, with percent escapes.
std::string EscapeFileName(const std::string& fileName, const std::string& scheme);

} }
