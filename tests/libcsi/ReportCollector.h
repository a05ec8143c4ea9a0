#pragma once

// libcsi's report lines as its report thread hands them over. A test keeps
// its collector static: a report under way may still touch it after the
// deregistration, until libcsi_deinit joins the report thread.
#include "libcsi/include/libcsi/libcsi.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

struct ReportCollector {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> lines;

    // Registers the collector, emptied; the returned guard deregisters it.
    struct Registration {
        ~Registration() { libcsi_deregister_report_callback(); }
    };
    Registration Register()
    {
        lines.clear();
        EXPECT_EQ(LIBCSI_OK, libcsi_register_report_callback(&ReportCollector::Collect, this));
        return {};
    }

    // Waits until a line holding `text` has arrived; the lock stays with the
    // caller, for reading `lines`, when it has.
    bool AwaitLine(std::unique_lock<std::mutex>& lock, const std::string& text)
    {
        return changed.wait_for(lock, std::chrono::seconds(10 * TimeScale()), [&] {
            return std::any_of(lines.begin(), lines.end(),
                               [&](const std::string& line) { return line.find(text) != std::string::npos; });
        });
    }

private:
    static void Collect(void* context, const char* text)
    {
        auto* self = static_cast<ReportCollector*>(context);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->lines.push_back(text);
        self->changed.notify_all();
    }
};
