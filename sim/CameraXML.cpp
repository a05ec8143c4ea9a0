#include "sim/CameraXML.h"

#include "sim/CameraMap.h"
#include "sim/PixelFormats.h"

#include <boost/format.hpp>

namespace QEL { namespace Sim {

namespace {

std::string Hex(std::uint64_t value) { return (boost::format("0x%X") % value).str(); }

std::string IntReg(const std::string& name, std::uint64_t address, unsigned length, const char* access)
{
    return "  <IntReg Name=\"" + name + "\">\n    <Address>" + Hex(address) + "</Address>\n    <Length>" +
           std::to_string(length) + "</Length>\n    <AccessMode>" + access +
           "</AccessMode>\n    <pPort>Device</pPort>\n    <Sign>Unsigned</Sign>\n    <Endianess>LittleEndian</Endianess>\n  </IntReg>\n";
}

std::string FloatReg(const std::string& name, std::uint64_t address)
{
    return "  <FloatReg Name=\"" + name + "\">\n    <Address>" + Hex(address) +
           "</Address>\n    <Length>8</Length>\n    <AccessMode>RW</AccessMode>\n    <pPort>Device</pPort>\n"
           "    <Endianess>LittleEndian</Endianess>\n  </FloatReg>\n";
}

std::string StringReg(const std::string& name, std::uint64_t address, const char* access)
{
    return "  <StringReg Name=\"" + name + "\">\n    <Address>" + Hex(address) +
           "</Address>\n    <Length>64</Length>\n    <AccessMode>" + access +
           "</AccessMode>\n    <pPort>Device</pPort>\n  </StringReg>\n";
}

std::string Integer(const std::string& name, const std::string& body)
{
    return "  <Integer Name=\"" + name + "\" NameSpace=\"Standard\">\n" + body + "  </Integer>\n";
}

std::string Float(const std::string& name, const std::string& unit, double min, double max)
{
    return "  <Float Name=\"" + name + "\" NameSpace=\"Standard\">\n    <pValue>" + name + "Reg</pValue>\n    <Min>" +
           std::to_string(min) + "</Min>\n    <Max>" + std::to_string(max) + "</Max>\n    <Unit>" + unit +
           "</Unit>\n  </Float>\n";
}

std::string Command(const std::string& name, std::uint64_t address)
{
    return "  <Command Name=\"" + name + "\" NameSpace=\"Standard\">\n    <pValue>" + name +
           "Reg</pValue>\n    <CommandValue>1</CommandValue>\n  </Command>\n" + IntReg(name + "Reg", address, 4, "WO");
}

}

std::string CameraXML(const CameraDescription& camera)
{
    using namespace CameraMap;
    std::string pixelEntries;
    for (const auto& format : PixelFormats())
        pixelEntries += "    <EnumEntry Name=\"" + format.name + "\" NameSpace=\"Standard\">\n      <Value>" +
                        std::to_string(format.pfnc) + "</Value>\n    </EnumEntry>\n";
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
        "<RegisterDescription ModelName=\"VirtualCSI2Camera\" VendorName=\"Tesmar_Lumetric_Industries\" "
        "ToolTip=\"Virtual CSI-2 camera\" StandardNameSpace=\"None\" SchemaMajorVersion=\"1\" SchemaMinorVersion=\"1\" "
        "SchemaSubMinorVersion=\"0\" MajorVersion=\"1\" MinorVersion=\"0\" SubMinorVersion=\"0\" "
        "ProductGuid=\"4B4D7C1E-2B0E-4E4B-9C55-7A0A6C1D3F01\" VersionGuid=\"4B4D7C1E-2B0E-4E4B-9C55-7A0A6C1D3F02\" "
        "xmlns=\"http://www.genicam.org/GenApi/Version_1_1\" "
        "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
        "xsi:schemaLocation=\"http://www.genicam.org/GenApi/Version_1_1 GenApiSchema_Version_1_1.xsd\">\n"
        "  <Category Name=\"Root\" NameSpace=\"Standard\">\n"
        "    <pFeature>DeviceControl</pFeature>\n    <pFeature>ImageFormatControl</pFeature>\n"
        "    <pFeature>AcquisitionControl</pFeature>\n    <pFeature>AnalogControl</pFeature>\n"
        "    <pFeature>TransportLayerControl</pFeature>\n  </Category>\n"
        "  <Category Name=\"DeviceControl\" NameSpace=\"Standard\">\n"
        "    <pFeature>DeviceVendorName</pFeature>\n    <pFeature>DeviceModelName</pFeature>\n"
        "    <pFeature>DeviceFamilyName</pFeature>\n    <pFeature>DeviceVersion</pFeature>\n"
        "    <pFeature>DeviceManufacturerInfo</pFeature>\n    <pFeature>DeviceSerialNumber</pFeature>\n"
        "    <pFeature>DeviceUserID</pFeature>\n  </Category>\n"
        "  <Category Name=\"ImageFormatControl\" NameSpace=\"Standard\">\n"
        "    <pFeature>WidthMax</pFeature>\n    <pFeature>HeightMax</pFeature>\n    <pFeature>Width</pFeature>\n"
        "    <pFeature>Height</pFeature>\n    <pFeature>OffsetX</pFeature>\n    <pFeature>OffsetY</pFeature>\n"
        "    <pFeature>PixelFormat</pFeature>\n    <pFeature>TestPattern</pFeature>\n  </Category>\n"
        "  <Category Name=\"AcquisitionControl\" NameSpace=\"Standard\">\n"
        "    <pFeature>AcquisitionMode</pFeature>\n    <pFeature>AcquisitionFrameCount</pFeature>\n"
        "    <pFeature>AcquisitionStart</pFeature>\n    <pFeature>AcquisitionStop</pFeature>\n"
        "    <pFeature>AcquisitionAbort</pFeature>\n    <pFeature>AcquisitionFrameRate</pFeature>\n"
        "    <pFeature>ExposureTime</pFeature>\n  </Category>\n"
        "  <Category Name=\"AnalogControl\" NameSpace=\"Standard\">\n    <pFeature>Gain</pFeature>\n  </Category>\n"
        "  <Category Name=\"TransportLayerControl\" NameSpace=\"Standard\">\n    <pFeature>PayloadSize</pFeature>\n"
        "  </Category>\n";
    const struct {
        const char* name;
        std::uint64_t address;
        const char* access;
    } strings[] = {{"DeviceVendorName", 0x0004, "RO"},       {"DeviceModelName", 0x0044, "RO"},
                   {"DeviceFamilyName", 0x0084, "RO"},       {"DeviceVersion", 0x00C4, "RO"},
                   {"DeviceManufacturerInfo", 0x0104, "RO"}, {"DeviceSerialNumber", 0x0144, "RO"},
                   {"DeviceUserID", 0x0184, "RW"}};
    for (const auto& s : strings)
        xml += "  <String Name=\"" + std::string(s.name) + "\" NameSpace=\"Standard\">\n    <pValue>" + s.name +
               "Reg</pValue>\n  </String>\n" + StringReg(std::string(s.name) + "Reg", s.address, s.access);

    xml += Integer("WidthMax", "    <pValue>WidthMaxReg</pValue>\n") + IntReg("WidthMaxReg", WidthMax, 4, "RO");
    xml += Integer("HeightMax", "    <pValue>HeightMaxReg</pValue>\n") + IntReg("HeightMaxReg", HeightMax, 4, "RO");
    xml += Integer("Width", "    <pValue>WidthReg</pValue>\n    <Min>8</Min>\n    <pMax>WidthMaxReg</pMax>\n"
                            "    <Inc>8</Inc>\n") +
           IntReg("WidthReg", Width, 4, "RW");
    xml += Integer("Height", "    <pValue>HeightReg</pValue>\n    <Min>1</Min>\n    <pMax>HeightMaxReg</pMax>\n") +
           IntReg("HeightReg", Height, 4, "RW");
    xml += Integer("OffsetX", "    <pValue>OffsetXReg</pValue>\n    <Min>0</Min>\n    <pMax>WidthMaxReg</pMax>\n"
                              "    <Inc>8</Inc>\n") +
           IntReg("OffsetXReg", OffsetX, 4, "RW");
    xml += Integer("OffsetY", "    <pValue>OffsetYReg</pValue>\n    <Min>0</Min>\n    <pMax>HeightMaxReg</pMax>\n") +
           IntReg("OffsetYReg", OffsetY, 4, "RW");
    xml += "  <Enumeration Name=\"PixelFormat\" NameSpace=\"Standard\">\n" + pixelEntries +
           "    <pValue>PixelFormatReg</pValue>\n  </Enumeration>\n" + IntReg("PixelFormatReg", PixelFormatRegister, 4, "RW");
    xml += "  <Enumeration Name=\"TestPattern\" NameSpace=\"Standard\">\n"
           "    <EnumEntry Name=\"GreyDiagonalRampMoving\" NameSpace=\"Standard\">\n      <Value>0</Value>\n    </EnumEntry>\n"
           "    <EnumEntry Name=\"GreyHorizontalRamp\" NameSpace=\"Standard\">\n      <Value>1</Value>\n    </EnumEntry>\n"
           "    <EnumEntry Name=\"GreyVerticalRamp\" NameSpace=\"Standard\">\n      <Value>2</Value>\n    </EnumEntry>\n"
           "    <EnumEntry Name=\"Off\" NameSpace=\"Standard\">\n      <Value>3</Value>\n    </EnumEntry>\n"
           "    <pValue>TestPatternReg</pValue>\n  </Enumeration>\n" +
           IntReg("TestPatternReg", TestPattern, 4, "RW");
    xml += Integer("PayloadSize", "    <pValue>PayloadSizeReg</pValue>\n") +
           IntReg("PayloadSizeReg", PayloadSize, 8, "RO");
    xml += "  <Enumeration Name=\"AcquisitionMode\" NameSpace=\"Standard\">\n"
           "    <EnumEntry Name=\"Continuous\" NameSpace=\"Standard\">\n      <Value>0</Value>\n    </EnumEntry>\n"
           "    <EnumEntry Name=\"SingleFrame\" NameSpace=\"Standard\">\n      <Value>1</Value>\n    </EnumEntry>\n"
           "    <EnumEntry Name=\"MultiFrame\" NameSpace=\"Standard\">\n      <Value>2</Value>\n    </EnumEntry>\n"
           "    <pValue>AcquisitionModeReg</pValue>\n  </Enumeration>\n" +
           IntReg("AcquisitionModeReg", AcquisitionMode, 4, "RW");
    xml += Integer("AcquisitionFrameCount", "    <pValue>AcquisitionFrameCountReg</pValue>\n    <Min>1</Min>\n"
                                            "    <Max>65535</Max>\n") +
           IntReg("AcquisitionFrameCountReg", AcquisitionFrameCount, 4, "RW");
    xml += Command("AcquisitionStart", AcquisitionStart) + Command("AcquisitionStop", AcquisitionStop) +
           Command("AcquisitionAbort", AcquisitionAbort);
    xml += Float("AcquisitionFrameRate", "Hz", 0.1, 1000) + FloatReg("AcquisitionFrameRateReg", AcquisitionFrameRate);
    xml += Float("ExposureTime", "us", 10, 10000000) + FloatReg("ExposureTimeReg", ExposureTime);
    xml += Float("Gain", "dB", 0, 48) + FloatReg("GainReg", Gain);
    xml += "  <Port Name=\"Device\" NameSpace=\"Standard\"/>\n</RegisterDescription>\n";
    (void)camera;
    return xml;
}

} }
