// Each libcsi test process writes its files (libcsi_info.txt, the log) into
// a folder of its own, so that tests running side by side do not meet there.
#include "libcsi/Config.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

namespace {

class PrivateFolder : public ::testing::Environment {
public:
    void SetUp() override
    {
        folder = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("libcsi-test-%%%%-%%%%");
        boost::filesystem::create_directories(folder);
        QEL::LibCSIImpl::TheConfig().directory = folder.string();
    }
    void TearDown() override
    {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(folder, ignored);
    }

private:
    boost::filesystem::path folder;
};

::testing::Environment* const privateFolder = ::testing::AddGlobalTestEnvironment(new PrivateFolder);

}
