#pragma once

#include "support/Mutex.h"
#include "base/Object.h"

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace QEL { namespace Tools {

// The process-wide system log. Lines are written at once by the logging thread.
class Logger : public virtual System::Object {
public:
    virtual void Write(const std::string& message) = 0;

    static void Set(std::shared_ptr<Logger> logger);
    static void Clear();
    static bool IsActive();
    static void Log(const std::string& message);
    static void LogCalled(const std::string& functionName);

    struct Data {
        std::mutex mutex;
        std::shared_ptr<Logger> logger;
    };
};

class FileLogger : public virtual Logger {
public:
    FileLogger(const std::string& path, bool append);
    ~FileLogger() override;

    void Write(const std::string& message) override;

private:
    std::FILE* file = nullptr;
    System::Mutex mutex;
};

} }
