#include "TestModule.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <functional>

using namespace TestStack;

namespace {


// A bare module whose creation steps a test runs one by one.
class Bare : public Stack {
public:
    std::string GetTypeName() const override { return "TLSystem"; }
    std::int32_t GetHandleType() const override { return 1; }
    std::string GetPortName() const override { return "TLPort"; }
    void Close() override {}
    bool IsOpen() const override { return true; }
    std::uint32_t GetNumInterfaces() override { return 0; }
    InfoPtr GetInterfaceID(std::uint32_t) override { return nullptr; }
    InfoPtr GetInterfaceInfo(const std::string&, INTERFACE_INFO_CMD) override { return nullptr; }
    std::size_t GetInterfaceInfoSize(const std::string&, INTERFACE_INFO_CMD, INFO_DATATYPE*) override { return 0; }
    std::shared_ptr<Interface> OpenInterface(const std::string&) override { return nullptr; }
    bool UpdateInterfaceList(std::uint64_t) override { return false; }
    InfoPtr GetInfo(TL_INFO_CMD) override { return nullptr; }
    std::size_t GetInfoSize(TL_INFO_CMD, INFO_DATATYPE*) override { return 0; }

    using Stack::AddEvent;
    using Stack::AddRegister;
    using Stack::AddXMLDescription;
    using Stack::ClearEvents;
    using Stack::ClearPort;
    using Stack::DeinitializeModule;
    using Stack::DeinitializePort;
    using Stack::GetRegister;
    using Stack::GetRegisterAs;
    using Stack::InitializeModule;
    using Stack::InitializePort;
};

TEST(ModuleLifecycle, ModulePhases)
{
    auto module = std::make_shared<Bare>();
    module->AddEvent<ErrorData>(EVENT_ERROR, true);
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "An event with the given ID already exists."),
              Failure([&] { module->AddEvent<ErrorData>(EVENT_ERROR, false); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_HANDLE, "Module is not available."),
              Failure([&] { module->RegisterEvent(EVENT_ERROR); }));
    module->InitializeModule();
    EXPECT_EQ(Err(GC_ERR_ERROR, "Module is already initialized."),
              Failure([&] { module->AddEvent<SystemChangeEventData>(EVENT_SYSTEM_CHANGE, true); }));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Module is already initialized."), Failure([&] { module->InitializeModule(); }));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Module is already initialized."), Failure([&] { module->ClearEvents(); }));
    auto event = module->RegisterEvent(EVENT_ERROR);
    module->DeinitializeModule();
    EXPECT_EQ(Err(GC_ERR_ERROR, "Module is not initialized."), Failure([&] { module->DeinitializeModule(); }));
    module->ClearEvents();
    EXPECT_FALSE(event->IsRegistered()) << "clearing unregisters what is registered";
}

TEST(ModuleLifecycle, PortPhases)
{
    auto module = std::make_shared<Bare>();
    EXPECT_EQ(Err(GC_ERR_ERROR, "No XML descriptions added."), Failure([&] { module->InitializePort(); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid XML description passed."),
              Failure([&] { module->AddXMLDescription(nullptr); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No register passed."), Failure([&] { module->AddRegister(nullptr); }));
    module->AddXMLDescription(std::make_shared<FileXMLDescription>("a.xml", QEL::Tools::Version(1, 0)));
    module->AddRegister(std::make_shared<GenericRegister<std::uint64_t>>(0x100, AccessReadWrite));
    module->InitializePort();
    EXPECT_EQ(Err(GC_ERR_ERROR, "Port is already initialized."),
              Failure([&] { module->AddRegister(std::make_shared<GenericRegister<std::uint32_t>>(0x200, AccessRead)); }));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Port is already initialized."), Failure([&] { module->ClearPort(); }));
    EXPECT_TRUE(module->GetRegisterAs<GenericRegister<std::uint64_t>>(0x104));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Incompatible register found."),
              Failure([&] { module->GetRegisterAs<GenericRegister<std::uint32_t>>(0x100); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Register address invalid."), Failure([&] { module->GetRegister(0x108); }));
    module->DeinitializePort();
    EXPECT_EQ(Err(GC_ERR_ERROR, "Port is not initialized."), Failure([&] { module->DeinitializePort(); }));
    module->ClearPort();
    EXPECT_EQ(Err(GC_ERR_ERROR, "No XML descriptions added."), Failure([&] { module->InitializePort(); }));
}

class BareBuffer : public QEL::Tools::BasicLockable<Buffer> {
public:
    std::shared_ptr<Event> RegisterEvent(EVENT_TYPE) override { return nullptr; }
    void UnregisterEvent(EVENT_TYPE) override {}
    std::string GetTypeName() const override { return "TLBuffer"; }
    std::int32_t GetHandleType() const override { return 6; }
};

TEST(ModuleLifecycle, BufferHandlesAreNoPorts)
{
    Opened opened;
    auto buffer = std::make_shared<BareBuffer>();
    void* handle = BasicTransportLayer::MakeHandle(buffer);
    INFO_DATATYPE type = 0;
    size_t size = 0;
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, opened.tl.GCGetPortInfo(handle, PORT_INFO_ID, &type, nullptr, &size));
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "Buffer does not implement a port."), opened.LastError());
    std::uint32_t value;
    size = 4;
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, opened.tl.GCReadPort(handle, 0, &value, &size));
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "The module referenced by the given handle does not implement a port."),
              opened.LastError());
}

TEST(EventParsers, AnswersByRecordType)
{
    auto info = [](const auto& parser, const auto& record, EVENT_DATA_INFO_CMD cmd) -> Result {
        try {
            auto value = parser.GetDataInfo(&record, sizeof record, cmd);
            if (auto text = std::dynamic_pointer_cast<const StringInfo>(value))
                return {0, text->GetValue()};
            if (auto number = std::dynamic_pointer_cast<const UInt64Info>(value))
                return {0, std::to_string(number->GetValue())};
            if (auto number = std::dynamic_pointer_cast<const UInt32Info>(value))
                return {0, std::to_string(number->GetValue())};
            if (auto bytes = std::dynamic_pointer_cast<const BufferInfo>(value))
                return {0, std::string(bytes->GetValue().begin(), bytes->GetValue().end())};
            return {0, "<other>"};
        } catch (const Exception& e) {
            return {e.GetCode(), e.GetText()};
        }
    };
    BasicEventDataParser<FeatureInvalidateData> invalidate;
    auto width = FeatureInvalidateData::Make(std::string(63, 'w'));
    EXPECT_EQ(Err(0, std::string(63, 'w')), info(invalidate, width, EVENT_DATA_ID));
    EXPECT_EQ(Err(GC_ERR_NOT_AVAILABLE, "Info not available."), info(invalidate, width, EVENT_DATA_NUMID));
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "Unsupported info requested."), info(invalidate, width, EVENT_DATA_VALUE));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Feature name too long."),
              Failure([] { FeatureInvalidateData::Make(std::string(64, 'w')); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Feature value too long."),
              Failure([] { FeatureChangeData::Make("Gain", std::string(256, '1')); }));

    BasicEventDataParser<FeatureChangeData> change;
    EXPECT_EQ(Err(0, "12.5"), info(change, FeatureChangeData::Make("Gain", "12.5"), EVENT_DATA_VALUE));

    BasicEventDataParser<DeviceEventData<256>> device;
    DeviceEventData<256> remote{};
    remote.eventID = 0x1F;
    remote.size = 300; // more than the record holds: only 256 bytes are given
    std::memset(remote.data, 'd', sizeof remote.data);
    EXPECT_EQ(Err(0, "001F"), info(device, remote, EVENT_DATA_ID));
    EXPECT_EQ(Err(0, "31"), info(device, remote, EVENT_DATA_NUMID));
    EXPECT_EQ(Err(0, std::string(256, 'd')), info(device, remote, EVENT_DATA_VALUE));

    BasicEventDataParser<InterfaceChangeEventData<256>> iface;
    auto record = InterfaceChangeEventData<256>::Make(std::string(300, 'i'), 3, 1);
    EXPECT_EQ(Err(0, std::string(256, 'i')), info(iface, record, 1001)) << "an ID of 256 bytes has no terminator";
    EXPECT_EQ(Err(0, "3"), info(iface, record, 1002));
    EXPECT_EQ(Err(0, "1"), info(iface, record, 1003));
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED, "Unsupported info requested."), info(iface, record, EVENT_DATA_ID));

    BasicEventDataParser<SystemChangeEventData> system;
    EXPECT_EQ(Err(0, "7"), info(system, SystemChangeEventData{7}, 1000));
    EXPECT_EQ(264u, iface.GetMaxSize());
    EXPECT_EQ(257u, iface.GetMaxInfoSize());
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No buffer passed."),
              Failure([&] { system.GetDataInfo(nullptr, 4, 1000); }));
}

}
