#include "base/BaseException.h"
#include "framework/XMLDescription.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <functional>

using namespace QEL;
using namespace QEL::Base;

namespace {


const Result kInvalidURL = Err(GC_ERR_INVALID_PARAMETER, "Invalid URL passed.");

TEST(URLGrammar, Local)
{
    auto d = CreateXMLDescription("  LOCAL:a.xml;1000;2000?schemaversion=1.1  ");
    ASSERT_TRUE(d->HasAddressRange());
    EXPECT_EQ(0x1000u, d->GetAddressRange().GetAddress());
    EXPECT_EQ(0x2000u, d->GetAddressRange().GetSize());
    EXPECT_EQ("1.1", d->GetSchemaVersion().ToString('.'));
    EXPECT_EQ("a b.xml", CreateXMLDescription("local:a%20b.xml;1000;10")->GetFileName());
    EXPECT_EQ("1.0.0", CreateXMLDescription("local:a.xml;1000;10")->GetSchemaVersion().ToString('.'));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("local:a.xml;1000;0"); }));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("local:dir/a.xml;1000;10"); }));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("local:a.xml;1000;10?SchemaVersion=1"); }));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("local:a.xml;1000"); }));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("local: ;1000;10"); }));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("local:a.xml;1000;10?Version=1.0"); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Unable to parse hex string."),
              Failure([] { CreateXMLDescription("local:a.xml;123456789;10"); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Unable to parse hex string."),
              Failure([] { CreateXMLDescription("local:a.xml;0x10;10"); }));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("ftp://host/a.xml"); }));
}

TEST(URLGrammar, FileAndHttp)
{
    EXPECT_EQ("/a.xml", CreateXMLDescription("file:///a.xml")->GetFileName());
    EXPECT_EQ("dir/my file.xml", CreateXMLDescription("file:dir/my%20file.xml?SchemaVersion=1.0.2")->GetFileName());
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("file:c|/a.xml"); }));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("file:///a.xml#part"); }));
    EXPECT_FALSE(CreateXMLDescription("file:///a.xml")->HasAddressRange());

    auto web = CreateXMLDescription("http://host/path/a.xml?SchemaVersion=1.1");
    EXPECT_EQ("a.xml", web->GetFileName());
    EXPECT_EQ("1.1", web->GetSchemaVersion().ToString('.'));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("https://host/a.xml"); }));
    EXPECT_EQ(kInvalidURL, Failure([] { CreateXMLDescription("http://host/"); }));
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "XML description doesn't support an address range."),
              Failure([&] { web->GetAddressRange(); }));
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "XML description doesn't support a SHA1 hash."),
              Failure([&] { web->GetSHA1(); }));
}

TEST(URLGrammar, VersionsGivenWithTheURLWin)
{
    auto d = CreateXMLDescription("local:a.xml;10;20?SchemaVersion=1.0", Tools::Version(1, 1, 0), Tools::Version(2, 3, 4));
    EXPECT_EQ("1.1.0", d->GetSchemaVersion().ToString('.'));
    EXPECT_EQ("2.3.4", d->GetFileVersion().ToString('.'));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid file version passed."),
              Failure([] { CreateXMLDescription("file:///a.xml", Tools::Version(1, 0), Tools::Version(1, 0)); }));
}

TEST(RegisterDescription, BuiltFromParts)
{
    std::string text = "abc";
    auto data = std::make_shared<const XMLRegister::Data>(text.begin(), text.end());
    RegisterXMLDescription d("Lorun_DataStream_1_0_1.xml", 0x10000, data, Tools::Version(1, 0, 1),
                             Tools::Version(1, 0, 1));
    EXPECT_EQ("local:Lorun_DataStream_1_0_1.xml;10000;3?SchemaVersion=1.0.1", d.GetURL());
    const XMLDescription::SHA1 abc = {0xa9, 0x99, 0x3e, 0x36, 0x47, 0x06, 0x81, 0x6a, 0xba, 0x3e,
                                      0x25, 0x71, 0x78, 0x50, 0xc2, 0x6c, 0x9c, 0xd0, 0xd8, 0x9d};
    EXPECT_EQ(abc, d.GetSHA1());
    ASSERT_TRUE(d.GetRegister());
    EXPECT_EQ(0x10000u, d.GetRegister()->GetAddressRange().GetAddress());

    RegisterXMLDescription noFile("a.xml", 0x10, 0x20, Tools::Version(1, 0));
    EXPECT_FALSE(noFile.HasFileVersion());
    EXPECT_FALSE(noFile.HasSHA1());
    EXPECT_FALSE(noFile.GetRegister());
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "XML description doesn't support a file version."),
              Failure([&] { noFile.GetFileVersion(); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid SHA1 hash passed."),
              Failure([] { RegisterXMLDescription("a.xml", 0, 1, XMLDescription::SHA1(19), Tools::Version(1, 0)); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid schema version passed."),
              Failure([] { RegisterXMLDescription("a.xml", 0, 1, Tools::Version(1)); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No XML data passed."),
              Failure([] { RegisterXMLDescription("a.xml", 0, RegisterXMLDescription::XMLData(), Tools::Version(1, 0)); }));

    // A built URL parses back to the same parts.
    auto parsed = CreateXMLDescription(d.GetURL());
    EXPECT_EQ(d.GetFileName(), parsed->GetFileName());
    EXPECT_EQ(3u, parsed->GetAddressRange().GetSize());

    FileXMLDescription file("/a/b.xml", Tools::Version(1, 0));
    EXPECT_EQ("file:///a/b.xml?SchemaVersion=1.0", file.GetURL());
}

}
