#pragma once

#include "base/GenTL.h"

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

namespace QEL { namespace Base { class Exception; } }

// A GenTL result with its text, as the tests compare them.
using Result = std::pair<GC_ERROR, std::string>;

inline Result Err(GC_ERROR code, std::string text) { return {code, std::move(text)}; }

// The code and plain text of the exception that `f` throws, or success.
template <class E = QEL::Base::Exception, class F>
Result Failure(F&& f)
{
    try {
        f();
    } catch (const E& e) {
        return {e.GetCode(), e.GetText()};
    }
    return {GC_ERR_SUCCESS, ""};
}

// Waits until `done` holds, looking every few milliseconds; false when it
// still does not after `limit`, which is generous for slow and sanitized runs.
inline bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}
