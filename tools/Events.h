#pragma once

#include "client/Session.h"

#include <atomic>
#include <string>

namespace LorunTool {

using LorunClient::Session;

// Registers every event a module offers and prints each as it arrives, for
// `seconds` (0: until `stop`). Returns the exit code.
int WatchEvents(Session& session, const std::string& module, double seconds, const std::atomic<bool>& stop);

}
