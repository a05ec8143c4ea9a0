#pragma once

#include "entry/GenTL.h"

#include <string>
#include <utility>

// A GenTL result with its text, as the tests compare them.
using Result = std::pair<GC_ERROR, std::string>;

inline Result Err(GC_ERROR code, std::string text) { return {code, std::move(text)}; }
