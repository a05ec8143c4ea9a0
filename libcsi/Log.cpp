#include "libcsi/Log.h"
#include "libcsi/SafeFile.h"

#include "libcsi/Config.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

namespace QEL { namespace LibCSIImpl {

namespace {

constexpr std::uint64_t MaxFileEntries = 1000000;

std::mutex logMutex;
std::FILE* logFile = nullptr;
std::uint64_t fileEntries = 0;
std::atomic<ReportSink> reportSink{nullptr};

std::string Timestamp()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[96];
    std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld.%06ld ", static_cast<long>(local.tm_hour),
                  static_cast<long>(local.tm_min), static_cast<long>(local.tm_sec), static_cast<long>(now.tv_usec));
    return text;
}

long ThreadId() { return static_cast<long>(::syscall(SYS_gettid)); }

}

std::int32_t ExchangeLogLevel(std::int32_t level)
{
    std::lock_guard<std::mutex> lock(logMutex);
    const std::int32_t old = TheConfig().logLevel;
    TheConfig().logLevel = level;
    return old;
}

bool LogWanted(int tier)
{
    std::lock_guard<std::mutex> lock(logMutex);
    return TheConfig().logLevel > tier;
}

void LogEntry(int tier, int line, const char* format, ...)
{
    char message[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    const std::string stamp = Timestamp();
    const int pid = static_cast<int>(::getpid());
    const long tid = ThreadId();
    {
        std::lock_guard<std::mutex> lock(logMutex);
        const Config& config = TheConfig();
        if (config.logLevel <= tier)
            return;
        std::fprintf(stderr, "LIBCSI: %sL:%05d P:%05d T:%05ld %s", stamp.c_str(), line, pid, tid, message);
        std::fflush(stderr);
        if (!logFile && config.logLevel >= 1)
            logFile = OpenFileForWriting(config.PathOf("libcsi.log"), false);
        if (logFile && fileEntries <= MaxFileEntries) {
            if (fileEntries < MaxFileEntries)
                std::fprintf(logFile, "%sL:%05d P:%05d T:%05ld %s", stamp.c_str(), line, pid, tid, message);
            else
                std::fprintf(logFile, "Maximum log entries reached");
            std::fflush(logFile);
            ++fileEntries;
        }
    }
    if (ReportSink sink = reportSink.load()) {
        char report[1024];
        std::snprintf(report, sizeof report, "%s%sL:%05d P:%05d T:%05ld %s", "LIBCSI: ", stamp.c_str(), line, pid,
                      tid, message);
        sink(report);
    }
}

void SetReportSink(ReportSink sink) { reportSink.store(sink); }

std::uint64_t LogFileEntries()
{
    std::lock_guard<std::mutex> lock(logMutex);
    return fileEntries;
}

void ResetLogFile()
{
    std::lock_guard<std::mutex> lock(logMutex);
    if (logFile)
        std::fclose(logFile);
    logFile = nullptr;
    fileEntries = 0;
}

} }
