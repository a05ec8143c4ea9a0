#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace QEL { namespace Sim {

// One virtual camera as a description file gives it.
struct CameraDescription {
    std::string name = "camera0";     // its section, by which the control file names it
    std::string node = "video0";      // V4L2 node name
    std::uint32_t port = 0;           // I2C port number
    std::uint32_t bus = 2;            // I2C bus number
    std::uint32_t address = 0x3c;     // I2C address
    std::string manufacturer = "Tesmar Lumetric Industries";
    std::string model = "Virtual CSI-2 Camera";
    std::string family = "Lorun Virtual";
    std::string deviceVersion = "1.0";
    std::string manufacturerInfo = "Virtual camera of the Lorun producer";
    std::string serialNumber = "VC0000001";
    std::string userDefinedName;
    std::string guid = "VIRTUAL-CAMERA-0001";
    unsigned stringEncoding = 0;      // 0 ASCII, 1 UTF-8, 2 UTF-16
    std::uint32_t width = 640;
    std::uint32_t height = 480;
    std::uint32_t widthMax = 2592;
    std::uint32_t heightMax = 1944;
    std::string pixelFormat = "Mono8";
    double frameRate = 30;            // 0: as fast as buffers allow
    std::uint32_t busSpeed = 400000;  // hertz: 100000 or 400000
    bool busTiming = true;            // register traffic costs what it would on the bus
    bool leaderTrailer = true;        // false: frames are the bare payload, the host emulates leader and trailer
    bool chunkData = false;           // frames of payload type 0x4001: the image and a frame counter as chunks
    // true: each buffer gets the image once (the first frame's pattern) and
    // then only its leader, trailer and chunk counter per frame, so the driver
    // costs next to nothing per frame, as a DMA engine would; for benchmarks.
    bool preparedFrames = false;
    std::uint32_t manifestEntries = 1; // 1 to MaxManifestEntries copies of the document, file versions 1.0.0, 1.0.1, ...
    std::string documentFile;         // the camera's GenApi document from this file, in place of the built-in one
    std::string document;             // its contents, read with the description
    std::uint32_t layoutVersion = 0x00010000; // GCPRM layout, major << 16 | minor
    std::uint32_t cciLayoutVersion = 0x00010000;
    std::uint64_t deviceCapabilities = 0x4; // bit 2: GenCP mode supported
    std::uint32_t gencpInBufferSize = 1024;
    std::uint32_t gencpOutBufferSize = 1024;
    std::uint32_t modeSwitchDelayMs = 20;
    std::uint32_t laneMask = 0xB;     // bit n-1 for n lanes
    std::uint32_t clockMinHz = 80000000;
    std::uint32_t clockMaxHz = 750000000;
    std::uint64_t firmwareVersion = 0x0000000700030201ull;
    bool available = true;
};

constexpr std::uint32_t MaxManifestEntries = 8;
constexpr std::uint64_t MaxDocumentSize = 16u << 20;

// The board and driver, and the cameras on it.
struct SystemDescription {
    std::string board = "imx8m";      // nitrogen, wandboard, tegra, imx8, imx8m, imx8x
    std::string driverVersion = "1.0.8.0";
    std::uint32_t interfaceVersion = 0x010008;
    bool driverInfo = true;           // false: the driver refuses VIDIOC_G_DRIVER_INFO
    std::uint32_t usrptrAlignment = 256;
    std::uint32_t ipuXMin = 256, ipuXMax = 32768, ipuXInc = 192;
    std::uint32_t ipuYMin = 32, ipuYMax = 32768, ipuYInc = 1;
    std::uint32_t minAnnouncedFrames = 3;
    std::uint64_t statisticsCapabilities = 0x3F;
    std::string control;              // a file of commands that other processes append to; empty: none
    // The file in which the cameras keep their settings between processes;
    // empty: they keep nothing. "state" in the file, "none" for nothing;
    // without the key a description read from a file keeps them beside itself.
    std::string state;
    std::string stateKey;             // the key as written
    std::uint64_t identity = 0;       // a digest of the description's text, which its state file carries
    std::vector<CameraDescription> cameras;

    // Reads an ini file: a [system] section and one section per camera whose
    // name begins with "camera". Unknown keys are an error. Without a state
    // key, the cameras keep their settings in StateFile::DefaultPath(path).
    static SystemDescription FromFile(const std::string& path);
    // Relative file names in it are taken from the folder of `origin`, the
    // description's own path, or from the working folder.
    static SystemDescription FromText(const std::string& text, const std::string& origin = "");

private:
    static SystemDescription Parse(const std::string& text, const std::string& origin);
};

} }
