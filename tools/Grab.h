#pragma once

#include "tools/ImageWriter.h"
#include "client/Session.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace LorunTool {

using LorunClient::Session;

struct GrabOptions {
    std::uint64_t frames = 0;   // 0: until `seconds` or Ctrl-C
    double seconds = 0;         // 0: until `frames` or Ctrl-C
    std::string deviceId;       // empty: the first camera
    std::uint32_t buffers = 8;
    std::string saveFolder;     // empty: save nothing
    std::uint64_t every = 1;    // save every k-th frame
    ImageFormat format = ImageFormat::Png;
    bool progressOnTerminal = true; // false: plain periodic lines
};

// Acquires through the GenTL functions with a live progress line and ends with
// a summary; `stop` set (by Ctrl-C) ends it cleanly. Returns the exit code.
int Grab(Session& session, const GrabOptions& options, const std::atomic<bool>& stop);

}
