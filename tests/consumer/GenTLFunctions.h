#pragma once

// The exported GenTL functions as one table, filled either from a loaded
// producer (dlsym) or from the functions linked into the program.
#include "base/GenTL.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#define LORUN_GENTL_FUNCTIONS(X)                                                                                     \
    X(GCGetInfo) X(GCGetLastError) X(GCInitLib) X(GCCloseLib) X(GCReadPort) X(GCWritePort) X(GCGetPortURL)            \
    X(GCGetNumPortURLs) X(GCGetPortInfo) X(GCGetPortURLInfo) X(GCReadPortStacked) X(GCWritePortStacked)              \
    X(GCRegisterEvent) X(GCUnregisterEvent) X(EventGetData) X(EventGetDataInfo) X(EventGetInfo) X(EventFlush)         \
    X(EventKill) X(TLOpen) X(TLClose) X(TLGetInfo) X(TLGetNumInterfaces) X(TLGetInterfaceID) X(TLGetInterfaceInfo)    \
    X(TLOpenInterface) X(TLUpdateInterfaceList) X(IFClose) X(IFGetInfo) X(IFGetNumDevices) X(IFGetDeviceID)           \
    X(IFUpdateDeviceList) X(IFGetDeviceInfo) X(IFOpenDevice) X(DevGetPort) X(DevGetNumDataStreams)                   \
    X(DevGetDataStreamID) X(DevOpenDataStream) X(DevGetInfo) X(DevClose) X(DSAnnounceBuffer)                         \
    X(DSAllocAndAnnounceBuffer) X(DSFlushQueue) X(DSStartAcquisition) X(DSStopAcquisition) X(DSGetInfo)              \
    X(DSGetBufferID) X(DSClose) X(DSRevokeBuffer) X(DSQueueBuffer) X(DSGetBufferInfo) X(DSGetBufferChunkData)        \
    X(IFGetParentTL) X(DevGetParentIF) X(DSGetParentDev) X(DSGetNumBufferParts) X(DSGetBufferPartInfo)

struct GenTLFunctions {
#define LORUN_GENTL_MEMBER(name) decltype(&::name) name = nullptr;
    LORUN_GENTL_FUNCTIONS(LORUN_GENTL_MEMBER)
#undef LORUN_GENTL_MEMBER

    static GenTLFunctions FromLibrary(void* library)
    {
        GenTLFunctions table;
#define LORUN_GENTL_RESOLVE(name)                                                                                    \
    table.name = reinterpret_cast<decltype(&::name)>(dlsym(library, #name));                                         \
    if (!table.name)                                                                                                 \
        throw std::runtime_error("missing export " #name);
        LORUN_GENTL_FUNCTIONS(LORUN_GENTL_RESOLVE)
#undef LORUN_GENTL_RESOLVE
        return table;
    }
};

// The table of the functions linked into the program; only programs that
// link the producer's entry library may expand it.
#define LORUN_LINKED_GENTL_FUNCTIONS()                                                                               \
    [] {                                                                                                             \
        GenTLFunctions table;                                                                                        \
        LORUN_GENTL_FUNCTIONS(LORUN_GENTL_LINKED_MEMBER)                                                             \
        return table;                                                                                                \
    }()
#define LORUN_GENTL_LINKED_MEMBER(name) table.name = &::name;
