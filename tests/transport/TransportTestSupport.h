#pragma once

// A virtual board with two cameras under the library model, and the media
// log it writes, read back once the library is gone.
#include "libcsi/OsSeam.h"
#include "sim/VirtualSystem.h"
#include "transport/LibCSILibrary.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace TransportTest {

inline const char* kTwoCameras = R"(
[camera0]
guid = LEFT-0001
serial_number = SN-LEFT
model = Left Camera
port = 2
bus = 2
bus_timing = 0
mode_switch_delay_ms = 2
width = 64
height = 16
frame_rate = 0

[camera1]
node = video1
guid = RIGHT-0002
serial_number = SN-RIGHT
port = 3
bus = 3
bus_timing = 0
mode_switch_delay_ms = 2
)";

class Board : public ::testing::Test {
protected:
    Board()
        : system(std::make_shared<QEL::Sim::VirtualSystem>(QEL::Sim::SystemDescription::FromText(kTwoCameras))),
          logPath(boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("medialog-%%%%-%%%%.txt"))
    {
        QEL::Os::Install(system);
    }
    ~Board() override
    {
        library.reset();
        QEL::Os::Install(nullptr);
        boost::system::error_code ignored;
        boost::filesystem::remove(logPath, ignored);
    }

    void CreateLibrary(bool mediaLog = true) { library = QEL::LibCSI::Library::Create(mediaLog, logPath.string()); }

    // The media log is written in the background; it is complete once the library is gone.
    std::string MediaLogAfterClose()
    {
        library.reset();
        std::ifstream file(logPath.string());
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    std::shared_ptr<QEL::Sim::VirtualSystem> system;
    boost::filesystem::path logPath;
    std::shared_ptr<QEL::LibCSI::Library> library;
};

}
