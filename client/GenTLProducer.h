#pragma once

// A GenTL producer loaded by path, as any consumer loads one: dlopen and
// dlsym only. Failures are thrown with the producer's own code and text.
#include "base/GenTL.h"

#include <stdexcept>
#include <string>

namespace LorunClient {

// A failure of the producer or the camera: exit code 1.
class ProducerError : public std::runtime_error {
public:
    ProducerError(GC_ERROR code, const std::string& text) : std::runtime_error(text), code(code) {}
    GC_ERROR code;
};

// Bad usage: exit code 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

#define LORUN_CLIENT_FUNCTIONS(X)                                                                                        \
    X(GCGetInfo) X(GCGetLastError) X(GCInitLib) X(GCCloseLib) X(GCReadPort) X(GCWritePort) X(GCGetPortURLInfo)        \
    X(GCGetNumPortURLs) X(GCRegisterEvent) X(GCUnregisterEvent) X(EventGetData) X(EventGetDataInfo) X(EventKill)     \
    X(TLOpen) X(TLClose) X(TLUpdateInterfaceList) X(TLGetNumInterfaces) X(TLGetInterfaceID) X(TLOpenInterface)       \
    X(IFClose) X(IFUpdateDeviceList) X(IFGetNumDevices) X(IFGetDeviceID) X(IFGetDeviceInfo) X(IFOpenDevice)          \
    X(DevGetPort) X(DevOpenDataStream) X(DevGetDataStreamID) X(DevClose) X(DSAllocAndAnnounceBuffer) X(DSAnnounceBuffer) X(DSFlushQueue) \
    X(DSStartAcquisition) X(DSStopAcquisition) X(DSGetInfo) X(DSClose) X(DSRevokeBuffer) X(DSQueueBuffer)            \
    X(DSGetBufferInfo) X(DSGetBufferID)

class GenTLProducer {
public:
    // Refuses what is not a regular file (dlopen of a FIFO would wait for ever)
    // and a library without the four library functions.
    explicit GenTLProducer(const std::string& path);
    ~GenTLProducer();
    GenTLProducer(const GenTLProducer&) = delete;
    GenTLProducer& operator=(const GenTLProducer&) = delete;

    const std::string& Path() const { return path; }
    // Throws unless every function the tool calls is exported.
    void RequireAll() const;

    // The producer's last error text, or a stand-in when it gives none.
    std::string LastError() const;
    // Throws ProducerError "what: <code> <text>" unless `result` is success.
    void Check(GC_ERROR result, const std::string& what) const;

    // A library info as text (strings, and 32-bit numbers in decimal).
    std::string InfoText(TL_INFO_CMD command) const;

// The argument is a name that declares and is declared: it cannot stand in parentheses.
// NOLINTNEXTLINE(bugprone-macro-parentheses)
#define LORUN_CLIENT_DECLARE(name) decltype(&::name) name = nullptr;
    LORUN_CLIENT_FUNCTIONS(LORUN_CLIENT_DECLARE)
#undef LORUN_CLIENT_DECLARE

private:
    std::string path;
    std::string missing; // functions the producer does not export
    void* library = nullptr;
};

// Text of a two-call getter: first the size, then the text.
template <class Call>
std::string TextOf(const GenTLProducer& producer, const std::string& what, Call call)
{
    size_t size = 0;
    producer.Check(call(static_cast<char*>(nullptr), &size), what);
    std::string text(size + 1, '\0'); // one more: a producer's text need not end in a terminator
    producer.Check(call(&text[0], &size), what);
    text.resize(std::min(text.find('\0'), text.size()));
    return text;
}

}
