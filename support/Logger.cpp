#include "support/Logger.h"
#include "support/SafeFile.h"

#include "base/Exception.h"
#include "support/StaticData.h"

#include <sys/time.h>
#include <atomic>
#include <ctime>

namespace QEL { namespace Tools {

namespace {
System::StaticData::Anchor anchor;
// Whether a logger is installed, written under the data's mutex: the entry
// functions ask on every call, and the answer needs no lookup of the data.
std::atomic<bool> installed{false};
}

void Logger::Set(std::shared_ptr<Logger> logger)
{
    if (!logger)
        throw System::Exception("No logger passed.");
    auto data = System::StaticData::Get<Data>();
    std::lock_guard<std::mutex> lock(data->mutex);
    data->logger = std::move(logger);
    installed.store(true, std::memory_order_release);
}

void Logger::Clear()
{
    auto data = System::StaticData::Get<Data>();
    std::shared_ptr<Logger> old;
    std::lock_guard<std::mutex> lock(data->mutex);
    old.swap(data->logger);
    installed.store(false, std::memory_order_release);
}

bool Logger::IsActive()
{
    return installed.load(std::memory_order_acquire);
}

void Logger::Log(const std::string& message)
{
    auto data = System::StaticData::Get<Data>();
    std::lock_guard<std::mutex> lock(data->mutex);
    if (data->logger)
        data->logger->Write(message);
}

void Logger::LogCalled(const std::string& functionName) { Log(functionName + " called"); }

FileLogger::FileLogger(const std::string& path, bool append)
{
    file = OpenFileForWriting(path, append);
    if (!file)
        throw System::Exception("Could not open file.");
}

FileLogger::~FileLogger()
{
    if (file)
        std::fclose(file);
}

void FileLogger::Write(const std::string& message)
{
    mutex.Lock();
    if (file) {
        timeval now{};
        gettimeofday(&now, nullptr);
        std::tm local{};
        localtime_r(&now.tv_sec, &local);
        char time[32];
        if (now.tv_usec != 0)
            std::snprintf(time, sizeof time, "%02d:%02d:%02d.%06ld", local.tm_hour, local.tm_min, local.tm_sec,
                          static_cast<long>(now.tv_usec));
        else
            std::snprintf(time, sizeof time, "%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
        std::fprintf(file, "%d-%02d-%02d %s: %s\n", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, time,
                     message.c_str());
        std::fflush(file);
    }
    mutex.Unlock();
}

} }
