#include "base/BaseException.h"
#include "support/Settings.h"
#include "support/XMLFile.h"
#include "support/XmlDepth.h"

#include <pthread.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <fstream>
#include <limits>

using namespace QEL;
namespace fs = boost::filesystem;

namespace {

const char* const kDescription =
    "<RegisterDescription SchemaMajorVersion='1' SchemaMinorVersion='1' SchemaSubMinorVersion='0' "
    "MajorVersion='3' MinorVersion='2' SubMinorVersion='1' ProductGuid='GUID-1'/>";

class SettingsFile : public ::testing::Test {
protected:
    SettingsFile() : folder(fs::temp_directory_path() / fs::unique_path("settings-%%%%-%%%%"))
    {
        fs::create_directories(folder);
        library = (folder / "producer.cti").string();
    }
    ~SettingsFile() override { fs::remove_all(folder); }

    void Write(const std::string& name, const std::string& text) { std::ofstream((folder / name).string()) << text; }

    std::shared_ptr<Settings> Load(const std::string& body)
    {
        Write("producer.xml", "<Settings>" + body + "</Settings>");
        return Settings::Load(library);
    }

    // The failure text of loading `body`, or "" when it loads.
    std::string Failure(const std::string& body)
    {
        try {
            Load(body);
            return "";
        } catch (const Base::Exception& e) {
            EXPECT_EQ(GC_ERR_ERROR, e.GetCode()) << e.GetText();
            return e.GetText();
        }
    }

    fs::path folder;
    std::string library;
};

TEST_F(SettingsFile, MissingOrMalformedFileGivesDefaults)
{
    for (bool malformed : {false, true}) {
        if (malformed)
            Write("producer.xml", "<Settings><SendTimeout>5</Sen");
        auto settings = Settings::Load(library);
        EXPECT_EQ(1000u, settings->GetSendTimeout());
        EXPECT_EQ(50u, settings->GetExtraReceiveTimeout());
        EXPECT_EQ(4u, settings->GetMaxTransferCountEventChannel());
        EXPECT_EQ(-1, settings->GetRecordFrameStartFrameID());
        EXPECT_FALSE(settings->IsLoggingActive());
        EXPECT_FALSE(settings->GetTolerateTypeNullptr());
        EXPECT_EQ("1.0.1", settings->GetVersion().ToString('.'));
        EXPECT_EQ(folder.string(), settings->GetDebugFilesFolder());
        EXPECT_EQ("", settings->GetXMLCacheFolder());
        EXPECT_FALSE(settings->HasMaxTransferCount());
        EXPECT_THROW(settings->GetMaxTransferCount(), Base::Exception);
        EXPECT_THROW(settings->GetEnumerationInterval(), Base::Exception);
        EXPECT_THROW(settings->GetLogFileName(), Base::Exception);
        for (const auto& xml : {settings->GetSystemXML(), settings->GetInterfaceXML(), settings->GetDeviceXML(),
                                settings->GetDataStreamXML()}) {
            ASSERT_TRUE(xml);
            EXPECT_FALSE(xml->IsFile());
            EXPECT_EQ("7B0CEC30-6004-4F2D-9697-CD515749CBC6", xml->GetProductGuid());
            EXPECT_EQ("1.0.1", xml->GetSchemaVersion().ToString('.'));
        }
        EXPECT_EQ("1.0.1", settings->GetDataStreamXML()->GetFileVersion().ToString('.'));
        EXPECT_EQ("1.0.0", settings->GetSystemXML()->GetFileVersion().ToString('.'));
    }
}

TEST_F(SettingsFile, WrongRootIsAnError)
{
    Write("producer.xml", "<Other/>");
    EXPECT_THROW(Settings::Load(library), Base::Exception);
    try {
        Settings::Load(library);
    } catch (const Base::Exception& e) {
        EXPECT_EQ("Could not read TL settings.", e.GetText());
    }
}

TEST_F(SettingsFile, NumberRule)
{
    EXPECT_EQ(16u, Load("<SendTimeout> 0x10 </SendTimeout>")->GetSendTimeout());
    EXPECT_EQ(255u, Load("<SendTimeout>0xff</SendTimeout>")->GetSendTimeout());
    EXPECT_EQ(0u, Load("<SendTimeout></SendTimeout>")->GetSendTimeout());
    EXPECT_EQ(4294967295u, Load("<SendTimeout>4294967295</SendTimeout>")->GetSendTimeout());
    EXPECT_EQ("Could not parse number.", Failure("<SendTimeout>0X10</SendTimeout>"));
    EXPECT_EQ("Could not parse number.", Failure("<SendTimeout>1A</SendTimeout>"));
    EXPECT_EQ("Could not parse number.", Failure("<SendTimeout>1a</SendTimeout>"));
    EXPECT_EQ("Could not parse number.", Failure("<SendTimeout>-1</SendTimeout>"));
    EXPECT_EQ("Number too long for variable.", Failure("<SendTimeout>4294967296</SendTimeout>"));
    EXPECT_EQ("Number too long for variable.", Failure("<SendTimeout>0x100000000</SendTimeout>"));
}

TEST_F(SettingsFile, BoolRuleAndAppendLogOnlyWithALogFile)
{
    EXPECT_TRUE(Load("<TolerateTypeNullptr> true </TolerateTypeNullptr>")->GetTolerateTypeNullptr());
    EXPECT_FALSE(Load("<TolerateTypeNullptr>False</TolerateTypeNullptr>")->GetTolerateTypeNullptr());
    EXPECT_EQ("Could not read settings.", Failure("<EnableEnumeration>yes</EnableEnumeration>"));
    EXPECT_EQ("", Failure("<AppendLog>maybe</AppendLog>"));
    EXPECT_EQ("Could not read settings.", Failure("<LogFileName>a.log</LogFileName><AppendLog>maybe</AppendLog>"));

    auto settings = Load("<LogFileName>logs/../a.log</LogFileName><AppendLog>TRUE</AppendLog>");
    EXPECT_TRUE(settings->IsLoggingActive());
    EXPECT_EQ((folder / "a.log").string(), settings->GetLogFileName());
    EXPECT_TRUE(settings->GetAppendLog());
    EXPECT_EQ("/abs/m.log", Load("<MediaLogFileName>/abs/m.log</MediaLogFileName>")->GetMediaLogFileName());
    EXPECT_EQ(folder.string(), Load("<XMLCacheFolder/>")->GetXMLCacheFolder());
}

TEST_F(SettingsFile, LimitsThatMustBePositive)
{
    EXPECT_EQ("Invalid maximum transfer count set.", Failure("<MaxTransferCount>0</MaxTransferCount>"));
    EXPECT_EQ("Invalid maximum transfer size set.", Failure("<MaxTransferSize>0</MaxTransferSize>"));
    EXPECT_EQ("Invalid maximum transfer count for event channel set.",
              Failure("<MaxTransferCountEventChannel>0</MaxTransferCountEventChannel>"));
    EXPECT_EQ("Invalid RecordFrameStartFrameID set.", Failure("<RecordFrameStartFrameID>0</RecordFrameStartFrameID>"));
    EXPECT_EQ("Invalid RecordFrameStopFrameID set.", Failure("<RecordFrameStopFrameID>0</RecordFrameStopFrameID>"));
    EXPECT_EQ("Number too long for variable.", Failure("<RecordFrameStartFrameID>2147483648</RecordFrameStartFrameID>"));
    auto settings = Load("<MaxTransferCount>8</MaxTransferCount><EnumerationInterval>250</EnumerationInterval>"
                         "<RecordFrameStartFrameID>3</RecordFrameStartFrameID>");
    EXPECT_EQ(8u, settings->GetMaxTransferCount());
    EXPECT_EQ(250u, settings->GetEnumerationInterval());
    EXPECT_EQ(3, settings->GetRecordFrameStartFrameID());
}

TEST_F(SettingsFile, PortSettings)
{
    auto settings = Load("<Ports><Port ID='a'><CSILaneCount>2</CSILaneCount></Port>"
                         "<Port ID='b'><CSIClockFrequency>0x10</CSIClockFrequency></Port>"
                         "<Port ID='c'/><Port ID='c'/></Ports>");
    ASSERT_EQ(2u, settings->GetPorts().size());
    const PortSettings& a = settings->GetPorts().at("a");
    EXPECT_EQ(2, a.GetLaneCount());
    EXPECT_FALSE(a.HasClockFrequency());
    EXPECT_THROW(a.GetClockFrequency(), Base::Exception);
    EXPECT_EQ(16u, settings->GetPorts().at("b").GetClockFrequency());

    EXPECT_EQ("Number too long for variable.", Failure("<Ports><Port ID='a'><CSILaneCount>300</CSILaneCount></Port></Ports>"));
    EXPECT_THROW(Load("<Ports><Port ID='a'><CSILaneCount>5</CSILaneCount></Port></Ports>"), Base::Exception);
    try {
        Load("<Ports><Port ID='a'><CSILaneCount>5</CSILaneCount></Port></Ports>");
    } catch (const Base::Exception& e) {
        EXPECT_EQ("Invalid lane count passed.", e.GetText());
        EXPECT_EQ(GC_ERR_INVALID_PARAMETER, e.GetCode());
    }
    EXPECT_EQ("Duplicate port settings found.",
              Failure("<Ports><Port ID='a'><CSILaneCount>1</CSILaneCount></Port>"
                      "<Port ID='a'><CSILaneCount>2</CSILaneCount></Port></Ports>"));
    EXPECT_EQ("Could not get port ID.", Failure("<Ports><Port><CSILaneCount>1</CSILaneCount></Port></Ports>"));
    EXPECT_EQ("Invalid port ID found.", Failure("<Ports><Port ID=''><CSILaneCount>1</CSILaneCount></Port></Ports>"));
}

TEST_F(SettingsFile, RemoteDeviceDescriptionsAndTheirAddresses)
{
    Write("cam.xml", kDescription);
    const std::uint64_t size = std::string(kDescription).size();
    auto settings = Load("<RemoteDeviceXMLFile CameraID='cam1'>cam.xml</RemoteDeviceXMLFile>"
                         "<RemoteDeviceXMLFile>cam.xml</RemoteDeviceXMLFile>"
                         "<RemoteDeviceXMLFile CameraID='cam2'>cam.xml</RemoteDeviceXMLFile>"
                         "<RemoteDeviceXMLAddress CameraID='cam2'>0x1000</RemoteDeviceXMLAddress>"
                         "<RemoteDeviceXMLAddress CameraID='cam2'>0x2000</RemoteDeviceXMLAddress>");
    EXPECT_EQ(2u, settings->GetRemoteDeviceXMLs().size());
    EXPECT_EQ(0 - size, settings->GetRemoteDeviceXMLAddress("cam1"));
    EXPECT_EQ(0x2000u, settings->GetRemoteDeviceXMLAddress("cam2"));
    EXPECT_EQ("GUID-1", settings->GetRemoteDeviceXML("cam1")->GetProductGuid());
    EXPECT_THROW(settings->GetRemoteDeviceXMLAddress("cam3"), Base::Exception);

    EXPECT_EQ("Invalid address specified in settings file.",
              Failure("<RemoteDeviceXMLFile CameraID='c'>cam.xml</RemoteDeviceXMLFile>"
                      "<RemoteDeviceXMLAddress CameraID='c'>" + std::to_string(0 - size + 1) +
                      "</RemoteDeviceXMLAddress>"));
    EXPECT_EQ("", Failure("<RemoteDeviceXMLFile CameraID='c'>cam.xml</RemoteDeviceXMLFile>"
                          "<RemoteDeviceXMLAddress CameraID='c'>" + std::to_string(0 - size) +
                          "</RemoteDeviceXMLAddress>"));
    EXPECT_EQ("Could not open xml file.", Failure("<RemoteDeviceXMLFile CameraID='c'>none.xml</RemoteDeviceXMLFile>"));
}

TEST_F(SettingsFile, ModuleDescriptionsFromFiles)
{
    Write("system.xml", kDescription);
    auto settings = Load("<SystemXMLFile>system.xml</SystemXMLFile>");
    EXPECT_EQ("GUID-1", settings->GetSystemXML()->GetProductGuid());
    EXPECT_TRUE(settings->GetSystemXML()->IsFile());
    EXPECT_EQ("3.2.1", settings->GetSystemXML()->GetFileVersion().ToString('.'));
    EXPECT_EQ("1.1.0", settings->GetSystemXML()->GetSchemaVersion().ToString('.'));
    EXPECT_EQ("Could not open xml file.", Failure("<DeviceXMLFile>missing.xml</DeviceXMLFile>"));
    Write("empty.xml", "");
    EXPECT_EQ("Invalid XML file found.", Failure("<DeviceXMLFile>empty.xml</DeviceXMLFile>"));
}

TEST_F(SettingsFile, AsicRegisterWrites)
{
    auto settings = Load("<ASIC><RegWrite Address='1F0' Name='first'>-12</RegWrite>"
                         "<RegWrite Address='20'>5</RegWrite>"
                         "<RegWrite Address='24' Name='second'>7</RegWrite></ASIC>");
    ASSERT_EQ(2u, settings->GetRegSettings().size());
    EXPECT_EQ(0x1F0u, settings->GetRegSettings()[0].address);
    EXPECT_EQ(-12, settings->GetRegSettings()[0].value);
    EXPECT_EQ("second", settings->GetRegSettings()[1].name);
}

TEST(XMLFile, ParsingRules)
{
    auto bytes = [](const std::string& s) { return std::make_shared<const XMLFile::Bytes>(s.begin(), s.end()); };
    auto failure = [&](const std::string& text, const std::string& name) -> std::string {
        try {
            if (name.empty())
                XMLFile file(bytes(text));
            else
                XMLFile file(bytes(text), name);
            return "";
        } catch (const Base::Exception& e) {
            return e.GetText();
        }
    };
    EXPECT_EQ("", failure(kDescription, "a.XmL"));
    EXPECT_EQ("Invalid file type passed.", failure(kDescription, "a.txt"));
    EXPECT_EQ("Invalid file type passed.", failure("not xml", "a.zip")) << "the name is checked before the parse";
    EXPECT_EQ("Could not parse XML file.", failure("<a><b></a>", ""));
    EXPECT_EQ("XML file doesn't contain \"RegisterDescription\" node.", failure("<Other/>", ""));
    EXPECT_EQ("Could not access attribute.", failure("<RegisterDescription ProductGuid='x'/>", ""));
    EXPECT_THROW(XMLFile::FromMemory(nullptr, 3), Base::Exception);
    EXPECT_THROW(XMLFile(std::shared_ptr<const XMLFile::Bytes>()), Base::Exception);
}

TEST(Settings, FileBesideTheLibrary)
{
    EXPECT_EQ("/opt/gentl/lorun_csi2.xml", Settings::SettingsPathFor("/opt/gentl/./lorun_csi2.cti"));
    EXPECT_EQ("/a/b.c.xml", Settings::SettingsPathFor("/a/b.c.cti"));
}

}

namespace {

// Runs `f` on a thread with a 256 KB stack, as some hosts give their threads.
template <class F>
void OnSmallStack(F f)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    auto call = [](void* argument) -> void* {
        (*static_cast<F*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, call, &f));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

std::string Nested(std::size_t depth, const std::string& inner = "")
{
    std::string text;
    for (std::size_t i = 0; i < depth; ++i)
        text += "<a>";
    text += inner;
    for (std::size_t i = 0; i < depth; ++i)
        text += "</a>";
    return text;
}

TEST(XmlDepth, CommentsQuotesAndSelfClosingTagsDoNotCount)
{
    EXPECT_EQ(0u, Tools::XmlNestingDepth("<?xml version='1.0'?><!-- <a><a> --><!DOCTYPE x>"));
    EXPECT_EQ(2u, Tools::XmlNestingDepth("<a x='>' y=\"<b>\"><b/><c><![CDATA[<d><d>]]></c></a>"));
    EXPECT_EQ(300u, Tools::XmlNestingDepth(Nested(300)));
    EXPECT_TRUE(Tools::IsXmlDepthSane(Nested(Tools::MaxXmlDepth)));
    EXPECT_FALSE(Tools::IsXmlDepthSane(Nested(Tools::MaxXmlDepth + 1)));
}

TEST_F(SettingsFile, ADeeplyNestedFileIsRefusedBeforeTheParserRecurses)
{
    Write("producer.xml", "<Settings>" + Nested(100000) + "</Settings>");
    std::string failure = "no failure";
    testing::internal::CaptureStderr();
    OnSmallStack([&] {
        try {
            Settings::Load(library);
        } catch (const Base::Exception& e) {
            failure = e.GetText();
        }
    });
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ("Could not read TL settings.", failure);
    EXPECT_NE(std::string::npos, said.find("producer.xml")) << said;
    EXPECT_NE(std::string::npos, said.find("nested deeper than")) << said;

    const std::string deepDocument = "<RegisterDescription>" + Nested(100000) + "</RegisterDescription>";
    std::string documentFailure;
    OnSmallStack([&] {
        try {
            XMLFile::FromMemory(deepDocument.data(), deepDocument.size());
        } catch (const Base::Exception& e) {
            documentFailure = e.GetText();
        }
    });
    EXPECT_EQ("XML file nests too deeply.", documentFailure);
}

TEST_F(SettingsFile, ABadValueIsReportedWithTheFileTheElementAndTheValue)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ("Could not parse number.", Failure("<SendTimeout>12ms</SendTimeout>"));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, said.find((folder / "producer.xml").string())) << said;
    EXPECT_NE(std::string::npos, said.find("<SendTimeout>")) << said;
    EXPECT_NE(std::string::npos, said.find("'12ms'")) << said;

    auto settings = Load("<LogFileName/>");
    EXPECT_FALSE(settings->IsLoggingActive()) << "an empty log file name asks for no log";

    fs::create_directory(folder / "producer.xml.d");
    fs::remove(folder / "producer.xml");
    ASSERT_EQ(0, ::mkfifo((folder / "producer.xml").string().c_str(), 0600));
    testing::internal::CaptureStderr();
    EXPECT_THROW(Settings::Load(library), Base::Exception) << "a FIFO is refused, not waited on";
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("not a regular file"));
}

}
