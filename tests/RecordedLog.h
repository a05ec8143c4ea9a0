#pragma once

// The system log kept in memory while a test runs.
#include "support/Logger.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

class RecordedLog : public QEL::Tools::Logger {
public:
    static std::shared_ptr<RecordedLog> Install()
    {
        auto log = std::make_shared<RecordedLog>();
        QEL::Tools::Logger::Set(log);
        return log;
    }
    ~RecordedLog() override = default;

    void Write(const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(message);
    }
    // How many lines contain `text`.
    int Count(const std::string& text) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        int count = 0;
        for (const auto& line : lines)
            count += line.find(text) != std::string::npos;
        return count;
    }

private:
    mutable std::mutex mutex;
    std::vector<std::string> lines;
};
