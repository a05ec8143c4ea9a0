#pragma once

// The virtual camera's control file, driven as another process drives it: a
// command is appended, and the test waits until the camera acknowledges it.
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>

class CameraControl {
public:
    explicit CameraControl(std::string path) : path(std::move(path)) {}

    // Appends command lines and waits until the camera reports them applied.
    ::testing::AssertionResult Command(const std::string& lines) const
    {
        std::ofstream(path, std::ios::app) << lines << "\n";
        const std::string text = ReadFile(path);
        const auto written = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
        if (Eventually([&] { return Applied() >= written; }))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "not applied: " << lines;
    }

    // The counters of "report CAMERA", by name; empty when the report did not come.
    std::map<std::string, std::uint64_t> Report(const std::string& camera) const
    {
        std::map<std::string, std::uint64_t> counters;
        if (!Command("report " + camera))
            return counters;
        std::istringstream text(ReadFile(path + ".report"));
        std::string name, equals;
        std::uint64_t value = 0;
        while (text >> name >> equals >> value)
            counters[name] = value;
        return counters;
    }

private:
    // The number of the control file's last line the camera has applied.
    std::uint64_t Applied() const
    {
        const std::string text = ReadFile(path + ".applied");
        return text.empty() ? 0 : std::stoull(text);
    }

    std::string path;
};
