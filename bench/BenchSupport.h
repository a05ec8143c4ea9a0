#pragma once

// Clocks, medians and table printing shared by the benchmarks.
#include "sim/CameraFirmware.h"
#include "sim/CameraMap.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/resource.h>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <string>
#include <vector>

namespace QEL { namespace Bench {

inline double CpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

inline double WallSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline std::uint64_t SteadyNanoseconds()
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

// Voluntary and involuntary context switches of the whole process so far.
inline double ContextSwitches()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
}

// Two threads handing a turn to each other `count` times through a condition
// variable, nothing else done: what each crossing a frame makes costs on this
// machine. `cpuMicroseconds` is the CPU of both threads per hand-off;
// `wakeUps` the microseconds from each notify to the woken thread running.
struct HandOffs {
    double cpuMicroseconds = 0;
    std::vector<double> wakeUps;
};

inline HandOffs MeasureHandOffs(int count)
{
    std::mutex mutex;
    std::condition_variable changed;
    int turn = 0; // even: the first thread's turn
    std::uint64_t notifiedAt = 0;
    HandOffs result;
    result.wakeUps.reserve(static_cast<std::size_t>(count));
    auto play = [&](int first) {
        std::unique_lock<std::mutex> lock(mutex);
        for (int n = first; n < count; n += 2) {
            changed.wait(lock, [&] { return turn == n; });
            if (n > 0)
                result.wakeUps.push_back(static_cast<double>(SteadyNanoseconds() - notifiedAt) / 1000.0);
            ++turn;
            notifiedAt = SteadyNanoseconds();
            changed.notify_one();
        }
    };
    const double start = CpuSeconds();
    std::thread other(play, 1);
    play(0);
    other.join();
    result.cpuMicroseconds = (CpuSeconds() - start) * 1e6 / count;
    return result;
}

// The value at `fraction` (0.5 the median) of `values`.
inline double Percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto at = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(at, values.size() - 1)];
}

inline double Median(std::vector<double> values) { return Percentile(std::move(values), 0.5); }

// LORUN_BENCH_TINY=1: a few frames and calls each, to show that every table still comes out.
inline bool Tiny() { return std::getenv("LORUN_BENCH_TINY") != nullptr; }

// A markdown table: header cells, then rows of cells.
inline void PrintTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows)
{
    std::string line = "|", rule = "|";
    for (const auto& cell : header) {
        line += " " + cell + " |";
        rule += std::string(cell.size() + 2, '-') + "|";
    }
    std::printf("%s\n%s\n", line.c_str(), rule.c_str());
    for (const auto& row : rows) {
        line = "|";
        for (const auto& cell : row)
            line += " " + cell + " |";
        std::printf("%s\n", line.c_str());
    }
    std::printf("\n");
    std::fflush(stdout);
}

inline std::string Format(const char* format, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// A GenCP command as the host sends it: header with preamble and CRC, then `payload`.
inline std::vector<std::uint8_t> GenCPPacket(std::uint16_t commandId, std::uint16_t requestId,
                                             const std::vector<std::uint8_t>& payload)
{
    std::vector<std::uint8_t> packet(16 + payload.size(), 0);
    auto put16 = [&](std::size_t at, std::uint16_t v) {
        packet[at] = static_cast<std::uint8_t>(v);
        packet[at + 1] = static_cast<std::uint8_t>(v >> 8);
    };
    put16(0, 0x0100);
    put16(8, 0x4000);
    put16(10, commandId);
    put16(12, static_cast<std::uint16_t>(payload.size()));
    put16(14, requestId);
    std::copy(payload.begin(), payload.end(), packet.begin() + 16);
    const std::uint32_t crc = Sim::GenCPCrc32(packet.data() + 6, packet.size() - 6);
    std::memcpy(&packet[2], &crc, 4);
    return packet;
}

inline std::vector<std::uint8_t> ReadMemoryCommand(std::uint64_t address, std::uint16_t length)
{
    std::vector<std::uint8_t> payload(12, 0);
    std::memcpy(&payload[0], &address, 8);
    std::memcpy(&payload[10], &length, 2);
    return GenCPPacket(Sim::CameraMap::ReadMemCmd, 1, payload);
}

inline std::vector<std::uint8_t> WriteMemoryCommand(std::uint64_t address, const std::vector<std::uint8_t>& data)
{
    std::vector<std::uint8_t> payload(8 + data.size(), 0);
    std::memcpy(&payload[0], &address, 8);
    std::copy(data.begin(), data.end(), payload.begin() + 8);
    return GenCPPacket(Sim::CameraMap::WriteMemCmd, 1, payload);
}

} }
