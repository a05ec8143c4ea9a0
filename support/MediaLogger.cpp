#include "support/MediaLogger.h"
#include "support/SafeFile.h"

#include "support/MutexGuard.h"

#include <sys/time.h>

#include <chrono>
#include <cinttypes>
#include <cstring>
#include <ctime>

namespace QEL { namespace CSITools {

namespace {

constexpr auto WorkerPause = std::chrono::milliseconds(3);
constexpr auto StopPoll = std::chrono::milliseconds(10);

template <class T> T ReadAt(const std::uint8_t* bytes, std::size_t offset)
{
    T value;
    std::memcpy(&value, bytes + offset, sizeof value);
    return value;
}

} // namespace

std::string FormatCurrentTime()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[64];
    std::snprintf(text, sizeof text, "%d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<long>(now.tv_usec));
    return text;
}

std::string FormatDump(const void* data, std::uint32_t length)
{
    if (!data)
        return "";
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    std::string out = "Dump buffer: length=" + std::to_string(length) + "\n0x0000 : ";
    std::string column;
    char group[8];
    for (std::uint32_t i = 0; i < length; ++i) {
        std::snprintf(group, sizeof group, "0x%02x ", bytes[i]);
        out += group;
        column += (bytes[i] >= 32 && bytes[i] <= 126) ? static_cast<char>(bytes[i]) : '.';
        if ((i + 1) % 16 == 0) {
            char offset[32];
            std::snprintf(offset, sizeof offset, "\n0x%04x : ", i + 1);
            out += column + offset;
            column.clear();
        }
    }
    if (length % 16 != 0)
        out += "; " + column;
    return out;
}

std::string FormatPacket(const void* data, std::uint32_t length)
{
    if (!data || length < 32)
        return "";
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    std::string out =
        "Prefix    = " +
        std::string(reinterpret_cast<const char*>(bytes), strnlen(reinterpret_cast<const char*>(bytes), length)) + "\n";
    auto field = [&](const char* label, std::uint64_t value) {
        char line[96];
        std::snprintf(line, sizeof line, "%s%" PRIu64 " = 0x%" PRIx64 "\n", label, value, value);
        out += line;
    };
    field("flags     = ", ReadAt<std::uint16_t>(bytes, 4));
    field("command   = ", ReadAt<std::uint16_t>(bytes, 6));
    field("length    = ", ReadAt<std::uint16_t>(bytes, 8));
    field("requestID = ", ReadAt<std::uint16_t>(bytes, 10));
    field("eventSize = ", ReadAt<std::uint16_t>(bytes, 12));
    field("eventID   = ", ReadAt<std::uint16_t>(bytes, 14));
    field("timeStamp = ", ReadAt<std::uint64_t>(bytes, 16));
    field("frameID   = ", ReadAt<std::uint64_t>(bytes, 24));
    return out;
}

Logger::Logger(const std::string& path, bool append)
    : file(Tools::OpenFileForWriting(path, append)), messageMutex(std::make_shared<System::Mutex>()),
      dumpMutex(std::make_shared<System::Mutex>())
{
    messageThread = std::thread(&Logger::MessageWorker, this);
    dumpThread = std::thread(&Logger::DumpWorker, this);
}

Logger::~Logger()
{
    // The dump worker stops first, so that what it still hands over reaches
    // the message queue while the message worker runs.
    dumpRunning = false;
    while (!dumpStopped)
        std::this_thread::sleep_for(StopPoll);
    messageRunning = false;
    while (!messageStopped)
        std::this_thread::sleep_for(StopPoll);
    if (file)
        std::fclose(file);
    file = nullptr;
    messageThread.join();
    dumpThread.join();
}

void Logger::Log(const std::string& text)
{
    if (messageRunning)
        LogLine(FormatCurrentTime() + ": " + text);
}

void Logger::LogLine(const std::string& line)
{
    if (!messageRunning || !file)
        return;
    System::SharedMutexGuard guard(messageMutex);
    messages.push_back(line);
}

void Logger::Dump(const std::string& text, const void* data, std::uint32_t length)
{
    if (length == 0 || !data || !dumpRunning)
        return;
    auto record = std::make_unique<DumpRecord>();
    System::SharedMutexGuard guard(dumpMutex);
    record->text = FormatCurrentTime() + ": " + text;
    record->bytes.assign(static_cast<const std::uint8_t*>(data), static_cast<const std::uint8_t*>(data) + length);
    record->length = length;
    dumps.push_back(std::move(record));
}

void Logger::WriteLine(const std::string& line)
{
    std::fprintf(file, "%s\n", line.c_str());
    std::fflush(file);
}

void Logger::MessageWorker()
{
    if (file)
        WriteLine(FormatCurrentTime() + ": +++++ logger started. +++++");
    while (messageRunning) {
        if (file) {
            std::string line;
            bool have = false;
            {
                System::SharedMutexGuard guard(messageMutex);
                if (!messages.empty()) {
                    line = std::move(messages.front());
                    messages.pop_front();
                    have = true;
                }
            }
            if (have)
                WriteLine(line);
        }
        std::this_thread::sleep_for(WorkerPause);
    }
    if (file) {
        System::SharedMutexGuard guard(messageMutex);
        WriteLine(FormatCurrentTime() + ": ***** logger exiting, " + std::to_string(messages.size()) +
                  " messages left");
        for (const std::string& line : messages)
            WriteLine(line);
        messages.clear();
        WriteLine(FormatCurrentTime() + ": ***** logger stopped. *****");
    }
    messageStopped = true;
}

void Logger::DumpWorker()
{
    while (dumpRunning) {
        std::unique_ptr<DumpRecord> record;
        {
            System::SharedMutexGuard guard(dumpMutex);
            if (!dumps.empty()) {
                record = std::move(dumps.front());
                dumps.pop_front();
            }
        }
        if (record)
            LogLine(record->text + FormatDump(record->bytes.data(), record->length));
        std::this_thread::sleep_for(WorkerPause);
    }
    if (file) {
        System::SharedMutexGuard guard(dumpMutex);
        WriteLine(FormatCurrentTime() + ": ***** Dump logger exiting, " + std::to_string(dumps.size()) + " dumps left");
        for (const auto& record : dumps)
            WriteLine(FormatDump(record->bytes.data(), record->length));
        dumps.clear();
        WriteLine(FormatCurrentTime() + ": ***** Dump logger stopped. *****");
    }
    dumpStopped = true;
}

}} // namespace QEL::CSITools
