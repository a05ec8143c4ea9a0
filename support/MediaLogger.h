#pragma once

#include "support/Mutex.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace QEL { namespace CSITools {

// Wall-clock time as "H:MM:SS.uuu..." (hour unpadded, microseconds at least three digits).
std::string FormatCurrentTime();
// Hexadecimal dump with a text column, sixteen bytes a line.
std::string FormatDump(const void* data, std::uint32_t length);
// The text form of a 32-byte event packet; empty for a shorter one.
std::string FormatPacket(const void* data, std::uint32_t length);

// The media log: a queueing logger whose two worker threads keep file writes
// and the formatting of dumps away from the transport's threads. The caller
// pays a string or a copy of the data and a short lock.
class Logger {
public:
    // A path that cannot be opened is no error: the logger then drops everything.
    Logger(const std::string& path, bool append);
    virtual ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void Log(const std::string& text);
    void LogLine(const std::string& line);
    void Dump(const std::string& text, const void* data, std::uint32_t length);

private:
    struct DumpRecord {
        std::string text;
        std::vector<std::uint8_t> bytes;
        std::uint32_t length;
    };

    void MessageWorker();
    void DumpWorker();
    void WriteLine(const std::string& line);

    std::FILE* file = nullptr;
    std::shared_ptr<System::Mutex> messageMutex;
    std::shared_ptr<System::Mutex> dumpMutex;
    std::thread messageThread;
    std::thread dumpThread;
    std::deque<std::string> messages;
    std::deque<std::unique_ptr<DumpRecord>> dumps;
    std::atomic<bool> messageRunning{true};
    std::atomic<bool> messageStopped{false};
    std::atomic<bool> dumpRunning{true};
    std::atomic<bool> dumpStopped{false};
};

} }
