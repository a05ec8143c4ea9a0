#pragma once

// A module built on the template stack for tests only: a System with a small
// register space, two XML descriptions and three events, reachable through
// a transport layer whose library hands it out on TLOpen.
#include "entry/BasicTransportLayer.h"
#include "framework/BasicModule.h"
#include "framework/BasicPort.h"
#include "framework/BufferRegister.h"
#include "framework/CallbackRegister.h"
#include "framework/GenericRegister.h"
#include "framework/InfoRegisters.h"
#include "framework/StringRegister.h"
#include "support/BasicLockable.h"
#include "support/TrackableObject.h"

#include <map>

namespace TestStack {

using namespace QEL;
using namespace QEL::Base;

constexpr std::uint64_t kValueA = 0x1000;      // read-write, value 0x11223344
constexpr std::uint64_t kValueB = 0x1004;      // read-write, refuses values above 1000
constexpr std::uint64_t kWriteOnly = 0x1008;   // write only, value 7
constexpr std::uint64_t kText = 0x2000;        // 256-byte string "abc"; a gap lies before it
constexpr std::uint64_t kInfo = 0x3000;        // mirrors the info value `infoValue`
constexpr std::uint64_t kCallback = 0x4000;    // 16 bytes, served by a slot
constexpr std::uint64_t kBuffer = 0x5000;      // range of 100 bytes over a buffer of 50
constexpr std::uint64_t kHidden = 0x6000;      // access mode 0
constexpr std::uint64_t kXML = 0x10000;

using Stack = Tools::TrackableObject<BasicPort<BasicModule<Tools::BasicLockable<Base::System>>>>;

class TestSystem : public Stack {
public:
    static std::shared_ptr<TestSystem> Create()
    {
        auto system = std::make_shared<TestSystem>();
        system->Initialize();
        return system;
    }

    ~TestSystem() override { Close(); }

    // Module role.
    std::string GetTypeName() const override { return "TLSystem"; }
    std::int32_t GetHandleType() const override { return 1; }
    std::string GetPortName() const override { return "TLPort"; }

    // System role, only as much as the tests need.
    void Close() override
    {
        if (!open)
            return;
        try { DeinitializePort(); } catch (...) {}
        try { ClearPort(); } catch (...) {}
        try { DeinitializeModule(); } catch (...) {}
        try { ClearEvents(); } catch (...) {}
        open = false;
    }
    bool IsOpen() const override { return open; }
    std::uint32_t GetNumInterfaces() override { return 0; }
    InfoPtr GetInterfaceID(std::uint32_t) override { throw Exception("Invalid index.", GC_ERR_INVALID_INDEX); }
    InfoPtr GetInterfaceInfo(const std::string&, INTERFACE_INFO_CMD) override { return nullptr; }
    std::size_t GetInterfaceInfoSize(const std::string&, INTERFACE_INFO_CMD, INFO_DATATYPE*) override { return 0; }
    std::shared_ptr<Interface> OpenInterface(const std::string&) override { return nullptr; }
    bool UpdateInterfaceList(std::uint64_t) override { return ++updates == 1; }
    InfoPtr GetInfo(TL_INFO_CMD cmd) override
    {
        if (cmd == TL_INFO_ID)
            return std::make_shared<StringInfo>("test-system");
        return nullptr;
    }
    std::size_t GetInfoSize(TL_INFO_CMD cmd, INFO_DATATYPE* type) override
    {
        return SizeOf(GetInfo(cmd), type, "Could not get system info.");
    }
    InfoPtr GetPortInfo(PORT_INFO_CMD cmd) const override
    {
        if (!open)
            throw Exception("System not open.", GC_ERR_INVALID_HANDLE);
        if (cmd == PORT_INFO_MODULE)
            return std::make_shared<StringInfo>(GetTypeName());
        if (cmd == PORT_INFO_PORTNAME)
            return std::make_shared<StringInfo>(GetPortName());
        return Stack::GetPortInfo(cmd);
    }

    std::shared_ptr<BasicEventQueue<ErrorData>> errors;
    std::shared_ptr<BasicEventQueue<SystemChangeEventData>> changes;
    std::shared_ptr<BasicEventQueue<FeatureInvalidateData>> kept; // no auto-flush
    std::uint64_t infoValue = 42;
    std::map<std::uint64_t, std::uint8_t> callbackBytes;
    std::shared_ptr<std::uint8_t[]> bufferMemory{new std::uint8_t[50]()};
    int updates = 0;

private:
    void Initialize()
    {
        errors = AddEvent<ErrorData>(EVENT_ERROR, true);
        changes = AddEvent<SystemChangeEventData>(EVENT_SYSTEM_CHANGE, true);
        kept = AddEvent<FeatureInvalidateData>(EVENT_FEATURE_INVALIDATE, false);
        InitializeModule();

        static const std::string document =
            "<RegisterDescription SchemaMajorVersion='1' SchemaMinorVersion='0' SchemaSubMinorVersion='1' "
            "MajorVersion='1' MinorVersion='2' SubMinorVersion='3' ProductGuid='g'/>";
        auto xml = std::make_shared<const XMLRegister::Data>(document.begin(), document.end());
        AddXMLDescription(std::make_shared<RegisterXMLDescription>("Test_System_1_2_3.xml", kXML, xml,
                                                                   Tools::Version(1, 0, 1), Tools::Version(1, 2, 3)));
        AddXMLDescription(std::make_shared<FileXMLDescription>("/opt/xml/Other File.zip", Tools::Version(1, 1)));

        auto self = GetShared<TestSystem>();
        AddRegister(std::make_shared<GenericRegister<std::uint32_t>>(kValueA, 0x11223344u, AccessReadWrite));
        auto b = std::make_shared<GenericRegister<std::uint32_t>>(kValueB, 5u, AccessReadWrite);
        b->GetPreWriteSignal().Connect(
            [](const std::uint32_t& value, GenericRegister<std::uint32_t>&) {
                if (value > 1000)
                    throw Exception("Value out of range.", GC_ERR_INVALID_PARAMETER);
            },
            self);
        AddRegister(b);
        AddRegister(std::make_shared<GenericRegister<std::uint32_t>>(kWriteOnly, 7u, AccessWrite));
        AddRegister(std::make_shared<StringRegister>(kText, 256, "abc", AccessReadWrite));
        auto info = std::make_shared<FixedInfoRegister<UInt64Info const>>(kInfo, AccessRead);
        TestSystem* raw = this;
        info->GetPreReadSignal().Connect(
            [raw](FixedInfoRegister<UInt64Info const>& reg) {
                reg.SetInfo(std::make_shared<UInt64Info>(raw->infoValue));
            },
            self);
        AddRegister(info);
        auto callback = std::make_shared<CallbackRegister>(kCallback, 16, AccessReadWrite, true);
        callback->GetReadSignal().Connect(
            [raw](std::uint64_t position, void* buffer, std::size_t* size, CallbackRegister&) {
                for (std::size_t i = 0; i < *size; ++i)
                    static_cast<std::uint8_t*>(buffer)[i] = raw->callbackBytes[position + i];
            },
            self);
        callback->GetWriteSignal().Connect(
            [raw](std::uint64_t position, const void* buffer, std::size_t* size, CallbackRegister&) {
                // Takes at most 4 bytes per call: a longer write is incomplete.
                *size = std::min<std::size_t>(*size, 4);
                for (std::size_t i = 0; i < *size; ++i)
                    raw->callbackBytes[position + i] = static_cast<const std::uint8_t*>(buffer)[i];
            },
            self);
        AddRegister(callback);
        AddRegister(std::make_shared<BufferRegister>(kBuffer, 100, bufferMemory, 50, AccessReadWrite));
        AddRegister(std::make_shared<GenericRegister<std::uint32_t>>(kHidden, 1u, AccessNone));
        InitializePort();
        open = true;
    }

    bool open = false;
};

class TestLibrary : public Tools::BasicLockable<Base::Library> {
public:
    void Close() override
    {
        if (system)
            system->Close();
        system.reset();
        open = false;
    }
    bool IsOpen() const override { return open; }
    InfoPtr GetInfo(TL_INFO_CMD) const override { return std::make_shared<StringInfo>("test"); }
    std::size_t GetInfoSize(TL_INFO_CMD, INFO_DATATYPE* type) const override
    {
        if (type)
            *type = INFO_DATATYPE_STRING;
        return 5;
    }
    std::shared_ptr<Base::System> GetSystem() override
    {
        if (!system || !system->IsOpen())
            system = TestSystem::Create();
        return system;
    }

    std::shared_ptr<TestSystem> system;
    bool open = true;
};

class TestTransportLayer : public BasicTransportLayer {
public:
    std::shared_ptr<Library> CreateLibrary(uint32_t) override
    {
        library = std::make_shared<TestLibrary>();
        return library;
    }
    std::shared_ptr<TestLibrary> library;
};

// An initialised transport layer with the test System open, and helpers.
class Opened {
public:
    Opened()
    {
        tl.GCInitLib();
        tl.TLOpen(&handle);
        system = tl.library->system;
    }
    ~Opened() { tl.GCCloseLib(); }

    std::pair<GC_ERROR, std::string> LastError()
    {
        GC_ERROR code = 0;
        char text[1024];
        size_t size = sizeof text;
        if (tl.GCGetLastError(&code, text, &size) != GC_ERR_SUCCESS)
            return {1, "<GCGetLastError failed>"};
        return {code, text};
    }

    TestTransportLayer tl;
    TL_HANDLE handle = nullptr;
    std::shared_ptr<TestSystem> system;
};

}
