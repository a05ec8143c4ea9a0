#include "sim/StateFile.h"

#include "sim/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace QEL { namespace Sim {

namespace {

constexpr const char* Magic = "lorun virtual camera state 1";
constexpr std::size_t MaxFileSize = 1u << 20;
constexpr std::size_t MaxValueBytes = 64;

struct Damaged {
    std::string why;
};

std::string Hex(std::uint64_t value)
{
    char text[20];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

std::uint64_t ParseHex(const std::string& text, std::size_t maxDigits, const char* what)
{
    if (text.empty() || text.size() > maxDigits || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw Damaged{std::string("bad ") + what + " '" + text.substr(0, 40) + "'"};
    return std::stoull(text, nullptr, 16);
}

std::vector<std::uint8_t> ParseBytes(const std::string& text)
{
    if (text.empty() || text.size() % 2 != 0 || text.size() > 2 * MaxValueBytes ||
        text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw Damaged{"bad value '" + text.substr(0, 40) + "'"};
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

bool IsCameraName(const std::string& name)
{
    return name.compare(0, 6, "camera") == 0 && name.size() <= 64 &&
           name.find_first_of(" \t\r\n") == std::string::npos;
}

void Report(const std::string& path, const std::string& what)
{
    std::fprintf(stderr, "Virtual camera state file '%s': %s\n", path.c_str(), what.c_str());
}

}

std::uint64_t TextDigest(const std::string& text)
{
    std::uint64_t hash = 0xcbf29ce484222325ull;
    for (const char c : text) {
        hash ^= static_cast<std::uint8_t>(c);
        hash *= 0x100000001b3ull;
    }
    return hash;
}

StateFile::StateFile(std::string file, std::uint64_t id) : path(std::move(file)), identity(id)
{
    // Never through a link: the lock file is made or opened where it lies.
    lockFd = ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (lockFd < 0)
        Report(path, std::string("cannot open its lock file (") + std::strerror(errno) +
                         "); the cameras keep nothing between processes");
}

StateFile::~StateFile()
{
    if (lockFd >= 0)
        ::close(lockFd);
}

bool StateFile::LockRange(short type, std::size_t byte, bool wait)
{
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(byte);
    range.l_len = 1;
    // Locks of the open file description: a second description, in this
    // process or another, is refused, and closing another descriptor of the
    // file drops nothing.
    for (;;) {
        if (::fcntl(lockFd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &range) == 0)
            return true;
        if (errno != EINTR)
            return false;
    }
}

StateFile::Cameras StateFile::ReadAll()
{
    Cameras cameras;
    std::string text;
    int error = 0;
    switch (ReadWholeFile(path, MaxFileSize, false, text, error)) {
    case FileRead::Done:
        break;
    case FileRead::CannotOpen:
        if (error != ENOENT) // none yet: every camera as described
            Report(path, std::string("cannot be read (") + std::strerror(error) + "); ignored");
        return cameras;
    case FileRead::NotRegular:
    case FileRead::TooLarge:
        Report(path, "not a regular file of at most 1 MiB; ignored");
        return cameras;
    }
    try {
        std::istringstream in(text);
        std::string line;
        if (!std::getline(in, line) || line != Magic)
            throw Damaged{"not a state file of the virtual camera"};
        std::string word;
        if (!std::getline(in, line) || !(std::istringstream(line) >> word) || word != "description" ||
            line.size() != 12 + 16)
            throw Damaged{"no description line"};
        if (ParseHex(line.substr(12), 16, "description") != identity)
            throw Damaged{"it belongs to another camera description"};
        for (std::size_t number = 3; std::getline(in, line); ++number) {
            std::istringstream fields(line);
            std::string camera, address, value, extra;
            if (!(fields >> camera >> address >> value) || (fields >> extra) || !IsCameraName(camera))
                throw Damaged{"line " + std::to_string(number) + " is not 'CAMERA ADDRESS VALUE'"};
            cameras[camera][ParseHex(address, 16, "address")] = ParseBytes(value);
        }
    } catch (const Damaged& damaged) {
        Report(path, damaged.why + "; ignored");
        return {};
    }
    return cameras;
}

void StateFile::WriteAll(const Cameras& cameras)
{
    std::string text = std::string(Magic) + "\ndescription " + Hex(identity) + "\n";
    for (const auto& [camera, values] : cameras)
        for (const auto& [address, bytes] : values) {
            text += camera + " " + Hex(address) + " ";
            for (const std::uint8_t byte : bytes) {
                char digits[3];
                std::snprintf(digits, sizeof digits, "%02x", byte);
                text += digits;
            }
            text += "\n";
        }
    // A whole new file replaces the old at once: a reader sees the old or the new.
    const std::string temporary = path + ".tmp" + std::to_string(::getpid());
    ::unlink(temporary.c_str()); // left by a process that died writing
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    bool written = fd >= 0;
    for (std::size_t done = 0; written && done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        written = n > 0;
        done += written ? static_cast<std::size_t>(n) : 0;
    }
    const int error = errno;
    if (fd >= 0)
        written = ::close(fd) == 0 && written;
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        Report(path, std::string("cannot be written (") + std::strerror(written ? errno : error) + ")");
        ::unlink(temporary.c_str());
    }
}

StateFile::Values StateFile::Load(const std::string& camera)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (lockFd < 0 || !LockRange(F_RDLCK, 0, true))
        return {};
    Cameras cameras = ReadAll();
    LockRange(F_UNLCK, 0, false);
    return cameras[camera];
}

void StateFile::Save(const std::string& camera, const Values& values)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (lockFd < 0 || !LockRange(F_WRLCK, 0, true))
        return;
    Cameras cameras = ReadAll();
    if (values.empty())
        cameras.erase(camera);
    else
        cameras[camera] = values;
    WriteAll(cameras);
    LockRange(F_UNLCK, 0, false);
}

bool StateFile::Claim(std::size_t index)
{
    std::lock_guard<std::mutex> lock(mutex);
    return lockFd < 0 || LockRange(F_WRLCK, 1 + index, false);
}

void StateFile::Release(std::size_t index)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (lockFd >= 0)
        LockRange(F_UNLCK, 1 + index, false);
}

std::string StateFile::DefaultPath(const std::string& description)
{
    const std::size_t slash = description.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : description.substr(0, slash + 1);
    if (::access(folder.c_str(), W_OK) == 0)
        return description + ".state";
    // Beside a description that cannot be written to: the user's runtime folder,
    // the file named after the description's full path so that boards stay apart.
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::string base = runtime && runtime[0] == '/' ? runtime : "/tmp";
    base += "/lorun-" + std::to_string(::getuid());
    ::mkdir(base.c_str(), 0700);
    struct stat status {};
    if (::lstat(base.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != ::getuid())
        return {}; // someone else's, or a link: keep nothing rather than write there
    char* absolute = ::realpath(description.c_str(), nullptr);
    const std::string full = absolute ? absolute : description;
    std::free(absolute);
    const std::string name = description.substr(slash == std::string::npos ? 0 : slash + 1);
    return base + "/" + name + "-" + Hex(TextDigest(full)).substr(0, 8) + ".state";
}

} }
