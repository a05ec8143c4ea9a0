#pragma once

#include <cstdio>
#include <string>

namespace QEL { namespace LibCSIImpl {

// Opens `path` for writing the way every file libcsi writes must be
// opened: a symbolic link planted there is not followed, anything but a
// regular file is refused, and a new file gets no group or world write
// permission. Truncates unless `append`. Null, with errno set, on refusal.
std::FILE* OpenFileForWriting(const std::string& path, bool append);

} }
