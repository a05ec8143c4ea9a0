// lorun-gentl: a GenTL consumer on the command line. It loads any producer
// (.cti) with dlopen, as a consumer does: by default the first one on
// GENICAM_GENTL64_PATH (GENICAM_GENTL32_PATH in a 32-bit build, as 32-bit
// consumers look), then the one built beside it.
#include "client/FeatureTree.h"
#include "client/ProducerPath.h"
#include "client/Session.h"
#include "client/Settings.h"
#include "tools/Events.h"
#include "tools/Grab.h"

#include <boost/program_options.hpp>

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#ifndef LORUN_BUILT_PRODUCER
#define LORUN_BUILT_PRODUCER ""
#endif

namespace po = boost::program_options;
using namespace LorunClient;
using namespace LorunTool;

namespace {

std::atomic<bool> interrupted{false};

void OnInterrupt(int) { interrupted = true; }

std::string DefaultProducer()
{
    std::string path = LorunClient::DefaultProducer(LORUN_BUILT_PRODUCER);
    if (path.empty())
        throw UsageError(std::string("no producer: set ") + GenTLPathVariable + " or give --producer PATH.cti");
    return path;
}

void PrintInfo(const GenTLProducer& producer)
{
    static const struct {
        TL_INFO_CMD command;
        const char* label;
    } rows[] = {
        {TL_INFO_ID, "ID"},
        {TL_INFO_VENDOR, "Vendor"},
        {TL_INFO_MODEL, "Model"},
        {TL_INFO_VERSION, "Version"},
        {TL_INFO_TLTYPE, "TL type"},
        {TL_INFO_NAME, "Name"},
        {TL_INFO_PATHNAME, "Path"},
        {TL_INFO_DISPLAYNAME, "Display name"},
        {TL_INFO_CHAR_ENCODING, "Encoding"},
        {TL_INFO_GENTL_VER_MAJOR, "GenTL version major"},
        {TL_INFO_GENTL_VER_MINOR, "GenTL version minor"},
        {TL_INFO_CUSTOM_ID, "Custom TL type"},
    };
    std::printf("%-22s %s\n", "Info", "Value");
    std::printf("%-22s %s\n", "----------------------", "-----");
    for (const auto& row : rows) {
        std::string value = producer.InfoText(row.command);
        if (row.command == TL_INFO_CHAR_ENCODING)
            value += value == "1" ? " (UTF-8)" : value == "0" ? " (ASCII)" : "";
        std::printf("%-22s %s\n", row.label, value.c_str());
    }
}

int Info(const std::string& path)
{
    GenTLProducer producer(path);
    producer.Check(producer.GCInitLib(), "GCInitLib");
    PrintInfo(producer);
    producer.GCCloseLib();
    return 0;
}

int Producers()
{
    const auto found = ProducersOnPath();
    if (found.empty()) {
        std::printf("No producer on %s.\n", GenTLPathVariable);
        return 0;
    }
    int result = 0;
    for (const std::string& path : found) {
        std::printf("%s\n", path.c_str());
        try {
            GenTLProducer producer(path);
            producer.Check(producer.GCInitLib(), "GCInitLib");
            for (auto [command, label] : {std::pair{TL_INFO_VENDOR, "vendor"}, std::pair{TL_INFO_MODEL, "model"},
                                          std::pair{TL_INFO_VERSION, "version"}, std::pair{TL_INFO_TLTYPE, "TL type"}})
                std::printf("  %-8s %s\n", label, producer.InfoText(command).c_str());
            producer.GCCloseLib();
        } catch (const ProducerError& e) {
            std::printf("  %s\n", e.what());
            result = 1;
        }
    }
    return result;
}

void PrintCamera(Session& session, const Session::Camera& camera);

int Devices(const std::string& path)
{
    GenTLProducer producer(path);
    Session session(producer);
    const auto cameras = session.Cameras();
    for (const auto& entry : session.Interfaces()) {
        const std::string& interfaceId = entry.first;
        const auto count = std::count_if(cameras.begin(), cameras.end(),
                                         [&](const Session::Camera& c) { return c.interfaceId == interfaceId; });
        std::printf("Interface %s: %ld device(s)\n", interfaceId.c_str(), static_cast<long>(count));
        if (count)
            std::printf("%-36s %-28s %-28s %-16s %s\n", "ID", "Vendor", "Model", "Serial number", "Access");
        for (const auto& camera : cameras)
            if (camera.interfaceId == interfaceId)
                PrintCamera(session, camera);
    }
    if (session.Interfaces().empty())
        std::printf("No interface found.\n");
    return 0;
}

void PrintCamera(Session& session, const Session::Camera& camera)
{
    const int32_t access = session.CameraAccess(camera);
    const char* accessText = access == -1                             ? "?"
                             : access == DEVICE_ACCESS_STATUS_READWRITE ? "read/write"
                             : access == DEVICE_ACCESS_STATUS_READONLY  ? "read-only"
                             : access == DEVICE_ACCESS_STATUS_NOACCESS  ? "no access"
                                                                        : "other";
    std::printf("%-36s %-28s %-28s %-16s %s\n", camera.id.c_str(), session.CameraInfo(camera, DEVICE_INFO_VENDOR).c_str(),
                session.CameraInfo(camera, DEVICE_INFO_MODEL).c_str(),
                session.CameraInfo(camera, DEVICE_INFO_SERIAL_NUMBER).c_str(), accessText);
}

struct Command {
    const char* summary;
    std::function<void(po::options_description&, po::positional_options_description&)> options;
    std::function<int(const po::variables_map&)> run;
};

std::string ProducerOf(const po::variables_map& vm)
{
    return vm.count("producer") ? vm["producer"].as<std::string>() : DefaultProducer();
}

void ModuleOption(po::options_description& options)
{
    options.add_options()("module,m", po::value<std::string>()->default_value("remote"),
                          "system, interface, device, remote (the camera) or stream");
}

// The NAME=VALUE settings a command takes after its own arguments, all checked
// for their form before any is written.
std::vector<Setting> SettingsOf(const po::variables_map& vm)
{
    std::vector<Setting> settings;
    if (vm.count("settings"))
        for (const std::string& assignment : vm["settings"].as<std::vector<std::string>>())
            settings.push_back(ParseSetting(assignment));
    return settings;
}

void SettingsOption(po::options_description& options, po::positional_options_description& positional)
{
    options.add_options()("settings", po::value<std::vector<std::string>>()->multitoken(),
                          "NAME=VALUE ... written in order to the module's features first");
    positional.add("settings", -1);
}

// One feature tree of the chosen module, its settings written, in a session that ends with it.
template <class F>
int WithFeatures(const po::variables_map& vm, F&& use)
{
    const auto settings = SettingsOf(vm);
    GenTLProducer producer(ProducerOf(vm));
    Session session(producer);
    if (vm.count("device"))
        session.OpenDevice(vm["device"].as<std::string>());
    FeatureTree features(producer, session.Port(vm["module"].as<std::string>()));
    Apply(features, settings);
    return use(features);
}

// Opens the module's port in `session` and writes the settings, before a command that needs no feature tree.
void ApplySettings(Session& session, const std::string& module, const po::variables_map& vm)
{
    const auto settings = SettingsOf(vm);
    if (settings.empty())
        return;
    FeatureTree features(session.Producer(), session.Port(module));
    Apply(features, settings);
}

const std::map<std::string, Command>& Commands()
{
    static const std::map<std::string, Command> commands = {
        {"producers",
         {"the .cti files on GENICAM_GENTL64_PATH (32 for a 32-bit tool) with their library info", [](auto&, auto&) {},
          [](const po::variables_map&) { return Producers(); }}},
        {"info",
         {"library information of a producer",
          [](po::options_description& o, po::positional_options_description& p) {
              o.add_options()("path", po::value<std::string>(), "the producer (same as --producer)");
              p.add("path", 1);
          },
          [](const po::variables_map& vm) {
              return Info(vm.count("path") ? vm["path"].as<std::string>() : ProducerOf(vm));
          }}},
        {"devices",
         {"interfaces and cameras with ID, vendor, model, serial number and access",
          [](po::options_description& o, po::positional_options_description& p) {
              o.add_options()("path", po::value<std::string>(), "the producer (same as --producer)");
              p.add("path", 1);
          },
          [](const po::variables_map& vm) {
              return Devices(vm.count("path") ? vm["path"].as<std::string>() : ProducerOf(vm));
          }}},
        {"features",
         {"the feature tree of a module's document with values, access modes and units",
          [](po::options_description& o, po::positional_options_description& p) {
              ModuleOption(o);
              o.add_options()("all", "also invisible, guru and unimplemented features")(
                  "device", po::value<std::string>(), "camera ID (default: the first)");
              SettingsOption(o, p);
          },
          [](const po::variables_map& vm) {
              return WithFeatures(vm, [&](FeatureTree& f) {
                  f.Print(std::cout, vm.count("all") != 0);
                  return 0;
              });
          }}},
        {"get",
         {"the value of one feature",
          [](po::options_description& o, po::positional_options_description& p) {
              ModuleOption(o);
              o.add_options()("name", po::value<std::string>()->required(), "feature name")(
                  "device", po::value<std::string>(), "camera ID (default: the first)");
              p.add("name", 1);
              SettingsOption(o, p);
          },
          [](const po::variables_map& vm) {
              return WithFeatures(vm, [&](FeatureTree& f) {
                  std::printf("%s\n", f.Get(vm["name"].as<std::string>()).c_str());
                  return 0;
              });
          }}},
        {"set",
         {"writes one feature: set NAME=VALUE",
          [](po::options_description& o, po::positional_options_description& p) {
              ModuleOption(o);
              o.add_options()("assignment", po::value<std::string>()->required(), "NAME=VALUE")(
                  "device", po::value<std::string>(), "camera ID (default: the first)");
              p.add("assignment", 1);
          },
          [](const po::variables_map& vm) {
              const auto [name, value] = ParseSetting(vm["assignment"].as<std::string>());
              return WithFeatures(vm, [&, name = name, value = value](FeatureTree& f) {
                  f.Set(name, value);
                  std::printf("%s = %s\n", name.c_str(), f.Get(name).c_str());
                  return 0;
              });
          }}},
        {"exec",
         {"executes a command feature",
          [](po::options_description& o, po::positional_options_description& p) {
              ModuleOption(o);
              o.add_options()("name", po::value<std::string>()->required(), "command name")(
                  "device", po::value<std::string>(), "camera ID (default: the first)");
              p.add("name", 1);
          },
          [](const po::variables_map& vm) {
              return WithFeatures(vm, [&](FeatureTree& f) {
                  f.Execute(vm["name"].as<std::string>());
                  return 0;
              });
          }}},
        {"grab",
         {"acquires frames with a live progress line and a summary; Ctrl-C stops cleanly",
          [](po::options_description& o, po::positional_options_description& p) {
              ModuleOption(o);
              SettingsOption(o, p);
              o.add_options()("frames,n", po::value<std::uint64_t>(), "frames to take")(
                  "seconds,t", po::value<double>(), "seconds to acquire")(
                  "device", po::value<std::string>(), "camera ID (default: the first)")(
                  "buffers", po::value<std::uint32_t>()->default_value(8), "buffers to allocate")(
                  "save", po::value<std::string>(), "folder to save images in")(
                  "every", po::value<std::uint64_t>()->default_value(1), "save every k-th frame")(
                  "format", po::value<std::string>()->default_value("png"), "png, pgm or raw");
          },
          [](const po::variables_map& vm) {
              GrabOptions options;
              if (vm.count("frames"))
                  options.frames = vm["frames"].as<std::uint64_t>();
              if (vm.count("seconds"))
                  options.seconds = vm["seconds"].as<double>();
              if (options.frames == 0 && options.seconds <= 0 && !vm.count("frames") && !vm.count("seconds"))
                  options.frames = 100;
              if (vm.count("frames") && options.frames == 0)
                  throw UsageError("-n must be at least 1");
              if (vm.count("seconds") && options.seconds <= 0)
                  throw UsageError("-t must be above 0");
              if (vm.count("device"))
                  options.deviceId = vm["device"].as<std::string>();
              options.buffers = vm["buffers"].as<std::uint32_t>();
              if (options.buffers == 0 || options.buffers > 1024)
                  throw UsageError("--buffers must be 1 to 1024");
              if (vm.count("save"))
                  options.saveFolder = vm["save"].as<std::string>();
              options.every = vm["every"].as<std::uint64_t>();
              if (options.every == 0)
                  throw UsageError("--every must be at least 1");
              const std::string format = vm["format"].as<std::string>();
              if (format == "png")
                  options.format = ImageFormat::Png;
              else if (format == "pgm")
                  options.format = ImageFormat::Pgm;
              else if (format == "raw")
                  options.format = ImageFormat::Raw;
              else
                  throw UsageError("--format must be png, pgm or raw");
              options.progressOnTerminal = ::isatty(STDOUT_FILENO) != 0;
              SettingsOf(vm); // their form, before the producer loads
              GenTLProducer producer(ProducerOf(vm));
              Session session(producer);
              session.OpenDevice(options.deviceId); // the settings go to the camera grabbed from
              ApplySettings(session, vm["module"].as<std::string>(), vm);
              return Grab(session, options, interrupted);
          }}},
        {"events",
         {"prints a module's events as they arrive (device list changes, camera events)",
          [](po::options_description& o, po::positional_options_description& p) {
              o.add_options()("module,m", po::value<std::string>()->default_value("interface"),
                              "system, interface, device or stream")("seconds,t", po::value<double>(),
                                                                     "seconds to watch (default: until Ctrl-C)");
              SettingsOption(o, p);
          },
          [](const po::variables_map& vm) {
              const double seconds = vm.count("seconds") ? vm["seconds"].as<double>() : 0;
              if (vm.count("seconds") && seconds <= 0)
                  throw UsageError("-t must be above 0");
              SettingsOf(vm); // their form, before the producer loads
              GenTLProducer producer(ProducerOf(vm));
              Session session(producer);
              ApplySettings(session, vm["module"].as<std::string>(), vm);
              return WatchEvents(session, vm["module"].as<std::string>(), seconds, interrupted);
          }}},
    };
    return commands;
}

void Usage(std::FILE* out)
{
    std::fprintf(out, "Usage: lorun-gentl COMMAND [--producer PATH.cti] [OPTIONS]\n\nCommands:\n");
    for (const auto& [name, command] : Commands())
        std::fprintf(out, "  %-10s %s\n", name.c_str(), command.summary);
    std::fprintf(out, "\nlorun-gentl COMMAND --help shows a command's options. Exit codes: 0 success, 1 a producer "
                      "or camera error, 2 bad usage.\n");
}

}

int main(int argc, char** argv)
{
    if (argc < 2 || std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h") {
        Usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    const auto found = Commands().find(argv[1]);
    if (found == Commands().end()) {
        std::fprintf(stderr, "lorun-gentl: unknown command '%s'\n\n", argv[1]);
        Usage(stderr);
        return 2;
    }
    const Command& command = found->second;
    po::options_description options(std::string("lorun-gentl ") + argv[1] + ": " + command.summary + "\nOptions");
    options.add_options()("help,h", "this help")("producer", po::value<std::string>(),
                                                 "the GenTL producer (.cti) to load");
    po::positional_options_description positional;
    command.options(options, positional);
    po::variables_map vm;
    try {
        po::store(po::command_line_parser(argc - 1, argv + 1).options(options).positional(positional).run(), vm);
        if (vm.count("help")) {
            std::cout << options << "\n";
            return 0;
        }
        po::notify(vm);
    } catch (const po::error& e) {
        std::fprintf(stderr, "lorun-gentl %s: %s\n\n", argv[1], e.what());
        std::cerr << options << "\n";
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    try {
        return command.run(vm);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "lorun-gentl %s: %s\n", argv[1], e.what());
        return 2;
    } catch (const ProducerError& e) {
        std::fprintf(stderr, "lorun-gentl %s: %s\n", argv[1], e.what());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "lorun-gentl %s: %s\n", argv[1], e.what());
        return 1;
    }
}
