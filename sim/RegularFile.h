#pragma once

#include <cstdint>
#include <string>

namespace QEL { namespace Sim {

// Reads a whole regular file of at most `limit` bytes into `text`, without
// blocking on a FIFO or a device; with `followLinks` false a link is not
// opened (error ELOOP). Anything else is refused, so that /dev/zero, a FIFO or
// a folder cannot hang or swell the reader.
enum class FileRead { Done, CannotOpen, NotRegular, TooLarge };
FileRead ReadWholeFile(const std::string& path, std::uint64_t limit, bool followLinks, std::string& text, int& error);

// The same for a file the user named, refused with std::invalid_argument that
// names it as `what`.
std::string ReadRegularFile(const std::string& path, std::uint64_t limit, const char* what);

} }
