#pragma once

#include <cstddef>
#include <cstdint>

namespace QEL { namespace LibCSIImpl {

// Log tiers: an entry is written when log_level is greater than its tier.
enum Tier { TierHighest = 0, TierError = 1, TierWarning = 2, TierTrace = 3, TierVerbose = 4 };

bool LogWanted(int tier);
// The log level changed or read under the log mutex, as the logging threads read it.
std::int32_t ExchangeLogLevel(std::int32_t level);
void LogEntry(int tier, int line, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Where log entries go besides stderr and the file: the report queue of the
// initialised library. Set and cleared by the library.
using ReportSink = void (*)(const char* text);
void SetReportSink(ReportSink sink);

// Entries written to the log file so far; for tests.
std::uint64_t LogFileEntries();
void ResetLogFile();

} }

#define LIBCSI_LOG(tier, ...)                                                                                   \
    do {                                                                                                       \
        if (::QEL::LibCSIImpl::LogWanted(tier))                                                                \
            ::QEL::LibCSIImpl::LogEntry(tier, __LINE__, __VA_ARGS__);                                          \
    } while (0)
