// The functions of the system, interface and device modules.
#include "entry/BasicTransportLayer.h"
#include "framework/BaseRoles.h"
#include "support/Logger.h"

#include <boost/format.hpp>

namespace QEL { namespace Base {

namespace {

void WriteFlag(bool8_t* pbChanged, bool changed)
{
    if (pbChanged)
        *pbChanged = changed ? 1 : 0;
}

std::string TextOf(const InfoPtr& info)
{
    auto text = std::dynamic_pointer_cast<const StringInfo>(info);
    if (!text)
        throw Exception("Could not get interface ID.", GC_ERR_ERROR);
    return text->GetValue();
}

}

GC_ERROR BasicTransportLayer::TLOpen(TL_HANDLE* phTL)
{
    return RunBody("Could not open transport layer.", [&] {
        QEL::System::SharedMutexGuard guard(library);
        if (!library->IsOpen())
            throw Exception("Library not open.", GC_ERR_NOT_INITIALIZED);
        Require(phTL, "No transport layer handle passed.");
        HandOut(library->GetSystem(), phTL, "Invalid system returned.");
    });
}

GC_ERROR BasicTransportLayer::TLClose(TL_HANDLE hTL)
{
    return RunBody("Could not close transport layer.", [&] { Locked<System>(hTL)->Close(); });
}

GC_ERROR BasicTransportLayer::TLGetInfo(TL_HANDLE hTL, TL_INFO_CMD iInfoCmd, INFO_DATATYPE* piType, void* pBuffer,
                                        size_t* piSize)
{
    const char* text = "Could not get transport layer info.";
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        Locked<System> system(hTL);
        answer([&] { return system->GetInfo(iInfoCmd); },
               [&](INFO_DATATYPE* type) { return system->GetInfoSize(iInfoCmd, type); });
    });
}

GC_ERROR BasicTransportLayer::TLGetNumInterfaces(TL_HANDLE hTL, uint32_t* piNumIfaces)
{
    return RunBody("Could not get number of interfaces.", [&] {
        Require(piNumIfaces, "No number of interfaces passed.");
        *piNumIfaces = Locked<System>(hTL)->GetNumInterfaces();
    });
}

GC_ERROR BasicTransportLayer::TLGetInterfaceID(TL_HANDLE hTL, uint32_t iIndex, char* sID, size_t* piSize)
{
    return RunBody("Could not get interface ID.", [&] {
        CopyStringToBuffer(TextOf(Locked<System>(hTL)->GetInterfaceID(iIndex)), sID, piSize);
    });
}

GC_ERROR BasicTransportLayer::TLGetInterfaceInfo(TL_HANDLE hTL, const char* sIfaceID, INTERFACE_INFO_CMD iInfoCmd,
                                                 INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    const char* text = "Could not get interface info.";
    if (!sIfaceID)
        return RunBody(text, [] { Require(nullptr, "No interface ID passed."); });
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        Locked<System> system(hTL);
        answer([&] { return system->GetInterfaceInfo(sIfaceID, iInfoCmd); },
               [&](INFO_DATATYPE* type) { return system->GetInterfaceInfoSize(sIfaceID, iInfoCmd, type); });
    });
}

GC_ERROR BasicTransportLayer::TLOpenInterface(TL_HANDLE hTL, const char* sIfaceID, IF_HANDLE* phIface)
{
    return RunBody("Could not open interface.", [&] {
        Require(sIfaceID, "No interface ID passed.");
        Require(phIface, "No interface handle passed.");
        HandOut(Locked<System>(hTL)->OpenInterface(sIfaceID), phIface, "Could not open interface.");
    });
}

GC_ERROR BasicTransportLayer::TLUpdateInterfaceList(TL_HANDLE hTL, bool8_t* pbChanged, uint64_t iTimeout)
{
    return RunBody("Could not update interface list.",
                   [&] { WriteFlag(pbChanged, Locked<System>(hTL)->UpdateInterfaceList(iTimeout)); });
}

GC_ERROR BasicTransportLayer::IFClose(IF_HANDLE hIface)
{
    return RunBody("Could not close interface.", [&] { Locked<Interface>(hIface)->Close(); });
}

GC_ERROR BasicTransportLayer::IFGetInfo(IF_HANDLE hIface, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                                        void* pBuffer, size_t* piSize)
{
    const std::string nullResult = (boost::format("Could not get interface info (%1%).") % iInfoCmd).str();
    return AnswerInfo("Could not get interface info.", nullResult.c_str(), piType, pBuffer, piSize,
                      [&](auto answer) {
                          Locked<Interface> iface(hIface);
                          answer(
                              [&] {
                                  InfoPtr info = iface->GetInfo(iInfoCmd);
                                  if (!info)
                                      Tools::Logger::Log(nullResult);
                                  return info;
                              },
                              [&](INFO_DATATYPE* type) { return iface->GetInfoSize(iInfoCmd, type); });
                      });
}

GC_ERROR BasicTransportLayer::IFGetNumDevices(IF_HANDLE hIface, uint32_t* piNumDevices)
{
    return RunBody("Could not get number of devices.", [&] {
        Require(piNumDevices, "No number of devices passed.");
        *piNumDevices = Locked<Interface>(hIface)->GetNumDevices();
    });
}

GC_ERROR BasicTransportLayer::IFGetDeviceID(IF_HANDLE hIface, uint32_t iIndex, char* sIDeviceID, size_t* piSize)
{
    // The size is checked only in the copy, after the handle.
    return RunBody("Could not get device ID.", [&] {
        CopyStringToBuffer(Locked<Interface>(hIface)->GetDeviceID(iIndex), sIDeviceID, piSize);
    });
}

GC_ERROR BasicTransportLayer::IFUpdateDeviceList(IF_HANDLE hIface, bool8_t* pbChanged, uint64_t iTimeout)
{
    return RunBody("Could not update device list.",
                   [&] { WriteFlag(pbChanged, Locked<Interface>(hIface)->UpdateDeviceList(iTimeout)); });
}

GC_ERROR BasicTransportLayer::IFGetDeviceInfo(IF_HANDLE hIface, const char* sDeviceID, DEVICE_INFO_CMD iInfoCmd,
                                              INFO_DATATYPE* piType, void* pBuffer, size_t* piSize)
{
    const char* text = "Could not get device info.";
    if (!sDeviceID)
        return RunBody(text, [] { Require(nullptr, "No device ID passed."); });
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        Locked<Interface> iface(hIface);
        answer([&] { return iface->GetDeviceInfo(sDeviceID, iInfoCmd); },
               [&](INFO_DATATYPE* type) { return iface->GetDeviceInfoSize(sDeviceID, iInfoCmd, type); });
    });
}

GC_ERROR BasicTransportLayer::IFOpenDevice(IF_HANDLE hIface, const char* sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlags,
                                           DEV_HANDLE* phDevice)
{
    return RunBody("Could not open device.", [&] {
        Require(sDeviceID, "No device ID passed.");
        Require(phDevice, "No device handle passed.");
        HandOut(Locked<Interface>(hIface)->OpenDevice(sDeviceID, iOpenFlags), phDevice, "Could not open device.");
    });
}

GC_ERROR BasicTransportLayer::IFGetParentTL(IF_HANDLE hIface, TL_HANDLE* phSystem)
{
    return RunBody("Could not get parent TL.", [&] {
        Require(phSystem, "No system handle passed.");
        // The child's lock ends before the parent's is taken: locks go from parent to child.
        const auto parent = Locked<Interface>(hIface)->GetParent();
        HandOut(parent, phSystem, "Invalid system returned.");
    });
}

GC_ERROR BasicTransportLayer::DevGetPort(DEV_HANDLE hDevice, PORT_HANDLE* phRemoteDevice)
{
    return RunBody("Could not get remote device.", [&] {
        Require(phRemoteDevice, "No remote device handle passed.");
        HandOut(Locked<Device>(hDevice)->GetPort(), phRemoteDevice, "Could not get remote device.");
    });
}

GC_ERROR BasicTransportLayer::DevGetNumDataStreams(DEV_HANDLE hDevice, uint32_t* piNumDataStreams)
{
    return RunBody("Could not get number of data streams.", [&] {
        Require(piNumDataStreams, "No number of data streams passed.");
        *piNumDataStreams = Locked<Device>(hDevice)->GetNumDataStreams();
    });
}

GC_ERROR BasicTransportLayer::DevGetDataStreamID(DEV_HANDLE hDevice, uint32_t iIndex, char* sDataStreamID,
                                                 size_t* piSize)
{
    return RunBody("Could not get data stream ID.", [&] {
        Require(piSize, "No size passed.");
        CopyStringToBuffer(Locked<Device>(hDevice)->GetDataStreamID(iIndex), sDataStreamID, piSize);
    });
}

GC_ERROR BasicTransportLayer::DevOpenDataStream(DEV_HANDLE hDevice, const char* sDataStreamID, DS_HANDLE* phDataStream)
{
    return RunBody("Could not open data stream.", [&] {
        Require(sDataStreamID, "No data stream ID passed.");
        Require(phDataStream, "No data stream handle passed.");
        HandOut(Locked<Device>(hDevice)->OpenDataStream(sDataStreamID), phDataStream, "Could not open data stream.");
    });
}

GC_ERROR BasicTransportLayer::DevGetInfo(DEV_HANDLE hDevice, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE* piType,
                                         void* pBuffer, size_t* piSize)
{
    const char* text = "Could not get device info.";
    return AnswerInfo(text, text, piType, pBuffer, piSize, [&](auto answer) {
        Locked<Device> device(hDevice);
        answer([&] { return device->GetInfo(iInfoCmd); },
               [&](INFO_DATATYPE* type) { return device->GetInfoSize(iInfoCmd, type); });
    });
}

GC_ERROR BasicTransportLayer::DevClose(DEV_HANDLE hDevice)
{
    return RunBody("Could not close device.", [&] { Locked<Device>(hDevice)->Close(); });
}

GC_ERROR BasicTransportLayer::DevGetParentIF(DEV_HANDLE hDevice, IF_HANDLE* phIface)
{
    return RunBody("Could not get parent interface.", [&] {
        Require(phIface, "No interface handle passed.");
        // The child's lock ends before the parent's is taken: locks go from parent to child.
        const auto parent = Locked<Device>(hDevice)->GetParent();
        HandOut(parent, phIface, "Invalid interface returned.");
    });
}

} }
