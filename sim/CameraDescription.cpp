#include "sim/CameraDescription.h"

#include "sim/PixelFormats.h"
#include "sim/RegularFile.h"
#include "sim/StateFile.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>

namespace QEL { namespace Sim {

namespace {

using Tree = boost::property_tree::ptree;

// A non-negative decimal or 0x hexadecimal number; stoull would take "-1" for 2^64-1.
std::uint64_t Number(const std::string& text)
{
    std::size_t used = 0;
    std::uint64_t value = 0;
    try {
        if (!text.empty() && std::isdigit(static_cast<unsigned char>(text[0])))
            value = std::stoull(text, &used, 0);
    } catch (const std::out_of_range&) {
        throw std::invalid_argument("'" + text + "' is out of range");
    }
    if (used == 0 || used != text.size())
        throw std::invalid_argument("not a number: '" + text + "'");
    return value;
}

std::uint32_t Version(const std::string& text)
{
    unsigned major = 0, minor = 0, patch = 0;
    if (std::sscanf(text.c_str(), "%u.%u.%u", &major, &minor, &patch) != 3)
        throw std::invalid_argument("not a version: '" + text + "'");
    return major << 16 | minor << 8 | patch;
}

// A fault of a key: thrown with the key's name, placed by FromText.
struct KeyError : std::invalid_argument {
    KeyError(std::string section, std::string key, const std::string& what)
        : std::invalid_argument(what), section(std::move(section)), key(std::move(key))
    {
    }
    std::string section, key;
};

// Applies each key of a section through its setter; a key without one is an error.
void Apply(const Tree& section, const std::string& name,
           const std::map<std::string, std::function<void(const std::string&)>>& setters)
{
    for (const auto& [key, value] : section) {
        auto setter = setters.find(key);
        if (setter == setters.end())
            throw KeyError(name, key, "unknown key '" + key + "' in [" + name + "]");
        try {
            setter->second(value.data());
        } catch (const std::exception& e) {
            throw KeyError(name, key, "bad value of '" + key + "' in [" + name + "]: " + e.what());
        }
    }
}

template <class T>
std::function<void(const std::string&)> Into(T& target)
{
    return [&target](const std::string& text) {
        if constexpr (std::is_same_v<T, std::string>)
            target = text;
        else if constexpr (std::is_same_v<T, bool>)
            target = Number(text) != 0;
        else if constexpr (std::is_same_v<T, double>)
            target = std::stod(text);
        else {
            const std::uint64_t value = Number(text);
            if (value > std::numeric_limits<T>::max())
                throw std::invalid_argument("'" + text + "' is out of range (at most " +
                                            std::to_string(std::numeric_limits<T>::max()) + ")");
            target = static_cast<T>(value);
        }
    };
}

// The line of `key` in `[section]` of the description, for messages; 0 when not found.
std::size_t LineOf(const std::string& text, const std::string& section, const std::string& key)
{
    std::istringstream in(text);
    std::string line, current;
    for (std::size_t number = 1; std::getline(in, line); ++number) {
        const auto first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == ';' || line[first] == '#')
            continue;
        if (line[first] == '[') {
            current = line.substr(first + 1, line.find(']') - first - 1);
            continue;
        }
        const auto equals = line.find('=');
        std::string name = line.substr(first, equals == std::string::npos ? std::string::npos : equals - first);
        name.erase(name.find_last_not_of(" \t") + 1);
        if (current == section && name == key)
            return number;
    }
    return 0;
}

CameraDescription ReadCamera(const Tree& section, const std::string& name)
{
    CameraDescription c;
    c.name = name;
    Apply(section, name,
          {{"node", Into(c.node)},
           {"port", Into(c.port)},
           {"bus", Into(c.bus)},
           {"address", Into(c.address)},
           {"manufacturer", Into(c.manufacturer)},
           {"model", Into(c.model)},
           {"family", Into(c.family)},
           {"device_version", Into(c.deviceVersion)},
           {"manufacturer_info", Into(c.manufacturerInfo)},
           {"serial_number", Into(c.serialNumber)},
           {"user_defined_name", Into(c.userDefinedName)},
           {"guid", Into(c.guid)},
           {"string_encoding", Into(c.stringEncoding)},
           {"width", Into(c.width)},
           {"height", Into(c.height)},
           {"width_max", Into(c.widthMax)},
           {"height_max", Into(c.heightMax)},
           {"pixel_format", Into(c.pixelFormat)},
           {"frame_rate", Into(c.frameRate)},
           {"bus_speed", Into(c.busSpeed)},
           {"bus_timing", Into(c.busTiming)},
           {"leader_trailer", Into(c.leaderTrailer)},
           {"chunk_data", Into(c.chunkData)},
           {"prepared_frames", Into(c.preparedFrames)},
           {"manifest_entries", Into(c.manifestEntries)},
           {"document", Into(c.documentFile)},
           {"layout_version", Into(c.layoutVersion)},
           {"cci_layout_version", Into(c.cciLayoutVersion)},
           {"device_capabilities", Into(c.deviceCapabilities)},
           {"gencp_in_buffer_size", Into(c.gencpInBufferSize)},
           {"gencp_out_buffer_size", Into(c.gencpOutBufferSize)},
           {"mode_switch_delay_ms", Into(c.modeSwitchDelayMs)},
           {"lane_mask", Into(c.laneMask)},
           {"clock_min_hz", Into(c.clockMinHz)},
           {"clock_max_hz", Into(c.clockMaxHz)},
           {"firmware_version", Into(c.firmwareVersion)},
           {"available", Into(c.available)}});
    PixelFormatByName(c.pixelFormat);
    if (c.width == 0 || c.height == 0 || c.width > c.widthMax || c.height > c.heightMax)
        throw KeyError(name, "width", "bad geometry in [" + name + "]");
    if (c.manifestEntries < 1 || c.manifestEntries > MaxManifestEntries)
        throw KeyError(name, "manifest_entries", "manifest_entries must be 1 to " + std::to_string(MaxManifestEntries) + " in [" +
                                    name + "]");
    if (c.stringEncoding > 2)
        throw KeyError(name, "string_encoding", "string_encoding must be 0, 1 or 2 in [" + name + "]");
    if (c.node.empty() || c.node.find('/') != std::string::npos)
        throw KeyError(name, "node", "the node of [" + name + "] must be a plain name");
    c.deviceCapabilities = (c.deviceCapabilities & ~std::uint64_t{0xF0}) | (std::uint64_t{c.stringEncoding} << 4);
    return c;
}

}

namespace {

// Files named in a description lie beside it unless the path is absolute.
std::string Beside(const std::string& description, const std::string& path)
{
    if (path.empty() || path[0] == '/')
        return path;
    const std::size_t slash = description.rfind('/');
    return slash == std::string::npos ? path : description.substr(0, slash + 1) + path;
}

}

SystemDescription SystemDescription::FromText(const std::string& text, const std::string& origin)
{
    const std::string where = origin.empty() ? "camera description" : "camera description '" + origin + "'";
    try {
        return Parse(text, origin);
    } catch (const KeyError& e) {
        const std::size_t line = LineOf(text, e.section, e.key);
        throw std::invalid_argument(where + (line ? ", line " + std::to_string(line) : std::string()) + ", key '" +
                                    e.key + "': " + e.what());
    } catch (const boost::property_tree::ini_parser_error& e) {
        throw std::invalid_argument(where + ", line " + std::to_string(e.line()) + ": " + e.message());
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument(where + ": " + e.what());
    }
}

SystemDescription SystemDescription::Parse(const std::string& text, const std::string& origin)
{
    Tree tree;
    std::istringstream in(text);
    boost::property_tree::ini_parser::read_ini(in, tree);
    SystemDescription d;
    for (const auto& [name, section] : tree) {
        if (name == "system") {
            std::string interfaceVersion;
            Apply(section, name,
                  {{"board", Into(d.board)},
                   {"driver_version", Into(d.driverVersion)},
                   {"interface_version", [&](const std::string& t) { d.interfaceVersion = Version(t); }},
                   {"driver_info", Into(d.driverInfo)},
                   {"usrptr_alignment", Into(d.usrptrAlignment)},
                   {"ipu_x_min", Into(d.ipuXMin)},
                   {"ipu_x_max", Into(d.ipuXMax)},
                   {"ipu_x_inc", Into(d.ipuXInc)},
                   {"ipu_y_min", Into(d.ipuYMin)},
                   {"ipu_y_max", Into(d.ipuYMax)},
                   {"ipu_y_inc", Into(d.ipuYInc)},
                   {"min_announced_frames", Into(d.minAnnouncedFrames)},
                   {"statistics_capabilities", Into(d.statisticsCapabilities)},
                   {"control", Into(d.control)},
                   {"state", Into(d.stateKey)}});
            static const char* const boards[] = {"nitrogen", "wandboard", "tegra", "imx8", "imx8m", "imx8x"};
            if (std::find(std::begin(boards), std::end(boards), d.board) == std::end(boards))
                throw KeyError(name, "board", "unknown board '" + d.board + "'");
        } else if (name.compare(0, 6, "camera") == 0) {
            d.cameras.push_back(ReadCamera(section, name));
            // Without a GUID of its own, the n-th camera is VIRTUAL-CAMERA-000n.
            if (!section.get_child_optional("guid")) {
                char guid[32];
                std::snprintf(guid, sizeof guid, "VIRTUAL-CAMERA-%04zu", d.cameras.size());
                d.cameras.back().guid = guid;
            }
        } else {
            throw std::invalid_argument("unknown section [" + name + "]");
        }
    }
    // Each camera is one identity in one place.
    for (std::size_t i = 0; i < d.cameras.size(); ++i)
        for (std::size_t j = 0; j < i; ++j) {
            const CameraDescription &a = d.cameras[j], &b = d.cameras[i];
            if (a.guid == b.guid && !b.guid.empty()) // an empty GUID stands for a camera that reports none
                throw KeyError(b.name, "guid", "[" + a.name + "] and [" + b.name + "] have one GUID '" + b.guid + "'");
            if (a.node == b.node)
                throw KeyError(b.name, "node", "[" + a.name + "] and [" + b.name + "] are on one node '" + b.node + "'");
            // The I2C device is named by bus and address alone; a second one there would hide the first.
            if (a.bus == b.bus && a.address == b.address)
                throw KeyError(b.name, "address", "[" + a.name + "] and [" + b.name + "] have one bus and address");
        }
    d.control = Beside(origin, d.control);
    d.state = d.stateKey == "none" ? "" : Beside(origin, d.stateKey);
    d.identity = TextDigest(text);
    for (CameraDescription& camera : d.cameras)
        if (!camera.documentFile.empty())
            camera.document =
                ReadRegularFile(Beside(origin, camera.documentFile), MaxDocumentSize, "camera document");
    return d;
}

SystemDescription SystemDescription::FromFile(const std::string& path)
{
    SystemDescription d = FromText(ReadRegularFile(path, 1u << 20, "camera description"), path);
    if (d.stateKey.empty())
        d.state = StateFile::DefaultPath(path);
    return d;
}

} }
