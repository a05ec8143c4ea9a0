// The commands of the virtual camera's control file, so that a camera can be
// pulled out, put back or given faults from outside the process.
#include "sim/VirtualSystem.h"

#include "sim/ControlFile.h"

#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace QEL { namespace Sim {

namespace {

std::uint64_t Number(const std::string& text, const char* what)
{
    std::size_t used = 0;
    std::uint64_t value = 0;
    try {
        if (!text.empty() && text[0] != '-')
            value = std::stoull(text, &used, 0);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size())
        throw std::invalid_argument(std::string("bad ") + what + " '" + text + "'");
    return value;
}

std::uint32_t Count(const std::string& text)
{
    const std::uint64_t value = Number(text, "count");
    if (value > 0xFFFFFFFFu)
        throw std::invalid_argument("count '" + text + "' too large");
    return static_cast<std::uint32_t>(value);
}

}

std::size_t VirtualSystem::CameraByName(const std::string& name) const
{
    for (std::size_t i = 0; i < description.cameras.size(); ++i)
        if (description.cameras[i].name == name)
            return i;
    throw std::invalid_argument("no camera '" + name + "'");
}

void VirtualSystem::ApplyCommand(const std::string& line)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        if (word[0] == '#')
            break;
        words.push_back(word);
    }
    if (words.empty())
        return;
    const std::string& verb = words[0];
    auto expect = [&](std::size_t least, std::size_t most, const char* usage) {
        if (words.size() < least || words.size() > most)
            throw std::invalid_argument(std::string("usage: ") + usage);
    };
    if (verb == "unplug" || verb == "replug") {
        expect(2, 2, "unplug|replug CAMERA");
        SetAvailable(CameraByName(words[1]), verb == "replug");
    } else if (verb == "fault") {
        expect(3, 5, "fault CAMERA NAME [COUNT [VALUE]]");
        const Fault fault = FaultByName(words[2]);
        const std::uint32_t count = words.size() > 3 ? Count(words[3]) : 1;
        const std::uint64_t value = words.size() > 4 ? Number(words[4], "value") : 0;
        InjectFault(CameraByName(words[1]), fault, count, value);
    } else if (verb == "ioctl") {
        expect(5, 5, "ioctl CAMERA VIDIOC_NAME ERRNO COUNT");
        const std::uint64_t error = Number(words[3], "errno");
        if (error == 0 || error > 4095)
            throw std::invalid_argument("bad errno '" + words[3] + "'");
        FailIoctl(CameraByName(words[1]), words[2], static_cast<int>(error), Count(words[4]));
    } else if (verb == "identity") {
        expect(4, 4, "identity CAMERA NAME VALUE");
        SetIdentity(CameraByName(words[1]), words[2], words[3]);
    } else if (verb == "clear") {
        expect(2, 2, "clear CAMERA");
        ClearFaults(CameraByName(words[1]));
    } else if (verb == "reset") {
        expect(2, 2, "reset CAMERA");
        GetFirmware(CameraByName(words[1])).RestoreDescription();
    } else if (verb == "report") {
        expect(2, 2, "report CAMERA");
        Report(CameraByName(words[1]));
    } else {
        throw std::invalid_argument("unknown command '" + verb + "'");
    }
}

void VirtualSystem::Report(std::size_t camera)
{
    if (description.control.empty())
        throw std::invalid_argument("report needs a control file");
    CameraFirmware& firmware = GetFirmware(camera);
    std::ostringstream text;
    text << "frames_sent = " << GetFramesSent(camera) << "\nframes_lost = " << GetFramesLost(camera)
         << "\nbus_bytes = " << firmware.GetBusBytes() << "\ndocument_bytes_read = " << firmware.GetDocumentBytesRead()
         << "\n";
    if (!WriteFileReplacing(description.control + ".report", text.str()))
        throw std::invalid_argument("report file '" + description.control + ".report' cannot be written");
}

} }
