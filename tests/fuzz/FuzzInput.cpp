#include "tests/fuzz/FuzzInput.h"

#include <boost/filesystem.hpp>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace QEL { namespace Fuzz {

namespace {

struct Folder {
    Folder()
    {
        path = (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("lorun-fuzz-%%%%-%%%%")).string();
        boost::filesystem::create_directories(path);
    }
    ~Folder()
    {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

}

const std::string& PrivateFolder()
{
    static const Folder folder;
    return folder.path;
}

std::string WriteFile(const std::string& name, const std::uint8_t* bytes, std::size_t size)
{
    const std::string path = PrivateFolder() + "/" + name;
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        throw std::runtime_error("cannot write " + path);
    const bool written = size == 0 || std::fwrite(bytes, 1, size, file) == size;
    std::fclose(file);
    if (!written)
        throw std::runtime_error("cannot write " + path);
    return path;
}

} }
