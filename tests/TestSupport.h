#pragma once

#include "base/GenTL.h"

#include <fstream>
#include <sstream>
#include <string>
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

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}
